%% SPDX-License-Identifier: GPL-3.0-only
%% Acknowledgements on their way to the database: those that came while a statement ran are carried out by the next
%% one. They are not synced by themselves: after a crash of the database a device may get an item again that it
%% acknowledged in the last moment. The same holds for what waits here when the server ends.
-module(pubsub_device_sql_acks).
-behaviour(gen_server).

-export([start_link/0, add/4, is_taken/1]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2, code_change/3]).

-include_lib("kernel/include/logger.hrl").

-define(BATCH, 500).
-define(PAUSE, 500).

start_link() -> gen_server:start_link({local, ?MODULE}, ?MODULE, [], []).

%% Calls Done(More) when the copy is dropped: whether others of the node wait for the device.
add(Node, Device, Number, Done) ->
    Copy = {Node, Device, Number},
    try ets:insert(?MODULE, {Copy})
    catch error:badarg -> true  % this process is being started again, and takes the acknowledgement then
    end,
    gen_server:cast(?MODULE, {add, Copy, Done}).

%% Whether the device has acknowledged the copy and the database has not been told yet. Known to the member alone to
%% which the device is connected.
is_taken(Copy) ->
    try ets:member(?MODULE, Copy)
    catch error:badarg -> false
    end.

%% The acknowledgements, newest first.
init([]) ->
    ets:new(?MODULE, [named_table, public, {read_concurrency, true}, {write_concurrency, true}]),
    {ok, []}.

handle_cast({add, Copy, Done}, []) -> self() ! flush, {noreply, [{Copy, Done}]};
handle_cast({add, Copy, Done}, Waiting) -> {noreply, [{Copy, Done} | Waiting]}.

handle_info(flush, []) ->
    {noreply, []};
handle_info(flush, Waiting) ->
    {Later, Now} = lists:split(max(0, length(Waiting) - ?BATCH), Waiting),
    case pubsub_device_sql_waiting:acknowledge([Copy || {Copy, _} <- Now]) of
        {ok, Queues} ->
            [ets:delete(?MODULE, Copy) || {Copy, _} <- Now],
            Left = maps:from_keys(Queues, true),
            [Done(maps:is_key({Node, Device}, Left)) || {{Node, Device, _}, Done} <- lists:reverse(Now)],
            Later == [] orelse (self() ! flush),
            {noreply, Later};
        {error, Reason} ->
            ?LOG_WARNING("~b acknowledgements wait for the database: ~p", [length(Waiting), Reason]),
            erlang:send_after(?PAUSE, self(), flush),
            {noreply, Waiting}
    end;
handle_info(_, Waiting) ->
    {noreply, Waiting}.

handle_call(_, _, Waiting) -> {reply, ok, Waiting}.
terminate(_, _) -> ok.
code_change(_, Waiting, _) -> {ok, Waiting}.
