%% SPDX-License-Identifier: GPL-3.0-only
%% The group commit of a cluster member: callers wait until what they have written is on disk, and what tells others of
%% it is held back until then. One sync serves all who asked before it began. It takes place when the
%% messages that were queued at the first request have been taken, or after ?BATCH messages, whatever else arrives.
-module(pubsub_device_commit).
-behaviour(gen_server).

-export([start_link/0, members/0, sync/0, answer/1, afterwards/1]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2, code_change/3]).

start_link() -> gen_server:start_link({local, ?MODULE}, ?MODULE, [], []).

-define(GROUP, pubsub_device_members).
-define(BATCH, 256).

%% The members of the cluster that run the extension. The server's own list contains a joining member long before it
%% does.
members() ->
    persistent_term:get(?MODULE, [node()]).

%% Asked for each item, so the list is kept ready.
keep_members() ->
    Members = lists:usort([node(Pid) || Pid <- pg:get_members(?GROUP, ?MODULE)]),
    persistent_term:put(?MODULE, case Members of
                                     [] -> [node()];
                                     _ -> Members
                                 end).

sync() ->
    case mod_pubsub_device:option(sync) of
        true -> gen_server:call(?MODULE, sync, infinity);
        false -> ok
    end.

%% Sends the answer once everything written before is on disk. The session that asked continues in the meantime.
answer(IQ) ->
    gen_server:cast(?MODULE, {answer, IQ}).

%% Calls the function, which must not fail, once everything written before is on disk.
afterwards(Fun) ->
    case mod_pubsub_device:option(sync) of
        true -> gen_server:cast(?MODULE, {call, Fun});
        false -> Fun(), ok
    end.

%% This process outlives the writers, so it owns the tables of counts and of traces.
init([]) ->
    pubsub_device_bounds:init(),
    pubsub_device_trace:init(),
    {ok, _} = pg:start_link(?GROUP),
    ok = pg:join(?GROUP, ?MODULE, self()),
    pg:monitor(?GROUP, ?MODULE),
    keep_members(),
    {ok, none}.

%% `none`, or the waiting callers, newest first, and how many messages were taken since the first of them.
handle_call(settle, From, State) -> wait({reply, From}, State);
handle_call(sync, From, State) -> wait({reply, From}, State).

handle_cast(Request, State) -> wait(Request, State).

handle_info(commit, State) -> {noreply, commit(State)};
handle_info({_, Change, ?MODULE, _}, State) when Change == join; Change == leave -> keep_members(), next(State);
handle_info(_, State) -> next(State).

wait(Who, none) -> self() ! commit, next({[Who], 0});
wait(Who, {Waiting, Taken}) -> next({[Who | Waiting], Taken}).

next(none) -> {noreply, none};
next({_, Taken} = State) when Taken >= ?BATCH -> {noreply, commit(State)};
next({Waiting, Taken}) -> {noreply, {Waiting, Taken + 1}}.

commit(none) ->
    none;
commit({Waiting, _}) ->
    mod_pubsub_device:option(sync)
        andalso (ok = pubsub_device_metrics:timed(commit, fun pubsub_device_store:sync/0)),
    lists:foreach(fun finish/1, lists:reverse(Waiting)),
    none.

finish({reply, From}) -> gen_server:reply(From, ok);
finish({call, Fun}) -> Fun();
finish({answer, IQ}) -> ejabberd_router:route(IQ).

terminate(_, _) -> ok.
code_change(_, State, _) -> {ok, State}.
