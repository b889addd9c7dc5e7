%% SPDX-License-Identifier: GPL-3.0-only
%% How the items of one node leave for one device in one session: in rising numbers, what is kept before what
%% is live.
%%
%% A flow lives in the node's writer and dies with the session. Losing it costs repeated sendings, never an
%% item: the copies themselves are in the store until the device acknowledges them.
%%
%% `sent` is the highest number sent in the session, `out` the sendings that are not acknowledged yet, oldest
%% first. A device acknowledges by item id, and several copies, or several sendings of one copy, can have the
%% same id: each acknowledgement answers the oldest sending under that id.
-module(pubsub_device_flow).

-export([new/1, pid/1, pump/3, again/3, activated/4, acked/4]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

-record(flow, {pid, sent = 0, out = []}).

%% A copy has at most this many sendings on their way, however often the device asks.
-define(SENDINGS, 2).

new(Pid) -> #flow{pid = Pid}.
pid(#flow{pid = Pid}) -> Pid.

%% Sends what may leave now: everything that was not sent yet, or of a key node the one that is due.
pump(Node, Device, Flow) ->
    case gate(Node, Device, Flow) of
        closed -> Flow;
        open -> send_above(Node, Device, Flow);
        single ->
            case waiting(Node, Device, Flow) of
                none -> send_copy(next_unsent(Node, Device, Flow), Flow);
                _ -> Flow
            end
    end.

%% The device announced itself once more in the session, so it wants what it has not acknowledged.
again(Node, Device, Flow) ->
    case gate(Node, Device, Flow) of
        open -> pump(Node, Device, repeat(Node, Device, 0, Flow));
        _ -> pump(Node, Device, Flow)
    end.

%% The device activated the node. `Since` is the last number that it has, or `bulk`, when it names none and
%% wants nothing twice.
activated(Node, Device, bulk, Flow) ->
    pump(Node, Device, Flow);
activated(Node, Device, Since, Flow) ->
    forget_until(Node, Device, Since),
    case {gate(Node, Device, Flow), waiting(Node, Device, Flow)} of
        {single, #pubsub_device_copy{} = Copy} -> send_again(Copy, Flow);
        {open, _} -> pump(Node, Device, repeat(Node, Device, Since, Flow));
        _ -> pump(Node, Device, Flow)
    end.

acked(Node, Device, ItemId, #flow{out = Out} = Flow) ->
    case lists:keytake(ItemId, 1, Out) of
        {value, {_, Number}, Rest} ->
            pubsub_device_store:drop(Node, Device, Number),
            pump(Node, Device, Flow#flow{out = Rest});
        false -> Flow
    end.

%% An ordinary node is open to its subscribers. A key node is open to a device that subscribed, and lets a
%% device of its owner have one item after the other once the device has activated it in this session.
gate(Node, Device, #flow{pid = Pid}) ->
    case pubsub_device_store:key_of(Node) of
        none -> open;
        _ ->
            case pubsub_device_store:newest(Node, Device) of
                #pubsub_device_copy{via = subscription} -> open;
                _ ->
                    case pubsub_device_store:is_active(Node, Device, Pid) of
                        true -> single;
                        false -> closed
                    end
            end
    end.

send_above(Node, Device, Flow) ->
    case next_unsent(Node, Device, Flow) of
        none -> Flow;
        Copy -> send_above(Node, Device, send_copy(Copy, Flow))
    end.

next_unsent(Node, Device, #flow{sent = Sent}) ->
    pubsub_device_store:next(Node, Device, Sent).

%% The oldest copy that is on its way and still kept.
waiting(_, _, #flow{out = []}) ->
    none;
waiting(Node, Device, #flow{out = Out, sent = Sent}) ->
    case pubsub_device_store:next(Node, Device, lists:min([Number || {_, Number} <- Out]) - 1) of
        #pubsub_device_copy{id = {_, _, Number}} = Copy when Number =< Sent -> Copy;
        _ -> none
    end.

repeat(Node, Device, Since, #flow{sent = Sent} = Flow) ->
    case pubsub_device_store:next(Node, Device, Since) of
        #pubsub_device_copy{id = {_, _, Number}} = Copy when Number =< Sent ->
            repeat(Node, Device, Number, send_again(Copy, Flow));
        _ -> Flow
    end.

send_again(#pubsub_device_copy{id = {_, _, Number}} = Copy, #flow{out = Out} = Flow) ->
    case length([sent || {_, Each} <- Out, Each == Number]) < ?SENDINGS of
        true -> send_copy(Copy, Flow);
        false -> Flow
    end.

%% What the device has, by its own word, is not kept any longer.
forget_until(Node, Device, Since) ->
    case pubsub_device_store:next(Node, Device, 0) of
        #pubsub_device_copy{id = {_, _, Number}} when Number =< Since ->
            pubsub_device_store:drop(Node, Device, Number),
            forget_until(Node, Device, Since);
        _ -> ok
    end.

%% Straight to the session that announced the device: a later session of the same resource, which has not
%% announced itself yet, would take a live item for the newest and every kept one after it for stale.
send_copy(none, Flow) ->
    Flow;
send_copy(#pubsub_device_copy{id = {Node, Device, Number}, item_id = ItemId, item = Item},
          #flow{pid = Pid, sent = Sent, out = Out} = Flow) ->
    ejabberd_c2s:route(Pid, {route, pubsub_device_stanza:item_message(Node, jid:make(Device), Item)}),
    Flow#flow{sent = max(Sent, Number), out = shorten(Out ++ [{ItemId, Number}])}.

%% A device that never acknowledges leaves sendings of copies that have been dropped meanwhile.
shorten(Out) ->
    case length(Out) > ?SENDINGS * mod_pubsub_device:option(max_kept_node) of
        true -> tl(Out);
        false -> Out
    end.
