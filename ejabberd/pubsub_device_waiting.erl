%% SPDX-License-Identifier: GPL-3.0-only
%% The copies in mnesia that wait for devices, with the bounds of what may wait: older copies are dropped for a newer
%% one. The tables are in memory and are made again from the bodies at start. Any process may drop any copy.
-module(pubsub_device_waiting).

-export([init/0, wait/5, drop/3, drop_id/3, drop_device/1, relieve/1]).

-include("pubsub_device_items.hrl").

-import(pubsub_device_tables, [together/1, put/1, remove/2, take/2, add/4, read/2]).
-import(pubsub_device_sums, [sum/2, one_copy/1, exceeds/3, load_of/1, bytes_of/1]).

init() ->
    Create = fun pubsub_device_tables:create/5,
    Create(pubsub_device_waiting, ram_copies, ordered_set, record_info(fields, pubsub_device_waiting), []),
    Create(pubsub_device_oldest, ram_copies, ordered_set, record_info(fields, pubsub_device_oldest), []),
    Create(pubsub_device_queue, ram_copies, ordered_set, record_info(fields, pubsub_device_queue), []).

%%% adding

%% Each copy is counted before older ones are dropped for it, and added after that: no bound is ever exceeded by what
%% can be read.
wait(Node, NodeId, Number, Bytes, Devices) ->
    Limits = pubsub_device_bounds:limits(),
    pubsub_device_bodies:share_among(NodeId, Number, Devices),
    lists:foreach(fun(Device) -> wait_for(Device, Node, NodeId, Number, Bytes, Limits) end, Devices).

wait_for({Device, DeviceId, Account, Via}, Node, NodeId, Number, Bytes, {MaxNode, Max, MaxBytes, MaxAccount}) ->
    Queue = #pubsub_device_queue{id = {DeviceId, NodeId}, count = 0, node = Node, device = Device},
    Exceeded = add(pubsub_device_queue, {DeviceId, NodeId}, 1, Queue) > MaxNode,
    OfDevice = exceeds(sum(DeviceId, one_copy(Bytes)), Max, MaxBytes),
    OfAccount = exceeds(sum(Account, one_copy(Bytes)), infinity, MaxAccount),
    sum(total, Bytes),
    Enforce = fun() ->
                      Exceeded andalso shrink_queue(DeviceId, NodeId, MaxNode),
                      OfDevice andalso shrink(DeviceId, Max, MaxBytes, device),
                      OfAccount andalso shrink(Account, infinity, MaxAccount, account)
              end,
    Enforce(),
    put(#pubsub_device_waiting{id = {DeviceId, NodeId, Number}, account = Account, via = Via, bytes = Bytes}),
    put(#pubsub_device_oldest{id = {DeviceId, Number, NodeId, DeviceId}}),
    put(#pubsub_device_oldest{id = {Account, Number, NodeId, DeviceId}}),
    Enforce(),
    %% The device or the node may have been forgotten in the meantime.
    (ets:member(pubsub_device, Device) andalso pubsub_device_tree:known(Node) == NodeId) orelse mnesia:is_transaction()
        orelse drop_id(DeviceId, NodeId, Number),
    ok.

%%% bounds

shrink_queue(DeviceId, NodeId, Max) ->
    case read(pubsub_device_queue, {DeviceId, NodeId}) of
        [#pubsub_device_queue{count = Count}] when Count > Max ->
            case pubsub_device_reading:first(DeviceId, NodeId) of
                none -> ok;
                Number -> drop_oldest(DeviceId, NodeId, Number, node), shrink_queue(DeviceId, NodeId, Max)
            end;
        _ -> ok
    end.

%% The copies that other writers have counted, but not added yet, are not found.
shrink(Who, Max, MaxBytes, Why) ->
    case exceeds(load_of(Who), Max, MaxBytes) of
        true ->
            case pubsub_device_reading:oldest(Who) of
                {_, Number, NodeId, DeviceId} = Id ->
                    drop_oldest(DeviceId, NodeId, Number, Why) orelse remove(pubsub_device_oldest, Id),
                    shrink(Who, Max, MaxBytes, Why);
                none -> ok
            end;
        false -> ok
    end.

drop_oldest(DeviceId, NodeId, Number, Why) ->
    Queue = ets:lookup(pubsub_device_queue, {DeviceId, NodeId}),
    Dropped = drop_id(DeviceId, NodeId, Number),
    [pubsub_device_bounds:dropped(Node, Device, Number, Why)
     || Dropped, #pubsub_device_queue{node = Node, device = Device} <- Queue],
    Dropped.

%% Reduces the accounts that have most to the same level.
relieve(Room) ->
    Sums = [{bytes_of(load_of(Account)), Account} || Account <- pubsub_device_mnesia:account_ids()],
    Level = pubsub_device_bounds:level([Bytes || {Bytes, _} <- Sums], Room),
    Above = [Account || {Bytes, Account} <- Sums, Bytes > Level],
    [together(fun() -> shrink(Account, infinity, Level, store) end) || Account <- Above],
    {Level, length(Above)}.

%%% dropping

%% Two processes may try to drop a copy at once: one of them takes it out and changes the counts. Returns whether it was
%% this one.
drop(Node, Device, Number) ->
    case pubsub_device_reading:ids(Node, Device) of
        {NodeId, DeviceId} -> together(fun() -> drop_id(DeviceId, NodeId, Number) end);
        none -> false
    end.

drop_id(DeviceId, NodeId, Number) ->
    case take(pubsub_device_waiting, {DeviceId, NodeId, Number}) of
        [#pubsub_device_waiting{account = Account, bytes = Bytes}] ->
            remove(pubsub_device_oldest, {DeviceId, Number, NodeId, DeviceId}),
            remove(pubsub_device_oldest, {Account, Number, NodeId, DeviceId}),
            uncount_queue({DeviceId, NodeId}),
            sum(DeviceId, -one_copy(Bytes)),
            sum(Account, -one_copy(Bytes)),
            sum(total, -Bytes),
            pubsub_device_bodies:release(NodeId, Number, DeviceId),
            true;
        [] -> false
    end.

%% The record of an empty queue is removed; it has to be known for that.
uncount_queue(Id) ->
    case ets:lookup(pubsub_device_queue, Id) of
        [Queue] -> add(pubsub_device_queue, Id, -1, Queue);
        [] -> mnesia:is_transaction() andalso add(pubsub_device_queue, Id, -1, #pubsub_device_queue{id = Id, count = 0})
    end.

%% All copies of a device that is forgotten.
drop_device(DeviceId) ->
    case ets:next(pubsub_device_waiting, {DeviceId, 0, 0}) of
        {DeviceId, NodeId, Number} ->
            together(fun() -> drop_id(DeviceId, NodeId, Number) end)
                andalso pubsub_device_metrics:count({dropped, forgotten}),
            drop_device(DeviceId);
        _ -> ok
    end.
