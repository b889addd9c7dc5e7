%% SPDX-License-Identifier: GPL-3.0-only
%% The state of a session in its process dictionary: the items that were sent to it, so that it can check its
%% acknowledgements and announcements without a writer, and how many of its requests are unprocessed. It ends with the
%% session.
%%
%% An acknowledgement names an item id, and several copies, or several transmissions of one copy, can have the same
%% id: an acknowledgement with a number refers to all transmissions of that copy, one without to the oldest transmission
%% under the id. The session sees every transmission before its acknowledgement, whichever writer sent it, so a writer
%% may be restarted in between.
-module(pubsub_device_session).

-export([present/0, on_receive/1, on_info/2, is_news/2, may_wait/2, forget/0]).
-export([acknowledge/4, tell/3, tell_writer/2, settle/1, answer/1, began/1, spare/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

%% `ids` is #{{Node, ItemId} => Queue}, the queue of {Turn, Number, At}, oldest first, with the time of the transmission;
%% `turns` is #{Turn => {Node, ItemId}}, from `oldest` on. `nodes` is #{Node => {Sent, Twice}}: the highest numbers that
%% were sent, and that were sent twice. `since` is when the device announced itself. Times are in microseconds.
-record(sendings, {ids = #{}, turns = #{}, oldest = 0, turn = 0, nodes = #{}, since = infinity}).

-define(SENDINGS, '$pubsub_device_sendings').
-define(UNDER_WAY, '$pubsub_device_under_way').
-define(PUBLISHING, '$pubsub_device_publishing').
-define(SPARED, '$pubsub_device_spared').
-define(TIDY, '$pubsub_device_tidy').

%% At most this many messages to one process, and this many publications, are unprocessed. Few enough that other
%% sessions are not delayed noticeably, many enough that the cost of a round trip is small for each message.
-define(SHARE, 16).
-define(PUBLICATIONS, 32).
-define(TIMEOUT, 30000).
-define(IDLE, 64).

%% How long after something happened the session's garbage is collected, in milliseconds.
-define(PAUSE, 5000).

%%% transmissions

%% What is published from now on does not have to wait for the device.
present() ->
    tidy_later(),
    case sendings() of
        #sendings{since = infinity} = Sendings ->
            put(?SENDINGS, Sendings#sendings{since = erlang:system_time(microsecond)}),
            ok;
        _ -> ok
    end.

%% Runs in the session's process when a message is sent to its client. What was sent to a session that another one
%% replaced is dropped here: the new one gets all kept items in their order when it announces itself.
on_receive({#message{} = Message, State}) ->
    case pubsub_device_stanza:sending(Message) of
        none -> {Message, State};
        {Pid, Node, ItemId, Number} when Pid == self() ->
            passed(Message#message.to, ItemId, sent),
            put(?SENDINGS, sent(Node, ItemId, Number, sendings())),
            tidy_later(),
            {Message, State};
        _ -> {stop, {drop, State}}
    end;
on_receive(Other) ->
    Other.

passed(#jid{} = To, ItemId, Station) -> passed(jid:tolower(To), ItemId, Station);
passed({_, _, Resource} = Device, ItemId, Station) -> pubsub_device_trace:mark(Device, ItemId, Station, Resource).

sendings() ->
    case get(?SENDINGS) of
        undefined -> #sendings{};
        Sendings -> Sendings
    end.

sent(Node, ItemId, Number, #sendings{ids = Ids, turns = Turns, turn = Turn, nodes = Nodes, since = Since} = Sendings) ->
    Queue = maps:get({Node, ItemId}, Ids, queue:new()),
    Now = erlang:system_time(microsecond),
    Before = maps:get(Node, Nodes, {0, 0}),
    counted(Number, Before, Since, Now),
    bound(Sendings#sendings{ids = Ids#{{Node, ItemId} => queue:in({Turn, Number, Now}, Queue)},
                            turns = Turns#{Turn => {Node, ItemId}}, turn = Turn + 1,
                            nodes = Nodes#{Node => reached(Number, Before)}}).

%% A number is the time of the publication, so one above `since` is of an item that found the device present. After a
%% start of the server numbers are ahead of the clock for a while; then the time is not known.
counted(Number, {Sent, _}, Since, Now) when Number > Sent ->
    pubsub_device_metrics:count({sent, first}),
    Number > Since andalso Number =< Now andalso pubsub_device_metrics:observe(delivery, Now - Number);
counted(_, _, _, _) ->
    pubsub_device_metrics:count({sent, repeated}).

reached(Number, {Sent, Twice}) when Number > Sent -> {Number, Twice};
reached(Number, {Sent, Twice}) -> {Sent, max(Number, Twice)}.

%% Each kept copy has at most two unacknowledged transmissions. A client that never acknowledges leaves entries of
%% copies that have been dropped and of nodes that were deleted.
bound(#sendings{turns = Turns, nodes = Nodes} = Sendings) ->
    Bound = 2 * mod_pubsub_device:option(max_kept),
    case {map_size(Turns) > Bound, map_size(Nodes) > Bound} of
        {true, _} -> forget_oldest(Sendings);
        {false, true} -> Sendings#sendings{nodes = #{}};
        _ -> Sendings
    end.

forget_oldest(#sendings{turns = Turns, oldest = Oldest} = Sendings) ->
    case Turns of
        #{Oldest := Id} -> element(3, taken(Id, any, Sendings));
        _ -> forget_oldest(Sendings#sendings{oldest = Oldest + 1})
    end.

%% Takes out the transmissions to which the acknowledgement refers and returns their number, or none. `Wanted` is a
%% number, or `any` for the oldest.
take(Node, ItemId, Wanted) ->
    case taken({Node, ItemId}, Wanted, sendings()) of
        none -> none;
        {Number, At, Left} ->
            put(?SENDINGS, Left),
            pubsub_device_metrics:count(acknowledged),
            pubsub_device_metrics:observe(acknowledgement, erlang:system_time(microsecond) - At),
            Number
    end.

taken(Id, Wanted, #sendings{ids = Ids, turns = Turns} = Sendings) ->
    case Ids of
        #{Id := Queue} ->
            case parted(Wanted, Queue) of
                {[], _} -> none;
                {[{_, Number, At} | _] = Taken, Rest} ->
                    Left = case queue:is_empty(Rest) of
                               true -> maps:remove(Id, Ids);
                               false -> Ids#{Id := Rest}
                           end,
                    Gone = [Turn || {Turn, _, _} <- Taken],
                    {Number, At, Sendings#sendings{ids = Left, turns = maps:without(Gone, Turns)}}
            end;
        _ -> none
    end.

parted(any, Queue) ->
    {{value, Oldest}, Rest} = queue:out(Queue),
    {[Oldest], Rest};
parted(Wanted, Queue) ->
    {Taken, Rest} = lists:partition(fun({_, Number, _}) -> Number == Wanted end, queue:to_list(Queue)),
    {Taken, queue:from_list(Rest)}.

%% The session's client acknowledged an item. It counts only if the item was sent here under this id, and with this
%% number if it is one. The sender is told when more may be due.
acknowledge(Node, Device, ItemId, Wanted) ->
    case take(Node, ItemId, Wanted) of
        none -> spare(1);
        Number ->
            passed(Device, ItemId, acknowledged),
            Pid = self(),
            pubsub_device_store:acknowledged(Node, Device, Number,
                                             fun(More) -> dropped(Node, Device, Pid, Number, More) end)
    end.

%% Without a further item there is nothing to send, but of a node with a limit the sender waits for the open one.
dropped(Node, Device, Pid, Number, More) ->
    (More orelse pubsub_device_store:activation(Node, Device, Pid) == limited)
        andalso tell(Node, Device, {acked, Node, Device, Pid, Number}).

%% Whether announcing the device again would send an item of the node: one that was not sent as often as allowed.
is_news(Node, Device) ->
    {Sent, Twice} = maps:get(Node, (sendings())#sendings.nodes, {0, 0}),
    case pubsub_device_flow:gate(Node, Device, self()) of
        closed -> false;
        open -> pubsub_device_store:next(Node, Device, Twice) /= none;
        _ ->
            case pubsub_device_store:next(Node, Device, 0) of
                #pubsub_device_copy{id = {_, _, Number}} -> Number > Sent;
                none -> false
            end
    end.

%% Whether activating the node may have an effect: it is not active yet, or something was not sent yet.
may_wait(Node, Device) ->
    {Sent, _} = maps:get(Node, (sendings())#sendings.nodes, {0, 0}),
    pubsub_device_store:activation(Node, Device, self()) /= active
        orelse pubsub_device_store:next(Node, Device, Sent) /= none.

%% The session continues without being the device's.
forget() ->
    erase(?SENDINGS),
    ok.

%%% memory

%% A device has nothing to do most of the time, and a process without work keeps its garbage: after a login that is
%% twenty times as much as the session needs.
tidy_later() ->
    get(?TIDY) == undefined andalso put(?TIDY, erlang:send_after(?PAUSE, self(), ?TIDY)),
    ok.

on_info(State, ?TIDY) ->
    erase(?TIDY),
    garbage_collect(),
    {stop, State};
on_info(State, _) ->
    State.

%%% unprocessed requests

%% Sends the request to the sender of the node's items to the device. A caller that has reached its share of unprocessed
%% requests waits until the sender has handled them.
tell(Node, Device, Request) ->
    Sender = pubsub_device_sender:locate(Node, Device),
    gen_server:cast(Sender, Request),
    count(Sender).

%% The same for the node's writer.
tell_writer(Node, Request) ->
    Writer = pubsub_device_writer:locate(Node),
    gen_server:cast(Writer, Request),
    count(Writer).

%% The same for an answer that waits for the disk.
answer(IQ) ->
    pubsub_device_commit:answer(IQ),
    count(pubsub_device_commit).

count(Process) ->
    Counts = under_way(),
    case maps:get(Process, Counts, 0) + 1 of
        ?SHARE ->
            put(?UNDER_WAY, maps:remove(Process, Counts)),
            wait(Process);
        Count -> put(?UNDER_WAY, Counts#{Process => Count}), ok
    end.

under_way() ->
    case get(?UNDER_WAY) of
        undefined -> #{};
        Counts -> Counts
    end.

%% A sender must not wait for itself or for another one; its requests are bounded by its own work.
wait(Process) ->
    pubsub_device_sender:is_sender() orelse
        try gen_server:call(Process, settle, ?TIMEOUT)
        catch exit:_ -> ok
        end,
    ok.

%% Returns when the device's senders have handled the requests sent before.
settle(Device) ->
    erase(?UNDER_WAY),
    [wait(Sender) || Sender <- pubsub_device_sender:of_device(Device)],
    ok.

%% A publication counts until its waiter ends.
began(Waiter) ->
    Waiters = case get(?PUBLISHING) of
                  undefined -> queue:new();
                  Known -> Known
              end,
    put(?PUBLISHING, outlast(queue:in(Waiter, Waiters))),
    ok.

outlast(Waiters) ->
    case queue:len(Waiters) > ?PUBLICATIONS of
        true ->
            {{value, Oldest}, Rest} = queue:out(Waiters),
            Monitor = monitor(process, Oldest),
            receive {'DOWN', Monitor, _, _, _} -> ok
            after ?TIMEOUT -> demonitor(Monitor, [flush])
            end,
            Rest;
        false -> Waiters
    end.

%% After ?IDLE requests without effect, or of a kind that a device makes rarely, the session pauses briefly, so that
%% it does not occupy a whole processor. An acknowledgement of something that was not sent counts as one.
spare(Count) ->
    case get(?SPARED) of
        Spared when is_integer(Spared), Spared + Count >= ?IDLE -> put(?SPARED, 0), timer:sleep(1);
        Spared when is_integer(Spared) -> put(?SPARED, Spared + Count);
        undefined -> put(?SPARED, Count)
    end,
    ok.
