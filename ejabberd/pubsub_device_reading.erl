%% SPDX-License-Identifier: GPL-3.0-only
%% Looks up the waiting items in mnesia's tables: the copies, their order by age and the queues, with the item itself
%% from its body. Other processes drop copies meanwhile, so what one table has may be gone from the next.
-module(pubsub_device_reading).

-export([next/4, newest/2, nodes_for/1, each_queue/1, count/2, oldest_of/1]).
-export([ids/2, first/2, oldest/1]).

-include("pubsub_device.hrl").
-include("pubsub_device_items.hrl").

ids(Node, Device) ->
    case {pubsub_device_tree:known(Node), pubsub_device_mnesia:device_id(Device)} of
        {NodeId, [{DeviceId, _}]} when NodeId /= none -> {NodeId, DeviceId};
        _ -> none
    end.

next(Node, Device, Above, Least) ->
    case ids(Node, Device) of
        {NodeId, DeviceId} -> next(Node, Device, NodeId, DeviceId, Above, Least);
        none -> none
    end.

%% The body of a copy that is being dropped may be gone already.
next(Node, Device, NodeId, DeviceId, Above, Least) ->
    case ets:next(pubsub_device_waiting, {DeviceId, NodeId, Above}) of
        {DeviceId, NodeId, Number} ->
            case (Least == 1 orelse pubsub_device_traits:urgency(NodeId, Number) >= Least)
                andalso ets:lookup(pubsub_device_body, {NodeId, Number}) of
                [#pubsub_device_body{item_id = ItemId, item = Item, at = At}] ->
                    #pubsub_device_copy{id = {Node, Device, Number}, item_id = ItemId,
                                        item = pubsub_device_stanza:numbered(Item, Number), at = At};
                _ -> next(Node, Device, NodeId, DeviceId, Number, Least)
            end;
        _ -> none
    end.

newest(Node, Device) ->
    case ids(Node, Device) of
        {NodeId, DeviceId} ->
            case ets:prev(pubsub_device_waiting, {DeviceId, NodeId, infinity}) of  % greater than every number
                {DeviceId, NodeId, Number} = Id ->
                    try {Number, ets:lookup_element(pubsub_device_waiting, Id, #pubsub_device_waiting.via)}
                    catch error:badarg -> newest(Node, Device)
                    end;
                _ -> none
            end;
        none -> none
    end.

nodes_for(Device) ->
    case pubsub_device_mnesia:device_id(Device) of
        [{DeviceId, _}] ->
            ets:select(pubsub_device_queue, [{#pubsub_device_queue{id = {DeviceId, '_'}, node = '$1', _ = '_'}, [],
                                              ['$1']}]);
        [] -> []
    end.

each_queue(Fun) ->
    each_queue(Fun, ets:first(pubsub_device_queue)).

each_queue(_, '$end_of_table') ->
    ok;
each_queue(Fun, Id) ->
    [Fun(Device, Node) || #pubsub_device_queue{device = Device, node = Node} <- ets:lookup(pubsub_device_queue, Id)],
    each_queue(Fun, ets:next(pubsub_device_queue, Id)).

count(Node, Device) ->
    Found = case ids(Node, Device) of
                {NodeId, DeviceId} -> ets:lookup(pubsub_device_queue, {DeviceId, NodeId});
                none -> []
            end,
    lists:sum([Count || #pubsub_device_queue{count = Count} <- Found]).

oldest_of(Device) ->
    case [Id || {DeviceId, _} <- pubsub_device_mnesia:device_id(Device), Id <- [oldest(DeviceId)], Id /= none] of
        [{DeviceId, Number, NodeId, DeviceId}] ->
            case ets:lookup(pubsub_device_queue, {DeviceId, NodeId}) of
                [#pubsub_device_queue{node = Node}] -> {Node, Number};
                [] -> oldest_of(Device)
            end;
        [] -> none
    end.

%% The oldest copy of a device or an account, {Who, Number, NodeId, DeviceId}.
oldest(Who) ->
    pubsub_device_tables:next(pubsub_device_oldest, {Who, 0, 0, 0}, fun(Id) -> element(1, Id) == Who end).

%% The lowest number of the node's copies for the device.
first(DeviceId, NodeId) ->
    case pubsub_device_tables:next(pubsub_device_waiting, {DeviceId, NodeId, 0},
                                   fun({D, N, _}) -> D == DeviceId andalso N == NodeId end) of
        {_, _, Number} -> Number;
        none -> none
    end.
