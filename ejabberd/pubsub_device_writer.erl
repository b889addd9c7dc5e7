%% SPDX-License-Identifier: GPL-3.0-only
%% The one writer of a node. It numbers the node's items, keeps them for the devices and sends them, so that numbers
%% ascend and every device gets its items in their order.
%%
%% A node belongs to one shard of one member of the cluster, found by hashing over the members that run: no table is
%% needed, and when a member leaves, the others agree on the next writer at once. While members have different views
%% of the cluster, a node may have two writers: the store still assigns numbers in order, and the new writer begins
%% with all kept copies, so a device may get an item again, but does not lose one to a wrong order. All that has to
%% survive is in the store; a writer has only the flows of the current sessions.
%%
%% Publishing uses group commits: the publications that were queued while the log was synced are written together,
%% synced once, answered and then sent. No publisher is answered before its item is on disk. The commit follows the
%% messages that were queued when the first publication was taken, or comes after ?BATCH messages, whatever else
%% arrives.
-module(pubsub_device_writer).
-behaviour(gen_server).

-export([shards/0, start_link/1, name/1, locate/1, all/0, is_writer/0]).
-export([call/2, cast/2, cast_all/1, publish_ahead/3, watch/1, await/3]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2, code_change/3]).

-include_lib("kernel/include/logger.hrl").
-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

%% `flows` is #{Device => #{Node => Flow}}; `batch` holds the publications that wait for the commit, newest first, and
%% `taken` the number of messages taken since the first of them. `locks` is #{Node => {Holder, Monitor, Waiting}} with
%% the waiting callers, oldest first.
-record(state, {shard, flows = #{}, batch = [], taken = 0, locks = #{}}).

-define(SHARDS, 8).
-define(BATCH, 256).
-define(ATTEMPTS, 100).
-define(PAUSE, 100).
-define(TIMEOUT, 30000).

all() -> [{name(Shard), Member} || Shard <- shards(), Member <- pubsub_device_commit:members()].
is_writer() -> get(?MODULE) == true.
shards() -> lists:seq(0, ?SHARDS - 1).
name(Shard) -> list_to_atom("pubsub_device_writer_" ++ integer_to_list(Shard)).
start_link(Shard) -> gen_server:start_link({local, name(Shard)}, ?MODULE, Shard, []).

locate(Node) ->
    {name(erlang:phash2(Node, ?SHARDS)), member(Node)}.

member(Node) ->
    {_, Member} = lists:max([{erlang:phash2({Node, Member}), Member} || Member <- pubsub_device_commit:members()]),
    Member.

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

%% Sent to all writers: only a writer itself knows whether it has flows of a device.
cast_all(Request) ->
    [gen_server:cast(Writer, Request) || Writer <- all()],
    ok.

init(Shard) ->
    put(?MODULE, true),
    {ok, #state{shard = Shard}}.

handle_call(settle, From, State) ->
    gen_server:reply(From, ok),
    next(State);
handle_call(Request, From, State) ->
    case member(element(2, Request)) == node() of
        true -> asked(Request, From, State);
        false -> gen_server:reply(From, moved), next(State)
    end.

asked({publish, Node, Publication}, From, State) ->
    next(queue(Node, Publication, From, State));
asked({activate, Node, Device, Since, Answer}, From, State) ->
    ejabberd_router:route(Answer),
    gen_server:reply(From, ok),
    next(activate(Node, Device, Since, State));
asked({deactivate, Node, Device}, From, State) ->
    pubsub_device_store:deactivate(Node, Device),
    gen_server:reply(From, ok),
    next(State);
asked({lock, Node}, {Pid, _} = From, #state{locks = Locks} = State) ->
    case Locks of
        #{Node := {Pid, Monitor, Waiting}} ->  % the answer was lost
            demonitor(Monitor, [flush]),
            next(grant(Node, From, Waiting, State));
        #{Node := {Holder, Monitor, Waiting}} ->
            next(State#state{locks = Locks#{Node := {Holder, Monitor, Waiting ++ [From]}}});
        _ -> next(grant(Node, From, [], State))
    end;
asked({forget, Node}, From, State) ->
    Left = forget(Node, State),
    gen_server:reply(From, ok),
    next(Left).

handle_cast({publish, Node, Publication, Waiter}, State) ->
    case member(Node) == node() of
        true -> next(queue(Node, Publication, Waiter, State));
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
handle_cast({announce, Node, Device, Again}, State) ->
    Known = case Again of
                true -> fun pubsub_device_flow:again/3;
                false -> fun pubsub_device_flow:pump/3
            end,
    next(with_flow(Node, Device, fun pubsub_device_flow:pump/3, Known, State));
handle_cast({activate, Node, Device}, State) ->
    next(activate(Node, Device, bulk, State));
handle_cast({acked, Node, Device, Pid, Number}, State) ->
    case pubsub_device_store:session(Device) of
        Pid ->
            Acked = fun(N, D, Flow) -> pubsub_device_flow:acked(N, D, Number, Flow) end,
            next(with_flow(Node, Device, Acked, Acked, State));
        _ -> next(State)
    end;
handle_cast({resume, Node, Device}, State) ->
    next(with_flow(Node, Device, fun pubsub_device_flow:pump/3, fun pubsub_device_flow:resume/3, State));
handle_cast({session_down, Device, Pid}, #state{flows = Flows} = State) ->
    Present = pubsub_device_store:session(Device),
    Old = maps:filter(fun(_, Flow) -> pubsub_device_flow:pid(Flow) /= Present end, maps:get(Device, Flows, #{})),
    [pubsub_device_store:deactivate(Node, Device) || Node <- maps:keys(Old),
                                                     pubsub_device_store:is_active(Node, Device, Pid)],
    next(lists:foldl(fun(Node, S) -> forget_flow(Node, Device, S) end, State, maps:keys(Old)));
handle_cast({keep_last, Node, Device, Number, ItemId, Item}, State) ->
    case {pubsub_device_store:last_item(Node), pubsub_device_store:newest(Node, Device)} of
        {Last, _} when Last /= {Number, ItemId} -> next(State);  % deleted in the meantime, or there is a newer one
        {_, #pubsub_device_copy{id = {_, _, Newest}}} when Newest >= Number -> next(State);
        _ ->
            Element = pubsub_device_stanza:item(Item, Number),
            Keep = fun() -> keep(Node, Device, Number, ItemId, subscription, Element) end,
            pubsub_device_store:together(Keep),
            pubsub_device_bounds:enforce(Node, Device),
            next(with_flow(Node, Device, fun pubsub_device_flow:pump/3, fun pubsub_device_flow:pump/3, State))
    end;
handle_cast({drop_all, Node, Device}, State) ->
    pubsub_device_metrics:count({dropped, forgotten}, pubsub_device_store:count(Node, Device)),
    pubsub_device_store:drop_all(Node, Device),
    next(State);
handle_cast({drop_aged, Node, Device}, State) ->
    pubsub_device_bounds:drop_aged(Node, Device),
    next(State).

handle_info(commit, State) ->
    {noreply, commit(State)};
handle_info({'DOWN', Monitor, process, Pid, _}, #state{locks = Locks} = State) ->
    Held = [{Node, Waiting} || {Node, {Holder, Each, Waiting}} <- maps:to_list(Locks), Holder == Pid, Each == Monitor],
    next(lists:foldl(fun({Node, Waiting}, S) -> pass_on(Node, Waiting, S) end, State, Held));
handle_info(_, State) ->
    next(State).

terminate(_, _) -> ok.
code_change(_, State, _) -> {ok, State}.

%% The first publication requests the commit with a message: messages that are already queued are taken before it.
queue(Node, Publication, From, #state{batch = Batch} = State) ->
    Batch == [] andalso (self() ! commit),
    State#state{batch = [{Node, Publication, From} | Batch]}.

next(#state{batch = []} = State) -> {noreply, State};
next(#state{taken = Taken} = State) when Taken >= ?BATCH -> {noreply, commit(State)};
next(#state{taken = Taken} = State) -> {noreply, State#state{taken = Taken + 1}}.

%%% names

%% When a lock is granted for a name without a node, everything that a crash may have left of a former node is removed
%% first.
grant(Node, {Pid, _} = From, Waiting, #state{locks = Locks} = State) ->
    Monitor = monitor(process, Pid),
    Clean = case nodetree_device:is_node(Node) of
                false -> forget(Node, State);
                true -> State
            end,
    gen_server:reply(From, {ok, self()}),
    Clean#state{locks = Locks#{Node => {Pid, Monitor, Waiting}}}.

pass_on(Node, [From | Waiting], State) ->
    grant(Node, From, Waiting, State);
pass_on(Node, [], #state{locks = Locks} = State) ->
    State#state{locks = maps:remove(Node, Locks)}.

%% Removes what belongs to a node.
forget(Node, #state{shard = Shard} = State) ->
    Devices = pubsub_device_store:devices_for(Node),
    [pubsub_device_store:drop_all(Node, Device) || Device <- Devices],
    pubsub_device_store:key_of(Node) == none orelse pubsub_device_store:delete_key(Node),
    pubsub_device_store:retire_number(Node, Shard),
    lists:foldl(fun(Device, S) -> forget_flow(Node, Device, S) end, State, Devices).

activate(Node, Device, Since, State) ->
    case pubsub_device_store:session(Device) of
        none -> State;
        Pid ->
            Fresh = not pubsub_device_store:is_active(Node, Device, Pid),
            pubsub_device_store:activate(Node, Device, Pid),
            Activated = fun(N, D, Flow) -> pubsub_device_flow:activated(N, D, Since, Fresh, Flow) end,
            with_flow(Node, Device, Activated, Activated, State)
    end.

%%% publishing

commit(#state{batch = []} = State) ->
    State;
commit(#state{batch = Batch, shard = Shard} = State) ->
    Written = [{store(Node, Publication, Shard), From} || {Node, Publication, From} <- lists:reverse(Batch)],
    pubsub_device_commit:sync(),
    [tell(From, Outcome) || {{Outcome, _, _}, From} <- Written],
    lists:foldl(fun({{{ok, Number}, Node, Targets}, _}, S) -> deliver({Number, Node, Targets}, S);
                   (_, S) -> S
                end, State#state{batch = [], taken = 0}, Written).

tell(Waiter, Outcome) when is_pid(Waiter) -> Waiter ! {published, Outcome};
tell(From, Outcome) -> gen_server:reply(From, Outcome).

%% An item of a node that was deleted after the engine stored the item is refused, also when another node has the name
%% now.
store(Node, {ItemId, Item, Messages, Id}, Shard) ->
    case Id == any orelse nodetree_device:is_node(Node, Id) of
        true -> number(Node, ItemId, Item, pubsub_device_targets:find(Node, Item, Messages), Shard);
        false -> {{error, xmpp:err_item_not_found()}, Node, []}
    end.

%% A number is the time in microseconds if that is above the last number, so that even after a loss of the store the
%% numbers continue to ascend.
number(Node, ItemId, Item, Targets, Shard) ->
    Store = fun() ->
                    Number = max(pubsub_device_store:last_number(Node, Shard) + 1, erlang:system_time(microsecond)),
                    pubsub_device_store:put_number(Node, Number, ItemId),
                    Element = pubsub_device_stanza:item(Item, Number),
                    [keep(Node, Device, Number, ItemId, Via, Element) || {keep, Device, Via} <- Targets],
                    Number
            end,
    Stored = pubsub_device_store:together(Store),
    [pubsub_device_bounds:enforce(Node, Device) || {keep, Device, _} <- Targets],
    {{ok, Stored}, Node, Targets}.

keep(Node, Device, Number, ItemId, Via, Element) ->
    pubsub_device_bounds:fits(Node, Device, Number, Element)
        andalso pubsub_device_store:keep(Node, Device, Number, ItemId, Via, Element).

deliver({Number, Node, Targets}, State) ->
    [pubsub_device_targets:send_live(Number, Target) || Target <- Targets, element(1, Target) /= keep],
    lists:foldl(fun({keep, Device, _}, S) ->
                        with_flow(Node, Device, fun pubsub_device_flow:pump/3, fun pubsub_device_flow:pump/3, S);
                   (_, S) -> S
                end, State, Targets).

%%% flows

%% Calls `New` with a new flow when the session has none yet, otherwise `Known` with the existing one. Without a
%% session nothing is sent.
with_flow(Node, Device, New, Known, #state{flows = Flows} = State) ->
    case pubsub_device_store:session(Device) of
        none -> State;
        Pid ->
            Mine = maps:get(Device, Flows, #{}),
            Flow = case Mine of
                       #{Node := Found} ->
                           case pubsub_device_flow:pid(Found) of
                               Pid -> Known(Node, Device, Found);
                               _ -> New(Node, Device, pubsub_device_flow:new(Pid))
                           end;
                       _ -> New(Node, Device, pubsub_device_flow:new(Pid))
                   end,
            State#state{flows = Flows#{Device => Mine#{Node => Flow}}}
    end.

forget_flow(Node, Device, #state{flows = Flows} = State) ->
    case maps:remove(Node, maps:get(Device, Flows, #{})) of
        Rest when map_size(Rest) == 0 -> State#state{flows = maps:remove(Device, Flows)};
        Rest -> State#state{flows = Flows#{Device => Rest}}
    end.
