%% SPDX-License-Identifier: GPL-3.0-only
%% The one writer of a node. It numbers the node's items, keeps them for the devices and sends them, so
%% numbers rise without a gap in the order and everything that leaves for a device leaves in order.
%%
%% A node belongs to one shard of one member of the cluster, found by hashing over the members that run: there
%% is no table to keep, and when a member goes, the others agree on the next writer at once. While members do
%% not see the same members yet, a node may have two writers: the store hands numbers out in order all the
%% same, and the new writer begins with all that is kept, so a device may get an item again, but none out of
%% turn for good. All that has to survive is in the store; a writer remembers only the flows of the present
%% sessions.
%%
%% Publishing is a group commit: what has piled up while the log was synced is written together, synced once,
%% answered and then sent. No publisher is answered before its item is on disk. The commit comes after what was
%% there when the first publication was taken, or after so many messages, whatever else arrives.
-module(pubsub_device_writer).
-behaviour(gen_server).

-export([shards/0, start_link/1, name/1, locate/1, all/0, is_writer/0]).
-export([call/2, cast/2, cast_all/1, publish_ahead/3, watch/1, await/3]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2, code_change/3]).

-include_lib("kernel/include/logger.hrl").
-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

%% `flows` is #{Device => #{Node => Flow}}; `batch` holds what waits for the commit, newest first, and `taken` how
%% many messages were taken since the first of it. `locks` is #{Node => {Holder, Monitor, Waiting}}, the callers
%% that wait, oldest first.
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

%% Asks the writer, and asks the next one when the member that it runs on goes away. An item whose answer was
%% lost with the member is then published twice, under two numbers, rather than not at all.
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

%% Publishes without waiting; the process `Waiter` watches the writer and learns the outcome with await/3.
publish_ahead(Node, Publication, Waiter) ->
    cast(Node, {publish, Node, Publication, Waiter}).

watch(Node) ->
    monitor(process, locate(Node)).

%% Waits for what publish_ahead/3 began, and publishes itself when the writer went away without a word.
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

%% To all writers: which of them have flows of a device is known only to themselves.
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
        #{Node := {Pid, Monitor, Waiting}} ->  % its answer was lost
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
        {Last, _} when Last /= {Number, ItemId} -> next(State);  % deleted meanwhile, or there is a newer one
        {_, #pubsub_device_copy{id = {_, _, Newest}}} when Newest >= Number -> next(State);
        _ ->
            Element = pubsub_device_stanza:item(Item, Number),
            Keep = fun() -> keep(Node, Device, Number, ItemId, subscription, Element) end,
            pubsub_device_store:together(Keep),
            pubsub_device_bounds:enforce(Node, Device),
            next(with_flow(Node, Device, fun pubsub_device_flow:pump/3, fun pubsub_device_flow:pump/3, State))
    end;
handle_cast({drop_all, Node, Device}, State) ->
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

%% The first publication sends for its commit: what has arrived by then is taken before it.
queue(Node, Publication, From, #state{batch = Batch} = State) ->
    Batch == [] andalso (self() ! commit),
    State#state{batch = [{Node, Publication, From} | Batch]}.

next(#state{batch = []} = State) -> {noreply, State};
next(#state{taken = Taken} = State) when Taken >= ?BATCH -> {noreply, commit(State)};
next(#state{taken = Taken} = State) -> {noreply, State#state{taken = Taken + 1}}.

%%% names

%% Whoever gets the lock of a name that no node has begins with nothing: a crash may have left what a node of the
%% name had.
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

%% What goes with a node.
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

%% An item of a node that was deleted since the engine took it is nobody's, also when another node has the name.
store(Node, {ItemId, Item, Messages, Id}, Shard) ->
    case Id == any orelse nodetree_device:is_node(Node, Id) of
        true -> number(Node, ItemId, Item, pubsub_device_targets:find(Node, Item, Messages), Shard);
        false -> {{error, xmpp:err_item_not_found()}, Node, []}
    end.

%% Numbers are microseconds where the clock allows, so that even a store that was lost starts above them.
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

%% Does `New` with a fresh flow when the session has none yet, else `Known` with the one it has. Without a
%% session there is nobody to send to.
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
