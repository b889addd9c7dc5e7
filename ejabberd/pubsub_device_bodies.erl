%% SPDX-License-Identifier: GPL-3.0-only
%% The bodies of items in mnesia: an item is stored once, with the devices that it is for. What each device has taken is
%% not written for each item: a body is deleted with its last device, and for a body that others still wait for, a cursor
%% for each node and device is written about every second (tick/0). After a crash a device may therefore get items again
%% that it acknowledged in the last second.
-module(pubsub_device_bodies).

-export([init/0, tick/0, sweep/0, forget_cursors/1]).
-export([store/1, add_device/5, put_body/5, share_among/3, release/3, floor_of/2]).

-include("pubsub_device.hrl").
-include("pubsub_device_items.hrl").

-import(pubsub_device_tables, [put/1, remove/2, add/4]).

init() ->
    Create = fun pubsub_device_tables:create/5,
    Create(pubsub_device_body, disc_copies, ordered_set, record_info(fields, pubsub_device_body), []),
    Create(pubsub_device_cursor, disc_copies, ordered_set, record_info(fields, pubsub_device_cursor), []),
    Create(pubsub_device_share, ram_copies, set, record_info(fields, pubsub_device_share), []),
    Create(pubsub_device_lagging, ram_copies, set, record_info(fields, pubsub_device_lagging), [{local_content, true}]).

%%% writing

store({#publication{item_id = ItemId, item = Item}, Number, NodeId, [_ | _] = Devices}) ->
    mnesia:write(#pubsub_device_body{id = {NodeId, Number}, item_id = ItemId, item = Item,
                                     at = erlang:system_time(second),
                                     devices = [{DeviceId, Via} || {_, DeviceId, _, Via} <- Devices]});
store(_) ->
    ok.

%% Adds the device to the item's body, or makes the body again. It waits for the item when Wait() has returned.
add_device(NodeId, Number, Body, DeviceId, Wait) ->
    floor_of(NodeId, DeviceId) >= Number
        andalso pubsub_device_tables:write(#pubsub_device_cursor{id = {NodeId, DeviceId}, floor = Number - 1}),
    Put = fun() -> put_body(NodeId, Number, Body, DeviceId, subscription) end,
    Put(),
    share(NodeId, Number, DeviceId),
    Wait(),
    %% The only other device may have taken the item, and deleted the body, in the meantime.
    case ets:member(pubsub_device_body, {NodeId, Number}) of
        true -> ok;
        false -> Put(), remove(pubsub_device_share, {NodeId, Number})
    end.

%% Writes the body for one more device.
put_body(NodeId, Number, {ItemId, Item, At}, DeviceId, Via) ->
    Body = case ets:lookup(pubsub_device_body, {NodeId, Number}) of
               [Found] -> Found;
               [] -> #pubsub_device_body{id = {NodeId, Number}, item_id = ItemId, item = Item, at = At, devices = []}
           end,
    Devices = lists:keystore(DeviceId, 1, Body#pubsub_device_body.devices, {DeviceId, Via}),
    pubsub_device_tables:write(Body#pubsub_device_body{devices = Devices}).

%%% the devices that wait for a body

%% A body for a single device has no record.
share_among(_, _, [_]) -> ok;
share_among(NodeId, Number, Devices) -> put(#pubsub_device_share{id = {NodeId, Number}, count = length(Devices)}).

share(NodeId, Number, DeviceId) ->
    case ets:member(pubsub_device_share, {NodeId, Number}) of
        true -> add(pubsub_device_share, {NodeId, Number}, 1, #pubsub_device_share{id = {NodeId, Number}, count = 0});
        false ->
            Others = [Each || #pubsub_device_body{devices = Devices}
                                  <- ets:lookup(pubsub_device_body, {NodeId, Number}),
                              {Each, _} <- Devices, Each /= DeviceId,
                              ets:member(pubsub_device_waiting, {Each, NodeId, Number})],
            Others == [] orelse put(#pubsub_device_share{id = {NodeId, Number}, count = 2})
    end.

%% The last device releases the body.
release(NodeId, Number, DeviceId) ->
    Id = {NodeId, Number},
    case add(pubsub_device_share, Id, -1, #pubsub_device_share{id = Id, count = 1}) of
        0 ->
            case mnesia:is_transaction() of
                true -> mnesia:delete({pubsub_device_body, Id});
                false -> mnesia:dirty_delete(pubsub_device_body, Id)
            end,
            pubsub_device_traits:forget(NodeId, Number);
        _ -> lag({NodeId, DeviceId}, Number)
    end.

%%% cursors

%% Two processes may note a number at once; the lower one does no harm, since the cursor then follows later.
lag(Id, Number) ->
    case ets:lookup(pubsub_device_lagging, Id) of
        [#pubsub_device_lagging{taken = Taken}] when Taken >= Number -> ok;
        _ -> ets:insert(pubsub_device_lagging, #pubsub_device_lagging{id = Id, taken = Number}), ok
    end.

%% Writes the cursors of devices that took a shared item, if there is still one up to there.
tick() ->
    Followed = [true || Lagging <- ets:tab2list(pubsub_device_lagging), follow(Lagging) == ok],
    Followed == [] orelse pubsub_device_mnesia:sync(),
    ok.

follow(#pubsub_device_lagging{id = {NodeId, DeviceId}, taken = Taken} = Lagging) ->
    ets:delete_object(pubsub_device_lagging, Lagging),
    Floor = case pubsub_device_reading:first(DeviceId, NodeId) of
                none -> Taken;
                First -> First - 1
            end,
    Floor > floor_of(NodeId, DeviceId) andalso first_body(NodeId) =< Floor
        andalso mnesia:dirty_write(#pubsub_device_cursor{id = {NodeId, DeviceId}, floor = Floor}).

floor_of(NodeId, DeviceId) ->
    case ets:lookup(pubsub_device_cursor, {NodeId, DeviceId}) of
        [#pubsub_device_cursor{floor = Floor}] -> Floor;
        [] -> 0
    end.

%% The lowest number of the node's bodies; an atom, which is greater than every number, when there is none.
first_body(NodeId) ->
    case ets:next(pubsub_device_body, {NodeId, 0}) of
        {NodeId, Number} -> Number;
        _ -> none
    end.

%% Removes cursors that no body needs any more.
sweep() ->
    sweep_cursors(ets:first(pubsub_device_cursor)).

sweep_cursors('$end_of_table') ->
    ok;
sweep_cursors({NodeId, DeviceId} = Id) ->
    first_body(NodeId) =< floor_of(NodeId, DeviceId) orelse delete_cursor(Id),
    sweep_cursors(ets:next(pubsub_device_cursor, Id)).

forget_cursors(NodeId) ->
    forget_cursors(NodeId, ets:next(pubsub_device_cursor, {NodeId, 0})).

forget_cursors(NodeId, {NodeId, _} = Id) ->
    delete_cursor(Id),
    forget_cursors(NodeId, ets:next(pubsub_device_cursor, Id));
forget_cursors(_, _) ->
    ok.

delete_cursor(Id) ->
    mnesia:dirty_delete(pubsub_device_cursor, Id).
