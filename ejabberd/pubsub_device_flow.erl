%% SPDX-License-Identifier: GPL-3.0-only
%% How the items of one node leave for one device in one session: in rising numbers, what is kept before what
%% is live.
%%
%% A flow lives in the node's writer and dies with the session. Losing it costs repeated sendings, never an
%% item: the copies themselves are in the store until the device acknowledges them, and the session knows what
%% it was sent.
%%
%% `sent` is the highest number sent in the session, `twice` the highest sent twice, `until` the highest that is
%% to be: a copy has at most two sendings on their way, however often the device asks, and a repetition goes
%% before what is new. What is due leaves in portions, so that the writer serves others in between; `busy` says
%% that the next portion is under way.
-module(pubsub_device_flow).

-export([new/1, pid/1, pump/3, resume/3, again/3, activated/5, acked/4, gate/3]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

-record(flow, {pid, sent = 0, twice = 0, until = 0, busy = false}).

-define(PORTION, 16).

new(Pid) -> #flow{pid = Pid}.
pid(#flow{pid = Pid}) -> Pid.

%% Sends what may leave now: everything that was not sent yet, or of a key node the one that is due.
pump(_, _, #flow{busy = true} = Flow) ->
    Flow;
pump(Node, Device, #flow{pid = Pid} = Flow) ->
    portion(gate(Node, Device, Pid), Node, Device, Flow, ?PORTION).

resume(Node, Device, Flow) ->
    pump(Node, Device, Flow#flow{busy = false}).

%% The device announced itself once more in the session, so it wants what it has not acknowledged.
again(Node, Device, #flow{pid = Pid} = Flow) ->
    case gate(Node, Device, Pid) of
        open -> pump(Node, Device, repeat(Flow));
        _ -> pump(Node, Device, Flow)
    end.

%% The device activated the node. `Since` is the last number that it has, or `bulk`, when it names none and
%% wants nothing twice. `Fresh` says that the node was not active: the device of a key node wants what waits,
%% whatever it was sent before.
activated(Node, Device, Since, Fresh, #flow{pid = Pid} = Flow) ->
    is_integer(Since) andalso forget_until(Node, Device, Since),
    case gate(Node, Device, Pid) of
        single when Fresh -> pump(Node, Device, Flow#flow{sent = 0, twice = 0, until = 0});
        _ when Since == bulk -> pump(Node, Device, Flow);
        _ -> pump(Node, Device, repeat(Flow))
    end.

repeat(#flow{sent = Sent} = Flow) ->
    Flow#flow{until = Sent}.

%% The session has acknowledged what it was sent under the number, perhaps by a writer before this one.
acked(Node, Device, Number, #flow{sent = Sent} = Flow) ->
    pubsub_device_store:drop(Node, Device, Number),
    pump(Node, Device, Flow#flow{sent = max(Sent, Number)}).

%% An ordinary node is open to its subscribers. A key node is open to a device that subscribed, and lets a
%% device of its owner have one item after the other once the device has activated it in this session.
gate(Node, Device, Pid) ->
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

portion(closed, _, _, Flow, _) ->
    Flow;
portion(_, Node, Device, Flow, 0) ->
    gen_server:cast(self(), {resume, Node, Device}),
    Flow#flow{busy = true};
portion(Gate, Node, Device, Flow, Left) ->
    case due(Gate, Node, Device, Flow) of
        none -> Flow;
        Copy -> portion(Gate, Node, Device, send_copy(Copy, Flow), Left - 1)
    end.

due(open, Node, Device, #flow{sent = Sent, twice = Twice, until = Until}) ->
    case Twice < Until andalso pubsub_device_store:next(Node, Device, Twice) of
        #pubsub_device_copy{id = {_, _, Number}} = Copy when Number =< Until -> Copy;
        _ -> pubsub_device_store:next(Node, Device, Sent)
    end;
due(single, Node, Device, #flow{sent = Sent, twice = Twice, until = Until}) ->
    case pubsub_device_store:next(Node, Device, 0) of
        #pubsub_device_copy{id = {_, _, Number}} = Copy when Number > Sent; Number > Twice, Number =< Until -> Copy;
        _ -> none
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
send_copy(#pubsub_device_copy{id = {Node, Device, Number}, item_id = ItemId, item = Item},
          #flow{pid = Pid, sent = Sent, twice = Twice} = Flow) ->
    Message = pubsub_device_stanza:item_message(Node, jid:make(Device), Item),
    ejabberd_c2s:route(Pid, {route, pubsub_device_stanza:sending(Message, {Node, ItemId, Number})}),
    case Number > Sent of
        true -> Flow#flow{sent = Number};
        false -> Flow#flow{twice = max(Twice, Number)}
    end.
