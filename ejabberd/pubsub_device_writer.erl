%% SPDX-License-Identifier: GPL-3.0-only
%% The one writer of a node. It numbers the node's items and keeps them for the devices, so that numbers ascend, and
%% passes them in this order to the senders (pubsub_device_sender), each of which sends to some of the devices.
%%
%% A node belongs to one shard of one member of the cluster, found by hashing over the members that run: no table is
%% needed, and when a member leaves, the others agree on the next writer at once. While members have different views
%% of the cluster, a node may have two writers: the store still assigns numbers in order, and the new writer's senders
%% begin with all kept copies, so a device may get an item again, but does not lose one to a wrong order. All that has
%% to survive is in the store.
%%
%% Publications that are queued when the first of them is taken are written together, with at most ?BATCH messages
%% between, and passed on to the senders. No publisher is answered before its item is on disk; the devices do not wait
%% for that. If the server is killed in between, an item may have reached some of its devices and be lost to the others,
%% and its publisher got no answer.
-module(pubsub_device_writer).
-behaviour(gen_server).

-export([shards/0, shard/1, start_link/1, name/1, locate/1, member/1]).
-export([call/2, cast/2, publish_ahead/3, watch/1, await/3]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2, code_change/3]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

%% `numbers` is the storage's; `commit` the monitor of the process that syncs; `batch` holds the publications that wait for the commit, newest first, and `taken` the
%% number of messages taken since the first of them. `locks` is #{Node => {Holder, Monitor, Waiting}} with the waiting
%% callers, oldest first.
-record(state, {numbers, commit, batch = [], taken = 0, locks = #{}}).

-define(SHARDS, 8).
-define(NAMES, {pubsub_device_writer_0, pubsub_device_writer_1, pubsub_device_writer_2, pubsub_device_writer_3,
                 pubsub_device_writer_4, pubsub_device_writer_5, pubsub_device_writer_6, pubsub_device_writer_7}).
-define(BATCH, 256).
-define(ATTEMPTS, 100).
-define(PAUSE, 100).
-define(TIMEOUT, 30000).

shards() -> lists:seq(0, ?SHARDS - 1).
shard(Node) -> erlang:phash2(Node, ?SHARDS).
name(Shard) -> element(Shard + 1, ?NAMES).
start_link(Shard) -> gen_server:start_link({local, name(Shard)}, ?MODULE, Shard, []).

locate(Node) ->
    {name(shard(Node)), member(Node)}.

%% The member of the cluster whose writer and senders serve the node.
member(Node) ->
    case pubsub_device_commit:members() of
        [Only] -> Only;
        Members ->
            {_, Member} = lists:max([{erlang:phash2({Node, Each}), Each} || Each <- Members]),
            Member
    end.

%% Calls the writer, and calls the next one when the member on which it runs leaves. An item whose answer was lost
%% with the member is then published twice, under two numbers, rather than not at all.
call(Node, Request) ->
    call(Node, Request, ?ATTEMPTS).

call(_, _, 0) ->
    {error, xmpp:err_resource_constraint(<<"The writer of this node is away; try again later">>, <<"en">>)};
call(Node, Request, Left) ->
    try gen_server:call(locate(Node), Request, ?TIMEOUT) of
        moved -> timer:sleep(?PAUSE), call(Node, Request, Left - 1);
        Answer -> Answer
    catch
        exit:{timeout, _} -> call(Node, Request, 0);
        exit:_ -> timer:sleep(?PAUSE), call(Node, Request, Left - 1)
    end.

%% Publishes without waiting; the process `Waiter` monitors the writer and gets the result with await/3.
publish_ahead(Node, Publication, Waiter) ->
    cast(Node, {publish, Node, Publication, Waiter}).

watch(Node) ->
    monitor(process, locate(Node)).

%% Waits for the result of publish_ahead/3, and publishes the item itself when the writer ended without an answer.
await(Node, Publication, Monitor) ->
    receive
        {published, Outcome} -> demonitor(Monitor, [flush]), Outcome;
        moved -> demonitor(Monitor, [flush]), call(Node, {publish, Node, Publication});
        {'DOWN', Monitor, _, _, _} ->
            receive {published, Outcome} -> Outcome
            after 0 -> call(Node, {publish, Node, Publication})
            end
    after ?TIMEOUT -> call(Node, none, 0)
    end.

cast(Node, Request) -> gen_server:cast(locate(Node), Request).

init(Shard) ->
    {ok, #state{numbers = pubsub_device_store:numbers(Shard), commit = monitor(process, pubsub_device_commit)}}.

handle_call(settle, From, State) ->
    gen_server:reply(From, ok),
    next(State);
handle_call(Request, From, State) ->
    case member(element(2, Request)) == node() of
        true -> asked(Request, From, State);
        false -> gen_server:reply(From, moved), next(State)
    end.

asked({publish, _, Publication}, From, State) ->
    next(queue(Publication, From, State));
asked({lock, Node}, {Pid, _} = From, #state{locks = Locks} = State) ->
    case Locks of
        #{Node := {Pid, Monitor, Waiting}} ->  % the answer was lost
            demonitor(Monitor, [flush]),
            next(grant(Node, From, Waiting, State));
        #{Node := {Holder, Monitor, Waiting}} ->
            next(State#state{locks = Locks#{Node := {Holder, Monitor, Waiting ++ [From]}}});
        _ -> next(grant(Node, From, [], State))
    end;
asked({forget, Node, Id}, From, State) ->
    Left = commit(State),
    gen_server:reply(From, forget(Node, Id)),
    next(Left).

handle_cast({publish, Node, Publication, Waiter}, State) ->
    case member(Node) == node() of
        true -> next(queue(Publication, Waiter, State));
        false -> Waiter ! moved, next(State)
    end;
handle_cast({unlock, Node, Pid}, #state{locks = Locks} = State) ->
    case Locks of
        #{Node := {Pid, Monitor, Waiting}} ->
            demonitor(Monitor, [flush]),
            next(pass_on(Node, Waiting, State));
        #{Node := {Holder, Monitor, Waiting}} ->
            Others = [From || {Each, _} = From <- Waiting, Each /= Pid],
            next(State#state{locks = Locks#{Node := {Holder, Monitor, Others}}});
        _ -> next(State)
    end;
handle_cast({keep_last, Node, Device, Number, ItemId, Item}, State) ->
    Left = commit(State),
    pubsub_device_database:attempt(fun() -> pubsub_device_store:keep_last(Node, Device, Number, ItemId, Item) end,
                                   fun() -> false end)
        andalso pubsub_device_sender:cast(Node, Device, {pump, Node, Device}),
    next(Left).

handle_info(commit, State) ->
    {noreply, commit(State)};
%% Nobody else would tell the publishers whose answers waited for the disk; they publish again when this process ends.
handle_info({'DOWN', Monitor, process, _, Reason}, #state{commit = Monitor} = State) ->
    {stop, {commit, Reason}, State};
handle_info({'DOWN', Monitor, process, Pid, _}, #state{locks = Locks} = State) ->
    Held = [{Node, Waiting} || {Node, {Holder, Each, Waiting}} <- maps:to_list(Locks), Holder == Pid, Each == Monitor],
    next(lists:foldl(fun({Node, Waiting}, S) -> pass_on(Node, Waiting, S) end, State, Held));
handle_info(_, State) ->
    next(State).

terminate(_, _) -> ok.
code_change(_, State, _) -> {ok, State}.

%% The first publication requests the commit with a message: messages that are already queued are taken before it.
queue(Publication, From, #state{batch = Batch} = State) ->
    Batch == [] andalso (self() ! commit),
    State#state{batch = [{Publication, From} | Batch]}.

next(#state{batch = []} = State) -> {noreply, State};
next(#state{taken = Taken} = State) when Taken >= ?BATCH -> {noreply, commit(State)};
next(#state{taken = Taken} = State) -> {noreply, State#state{taken = Taken + 1}}.

%%% names

%% When a lock is granted for a name without a node, everything that a crash may have left of a former node is removed
%% first.
grant(Node, {Pid, _} = From, Waiting, #state{locks = Locks} = State) ->
    Cleaned = pubsub_device_database:attempt(fun() ->
                                                     case pubsub_device_tree:is_node(Node) of
                                                         true -> ok;
                                                         false -> forget(Node, unknown)
                                                     end
                                             end, fun unavailable/0),
    case Cleaned of
        ok ->
            Monitor = monitor(process, Pid),
            gen_server:reply(From, {ok, self()}),
            State#state{locks = Locks#{Node => {Pid, Monitor, Waiting}}};
        Error ->
            gen_server:reply(From, Error),
            pass_on(Node, Waiting, State)
    end.

unavailable() -> {error, pubsub_device_database:unavailable()}.

pass_on(Node, [From | Waiting], State) ->
    grant(Node, From, Waiting, State);
pass_on(Node, [], #state{locks = Locks} = State) ->
    State#state{locks = maps:remove(Node, Locks)}.

%% Removes what belongs to a node: ok, or an error. What remains then is removed by the sweep, or when the name is next
%% requested.
forget(Node, Id) ->
    pubsub_device_database:attempt(fun() ->
                                           pubsub_device_store:key_of(Node) == none
                                               orelse pubsub_device_store:delete_key(Node),
                                           pubsub_device_store:forget_limits(Node),
                                           pubsub_device_store:forget_node(Node, Id),
                                           pubsub_device_tree:forget_items(Node, Id)
                                   end, fun unavailable/0).

%%% publishing

commit(#state{batch = []} = State) ->
    State;
commit(#state{batch = Batch, numbers = Numbers} = State) ->
    {Publications, Callers} = lists:unzip(lists:reverse(Batch)),
    {Outcomes, Change, After} = pubsub_device_store:write(Publications, Numbers),
    Sync = pubsub_device_store:must_sync(Change),
    Sync == all andalso pubsub_device_commit:sync(),
    pubsub_device_store:complete(Change),
    pubsub_device_sender:send(sendings(Publications, Outcomes)),
    case Sync of
        answers -> pubsub_device_commit:afterwards(fun() -> tell(Callers, Outcomes) end);
        _ -> tell(Callers, Outcomes)
    end,
    State#state{batch = [], taken = 0, numbers = After}.

tell([Caller | Callers], [Outcome | Outcomes]) ->
    answer(Caller, case Outcome of
                       gone -> {error, xmpp:err_item_not_found()};
                       _ -> Outcome
                   end),
    tell(Callers, Outcomes);
tell([], []) ->
    ok.

answer(Waiter, Outcome) when is_pid(Waiter) -> Waiter ! {published, Outcome};
answer(From, Outcome) -> gen_server:reply(From, Outcome).

%% An item of a node that was deleted after the engine stored the item is refused, also when another node has the name
%% now; what the engine stored is removed.
sendings([Publication | Publications], [{ok, Number} | Outcomes]) ->
    [{Publication, Number} | sendings(Publications, Outcomes)];
sendings([#publication{node = Node, engine = Engine, id = Id} | Publications], [_ | Outcomes]) ->
    Engine andalso pubsub_device_tree:forget_items(Node, Id),
    sendings(Publications, Outcomes);
sendings([], []) ->
    [].
