%% SPDX-License-Identifier: GPL-3.0-only
%% Sends items to receivers: to devices in the flows of their sessions (pubsub_device_flow), to others as they come.
%%
%% Each member of the cluster has several senders, and each sends to a part of the receivers, so that an item for many
%% is sent in parallel. A node's items come from its writer in their order, so the sender of a device on the member
%% that writes the node has the flow of this node to the device.
-module(pubsub_device_sender).
-behaviour(gen_server).

-export([shards/0, start_link/1, name/1, of_device/1, locate/2, is_sender/0]).
-export([send/1, call/3, cast/3, session_down/2]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2, code_change/3]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

%% `flows` is #{Device => #{Node => Flow}}.
-record(state, {flows = #{}}).

-define(SHARDS, 8).
-define(NAMES, {pubsub_device_sender_0, pubsub_device_sender_1, pubsub_device_sender_2, pubsub_device_sender_3,
                 pubsub_device_sender_4, pubsub_device_sender_5, pubsub_device_sender_6, pubsub_device_sender_7}).
-define(ATTEMPTS, 100).
-define(PAUSE, 100).
-define(TIMEOUT, 30000).

shards() -> lists:seq(0, ?SHARDS - 1).
name(Shard) -> element(Shard + 1, ?NAMES).
start_link(Shard) -> gen_server:start_link({local, name(Shard)}, ?MODULE, Shard, []).
is_sender() -> get(?MODULE) == true.

local(Receiver) -> name(erlang:phash2(Receiver, ?SHARDS)).

locate(Node, Device) ->
    {local(Device), pubsub_device_writer:member(Node)}.

%% All senders that may have flows of the device.
of_device(Device) ->
    [{local(Device), Member} || Member <- pubsub_device_commit:members()].

%% Sends items that their writer, the caller, has just kept: [{Publication, Number}].
send(Items) ->
    Add = fun({Sender, Each}, Map) -> maps:update_with(Sender, fun(Others) -> [Each | Others] end, [Each], Map) end,
    PerSender = lists:foldl(Add, #{}, lists:flatmap(fun divided/1, Items)),
    maps:foreach(fun(Sender, Each) -> gen_server:cast(Sender, {send, lists:reverse(Each)}) end, PerSender).

%% An item with its receivers, for each sender.
divided({#publication{keep = [], live = []}, _}) ->
    [];
divided({#publication{node = Node, item_id = ItemId, item = Item, keep = Keep, live = Live}, Number}) ->
    Receivers = [{local(Device), {keep, Device}} || {Device, _} <- Keep]
        ++ [{local(jid:tolower(To)), {live, Message}} || #message{to = To} = Message <- Live],
    Parts = case Receivers of
                [{Sender, Receiver}] -> #{Sender => [Receiver]};
                _ ->
                    maps:groups_from_list(fun({Sender, _}) -> Sender end, fun({_, Receiver}) -> Receiver end,
                                          Receivers)
            end,
    [{Sender, {Node, Number, ItemId, Item, Part}} || {Sender, Part} <- maps:to_list(Parts)].

%% Calls the device's sender on the member that writes the node, and the next one when that member leaves.
call(Node, Device, Request) ->
    call(Node, Device, Request, ?ATTEMPTS).

call(_, _, _, 0) ->
    {error, xmpp:err_resource_constraint(<<"The writer of this node is away; try again later">>, <<"en">>)};
call(Node, Device, Request, Left) ->
    try gen_server:call(locate(Node, Device), Request, ?TIMEOUT) of
        moved -> timer:sleep(?PAUSE), call(Node, Device, Request, Left - 1);
        Answer -> Answer
    catch
        exit:{timeout, _} -> call(Node, Device, Request, 0);
        exit:_ -> timer:sleep(?PAUSE), call(Node, Device, Request, Left - 1)
    end.

cast(Node, Device, Request) ->
    gen_server:cast(locate(Node, Device), Request).

session_down(Device, Pid) ->
    [gen_server:cast(Sender, {session_down, Device, Pid}) || Sender <- of_device(Device)],
    ok.

init(_) ->
    put(?MODULE, true),
    pubsub_device_database:be_patient(),
    {ok, #state{}}.

handle_call(settle, _, State) ->
    {reply, ok, State};
handle_call(Request, From, State) ->
    case pubsub_device_writer:member(element(2, Request)) == node() of
        true -> asked(Request, From, State);
        false -> {reply, moved, State}
    end.

%% The answer goes before the items.
asked({activate, Node, Device, Since, Answer}, From, State) ->
    ejabberd_router:route(Answer),
    gen_server:reply(From, ok),
    {noreply, activate(Node, Device, Since, State)};
asked({limit, Node, Device, Pid, Least, Since, Answer}, From, State) ->
    ejabberd_router:route(Answer),
    gen_server:reply(From, ok),
    {noreply, limit(Node, Device, Pid, Since, Least, State)};
asked({deactivate, Node, Device}, _, State) ->
    pubsub_device_store:deactivate(Node, Device),
    {reply, ok, State}.

handle_cast({send, Items}, State) ->
    {noreply, lists:foldl(fun send_item/2, State, Items)};
handle_cast({pump, Node, Device}, State) ->
    {noreply, with_flow(Node, Device, fun pubsub_device_flow:pump/3, fun pubsub_device_flow:pump/3, State)};
handle_cast({announce, Node, Device, Again}, State) ->
    Known = case Again of
                true -> fun pubsub_device_flow:again/3;
                false -> fun pubsub_device_flow:pump/3
            end,
    {noreply, with_flow(Node, Device, fun pubsub_device_flow:pump/3, Known, State)};
handle_cast({activate, Node, Device}, State) ->
    {noreply, activate(Node, Device, bulk, State)};
handle_cast({limit, Node, Device, Pid, Least}, State) ->
    {noreply, limit(Node, Device, Pid, bulk, Least, State)};
handle_cast({acked, Node, Device, Pid, Number}, State) ->
    case pubsub_device_store:attached(Device) of
        Pid ->
            Acked = fun(N, D, Flow) -> pubsub_device_flow:acked(N, D, Number, Flow) end,
            {noreply, with_flow(Node, Device, Acked, Acked, State)};
        _ -> {noreply, State}
    end;
handle_cast({resume, Node, Device}, State) ->
    {noreply, with_flow(Node, Device, fun pubsub_device_flow:pump/3, fun pubsub_device_flow:resume/3, State)};
handle_cast({session_down, Device, Pid}, #state{flows = Flows} = State) ->
    Present = pubsub_device_store:session(Device),
    Old = maps:filter(fun(_, Flow) -> pubsub_device_flow:pid(Flow) /= Present end, maps:get(Device, Flows, #{})),
    [pubsub_device_store:forget_activation(Node, Device, Pid) || Node <- maps:keys(Old)],
    {noreply, lists:foldl(fun(Node, S) -> forget_flow(Node, Device, S) end, State, maps:keys(Old))}.

handle_info(_, State) ->
    {noreply, State}.

terminate(_, _) -> ok.
code_change(_, State, _) -> {ok, State}.

activate(Node, Device, Since, State) ->
    case pubsub_device_store:session(Device) of
        none -> State;
        Pid -> activate(Node, Device, Pid, Since, active, State)
    end.

%% Another session may be the device's by now; it has not asked for the limit.
limit(Node, Device, Pid, Since, Least, State) ->
    case pubsub_device_store:session(Device) of
        Pid -> activate(Node, Device, Pid, Since, {limited, Least}, State);
        _ -> State
    end.

activate(Node, Device, Pid, Since, How, State) ->
    Before = pubsub_device_store:activation(Node, Device, Pid),
    pubsub_device_store:activate(Node, Device, Pid, How),
    Activated = fun(N, D, Flow) -> pubsub_device_flow:activated(N, D, Since, Before, Flow) end,
    with_flow(Node, Device, Activated, Activated, State).

send_item({Node, Number, ItemId, Item, Receivers}, State) ->
    Numbered = pubsub_device_stanza:numbered(Item, Number),
    lists:foldl(fun({live, Message}, S) -> pubsub_device_targets:send_live(Number, Message), S;
                   ({keep, Device}, S) ->
                        Copy = #pubsub_device_copy{id = {Node, Device, Number}, item_id = ItemId, item = Numbered},
                        Offer = fun(N, D, Flow) -> pubsub_device_flow:offer(N, D, Copy, Flow) end,
                        with_flow(Node, Device, fun pubsub_device_flow:pump/3, Offer, S)
                end, State, Receivers).

%%% flows

%% Calls `New` with a new flow when the session has none yet, otherwise `Known` with the existing one. Without a
%% session nothing is sent.
with_flow(Node, Device, New, Known, #state{flows = Flows} = State) ->
    case pubsub_device_store:attached(Device) of
        none -> State;
        Pid ->
            Mine = maps:get(Device, Flows, #{}),
            case Mine of
                #{Node := Found} ->
                    case pubsub_device_flow:pid(Found) of
                        Pid -> State#state{flows = Flows#{Device => Mine#{Node => Known(Node, Device, Found)}}};
                        _ -> begun(Node, Device, Pid, New, Mine, State)
                    end;
                _ -> begun(Node, Device, Pid, New, Mine, State)
            end
    end.

begun(Node, Device, Pid, New, Mine, #state{flows = Flows} = State) ->
    case pubsub_device_store:session(Device) of
        Pid ->
            Flow = New(Node, Device, pubsub_device_flow:new(Pid)),
            State#state{flows = Flows#{Device => Mine#{Node => Flow}}};
        _ -> State
    end.

forget_flow(Node, Device, #state{flows = Flows} = State) ->
    case maps:remove(Node, maps:get(Device, Flows, #{})) of
        Rest when map_size(Rest) == 0 -> State#state{flows = maps:remove(Device, Flows)};
        Rest -> State#state{flows = Flows#{Device => Rest}}
    end.
