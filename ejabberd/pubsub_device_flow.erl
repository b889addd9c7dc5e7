%% SPDX-License-Identifier: GPL-3.0-only
%% How the items of one node are sent to one device in one session: in ascending order, kept items before live ones.
%%
%% A flow belongs to a sender and ends with the session. If it is lost, items may be sent again, but none is
%% lost: the copies are in the store until the device acknowledges them, and the session knows what it was sent.
%%
%% `sent` is the highest number sent in the session, `twice` the highest sent twice, `until` the highest to be sent
%% twice: a copy has at most two unacknowledged transmissions, however often the device asks, and repetitions go
%% before new items. Items are sent in portions, so that the writer serves others in between; `busy` means that the
%% next portion is scheduled. Of a node with a limit only `open` counts, the number that was sent last and is not
%% acknowledged. `gone` is the number that was acknowledged last: another member of the cluster has dropped its copy, and
%% the change may not have come here yet.
-module(pubsub_device_flow).

-export([new/1, pid/1, pump/3, offer/4, resume/3, again/3, activated/5, acked/4, gate/3, forget_until/3]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

-import(pubsub_device_stanza, [prepared/1]).

-record(flow, {pid, sent = 0, twice = 0, until = 0, busy = false, level = false, open = none, gone = none}).

-define(PORTION, 16).

new(Pid) -> #flow{pid = Pid}.
pid(#flow{pid = Pid}) -> Pid.

%% Sends what may be sent now: everything that was not sent yet, or of a key node the next item.
pump(_, _, #flow{busy = true} = Flow) ->
    Flow;
pump(Node, Device, #flow{pid = Pid} = Flow) ->
    pump(gate(Node, Device, Pid), Node, Device, Flow).

pump(_, _, _, #flow{busy = true} = Flow) ->
    Flow;
pump(Gate, Node, Device, Flow) ->
    portion(Gate, Node, Device, Flow, ?PORTION).

%% A new item, which its writer has kept.
offer(Node, Device, #pubsub_device_copy{id = {_, _, Number}} = Copy, #flow{level = true, sent = Sent, pid = Pid} = Flow)
  when Number > Sent ->
    case gate(Node, Device, Pid) of
        open -> send_copy(Copy, Flow);
        Gate -> pump(Gate, Node, Device, Flow)
    end;
offer(Node, Device, _, Flow) ->
    pump(Node, Device, Flow).

resume(Node, Device, Flow) ->
    pump(Node, Device, Flow#flow{busy = false}).

%% The device announced itself again in the session, so it wants what it has not acknowledged.
again(Node, Device, #flow{pid = Pid} = Flow) ->
    case gate(Node, Device, Pid) of
        open -> pump(open, Node, Device, repeat(Flow));
        Gate -> pump(Gate, Node, Device, Flow)
    end.

%% The device activated the node. `Since` is the last number that it has, or `bulk`, when it gives none and wants
%% nothing twice. `Before` is what the node's activation was before. The device of a key node that was not active, and
%% one that sets a limit or lifts it, want to begin with the oldest kept item, whatever was sent before.
activated(Node, Device, Since, Before, #flow{pid = Pid} = Flow) ->
    Since == bulk orelse forget_until(Node, Device, Since),
    case gate(Node, Device, Pid) of
        limited when Since == bulk, Before == limited -> pump(limited, Node, Device, Flow);
        Gate when Gate == limited; Before == limited; Before == closed; Gate == single, Before == none ->
            pump(Gate, Node, Device, Flow#flow{sent = 0, twice = 0, until = 0, level = false, open = none});
        Gate when Since == bulk -> pump(Gate, Node, Device, Flow);
        Gate -> pump(Gate, Node, Device, repeat(Flow))
    end.

repeat(#flow{sent = Sent} = Flow) ->
    Flow#flow{until = Sent, level = false}.

%% The session has acknowledged the number, which a former sender may have sent, and the copy is dropped. With a limit it
%% may be one that was sent before the limit was set: then the open item stays open, and what is older than the
%% acknowledged one is still to be sent.
acked(Node, Device, Number, Known) ->
    #flow{pid = Pid, sent = Sent, open = Open} = Flow = Known#flow{gone = Number},
    case gate(Node, Device, Pid) of
        limited when Open == Number -> pump(limited, Node, Device, Flow#flow{open = none});
        limited -> pump(limited, Node, Device, Flow);
        Gate -> pump(Gate, Node, Device, Flow#flow{sent = max(Sent, Number)})
    end.

%% A node with a limit is `limited` or, when it was deactivated, `closed`. Otherwise an ordinary node is `open` to its
%% subscribers, and a key node to a device that subscribed. A device of its owner gets one item after the other
%% (`single`) once it has activated the node in this session.
gate(Node, Device, Pid) ->
    case pubsub_device_store:activation(Node, Device, Pid) of
        How when How == limited; How == closed -> How;
        How ->
            case pubsub_device_store:key_of(Node) of
                none -> open;
                _ -> key_gate(How, pubsub_device_store:newest(Node, Device))
            end
    end.

key_gate(_, {_, subscription}) -> open;
key_gate(active, _) -> single;
key_gate(none, _) -> closed.

portion(closed, _, _, Flow, _) ->
    Flow;
portion(_, Node, Device, Flow, 0) ->
    gen_server:cast(self(), {resume, Node, Device}),
    Flow#flow{busy = true, level = false};
portion(Gate, Node, Device, Flow, Left) ->
    case due(Gate, Node, Device, Flow) of
        none -> Flow#flow{level = Gate == open};
        Copy -> portion(Gate, Node, Device, send_copy(Copy, Flow), Left - 1)
    end.

due(open, Node, Device, #flow{sent = Sent, twice = Twice, until = Until, gone = Gone}) ->
    case Twice < Until andalso next(Node, Device, Twice, 1, Gone) of
        #pubsub_device_copy{id = {_, _, Number}} = Copy when Number =< Until -> Copy;
        _ -> next(Node, Device, Sent, 1, Gone)
    end;
due(single, Node, Device, #flow{sent = Sent, twice = Twice, until = Until, gone = Gone}) ->
    case next(Node, Device, 0, 1, Gone) of
        #pubsub_device_copy{id = {_, _, Number}} = Copy when Number > Sent; Number > Twice, Number =< Until -> Copy;
        _ -> none
    end;
due(limited, Node, Device, #flow{open = none, pid = Pid, gone = Gone}) ->
    next(Node, Device, 0, pubsub_device_store:least(Node, Device, Pid), Gone);
due(limited, _, _, _) -> none.

%% What has expired is passed over, and dropped by the storage.
next(Node, Device, Above, Least, Gone) ->
    case pubsub_device_store:next(Node, Device, Above, Least) of
        #pubsub_device_copy{id = {_, _, Number}, item = Item} = Copy ->
            case Number == Gone orelse pubsub_device_push:is_late(Item) of
                true -> next(Node, Device, Number, Least, Gone);
                false -> Copy
            end;
        none -> none
    end.

%% Drops the copies that the device already has, according to the number it gave, or {only, Number} if items may have come
%% to it in another order.
forget_until(Node, Device, {only, Number}) ->
    pubsub_device_store:drop(Node, Device, Number);
forget_until(Node, Device, Since) ->
    case pubsub_device_store:next(Node, Device, 0) of
        #pubsub_device_copy{id = {_, _, Number}} when Number =< Since ->
            pubsub_device_store:drop(Node, Device, Number),
            forget_until(Node, Device, Since);
        _ -> ok
    end.

%% Sent directly to the session that announced the device: a later session of the same resource, which has not
%% announced itself yet, would take a live item for the newest and every kept one after it for stale.
send_copy(#pubsub_device_copy{id = {Node, Device, Number}, item_id = ItemId, item = Item},
          #flow{pid = Pid, sent = Sent, twice = Twice} = Flow) ->
    Message = pubsub_device_stanza:item_message(Node, prepared(Device), Item),
    ejabberd_c2s:route(Pid, {route, pubsub_device_stanza:sending(Message, {Pid, Node, ItemId, Number})}),
    case Number > Sent of
        true -> Flow#flow{sent = Number, open = Number};
        false -> Flow#flow{twice = max(Twice, Number), open = Number}
    end.
