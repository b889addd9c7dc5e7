%% SPDX-License-Identifier: GPL-3.0-only
%% The group commit of a member: callers wait until what they have written is on disk. One sync answers everybody who
%% asked before it began, so its cost is shared by all writers.
-module(pubsub_device_commit).
-behaviour(gen_server).

-export([start_link/0, sync/0]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2, code_change/3]).

start_link() -> gen_server:start_link({local, ?MODULE}, ?MODULE, [], []).

sync() ->
    case mod_pubsub_device:option(sync) of
        true -> gen_server:call(?MODULE, sync, infinity);
        false -> ok
    end.

%% This process outlives the writers, so the counts are its own.
init([]) ->
    pubsub_device_bounds:init(),
    {ok, []}.

handle_call(sync, From, Waiting) -> {noreply, [From | Waiting], 0}.

handle_info(timeout, Waiting) ->
    ok = mnesia:sync_log(),
    [gen_server:reply(From, ok) || From <- Waiting],
    {noreply, []};
handle_info(_, Waiting) ->
    {noreply, Waiting, 0}.

handle_cast(_, Waiting) -> {noreply, Waiting, 0}.
terminate(_, _) -> ok.
code_change(_, Waiting, _) -> {ok, Waiting}.
