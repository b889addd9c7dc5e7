%% SPDX-License-Identifier: GPL-3.0-only
%% The sums in mnesia: how many copies and bytes are kept for a device and for an account, the bytes of all, and how
%% many nodes and keys an account has. They are in memory, change with every copy, and are made again at start.
-module(pubsub_device_sums).

-export([sum/2, load_of/1, one_copy/1, bytes_of/1, exceeds/3]).
-export([load/1, total/0, totals/0, next_device/1]).

-include("pubsub_device_mnesia.hrl").

%% Returns the sum.
sum(Who, Value) ->
    pubsub_device_tables:add(pubsub_device_load, Who, Value, #pubsub_device_load{who = Who, load = 0}).

load_of(Who) ->
    lists:sum([Load || #pubsub_device_load{load = Load} <- pubsub_device_tables:read(pubsub_device_load, Who)]).

%% Number and bytes in one integer, so that they change together.
one_copy(Bytes) -> (1 bsl ?BYTES_BITS) + Bytes.

bytes_of(Load) -> Load band ((1 bsl ?BYTES_BITS) - 1).

%% An atom is greater than every number.
exceeds(Load, Max, MaxBytes) ->
    Load bsr ?BYTES_BITS > Max orelse bytes_of(Load) > MaxBytes.

load({User, Server, _} = Who) ->
    Ids = [case Who of
               {_, _, <<>>} -> Account;
               _ -> DeviceId
           end || {DeviceId, Account} <- pubsub_device_mnesia:some_device_id({User, Server, element(3, Who)})],
    Load = lists:sum([load_of(Id) || Id <- Ids]),
    {Load bsr ?BYTES_BITS, bytes_of(Load)}.

total() ->
    load_of(total).

totals() ->
    [{nodes, ets:info(pubsub_device_node, size)}, {key_nodes, ets:info(pubsub_device_key, size)},
     {devices, ets:info(pubsub_device, size)}, {kept_items, ets:info(pubsub_device_waiting, size)}].

next_device(Before) ->
    Next = case Before of
               none -> ets:first(pubsub_device);
               _ -> ets:next(pubsub_device, Before)
           end,
    case Next of
        '$end_of_table' -> none;
        Device -> {Device, case pubsub_device_reading:oldest_of(Device) of
                               {_, Number} -> Number;
                               none -> infinity
                           end}
    end.
