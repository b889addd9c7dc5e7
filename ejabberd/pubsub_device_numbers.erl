%% SPDX-License-Identifier: GPL-3.0-only
%% The numbers of items in mnesia. Alone, numbers ascend within a shard, so none is stored for a node: a floor is
%% written ahead of them, about every second. In a cluster the last number of each node is stored besides, since a node
%% can change its writer.
-module(pubsub_device_numbers).

-export([init/0, numbers/1, current/1, next_number/2, reserve/1, put_floor/2]).
-export([put_last/3, last_item/1, forget/1]).

-include("pubsub_device_items.hrl").

-record(numbers, {shard, last = 0, reserved = 0, members = []}).

%% How far ahead of the last number, in microseconds, the floor is written.
-define(RESERVE, 1000000).

init() ->
    pubsub_device_tables:create(pubsub_device_number, disc_copies, set, record_info(fields, pubsub_device_number), []).

numbers(Shard) ->
    #numbers{shard = Shard}.

%% When members come or go, another one may have numbered the nodes of this writer before.
current(#numbers{members = Members, shard = Shard, last = Last} = Numbers) ->
    case mnesia:system_info(running_db_nodes) of
        Members -> Numbers;
        Now -> Numbers#numbers{members = Now, last = lists:max([Last | floors(Shard)])}
    end.

floors(Shard) ->
    [Last || Member <- mnesia:system_info(db_nodes),
             #pubsub_device_number{last = Last} <- ets:lookup(pubsub_device_number, {floor, Shard, Member})].

%% A number is the time in microseconds if that is above the last number, so that even after a loss of the store the
%% numbers continue to ascend.
next_number(Node, #numbers{last = Last} = Numbers) ->
    Before = case mnesia:is_transaction() of
                 true -> max(Last, stored_number(Node));
                 false -> Last
             end,
    Number = max(Before + 1, erlang:system_time(microsecond)),
    {Number, Numbers#numbers{last = max(Number, Last)}}.

stored_number(Node) ->
    case mnesia:read(pubsub_device_number, Node, write) of
        [#pubsub_device_number{last = Last}] -> Last;
        [] -> 0
    end.

%% Writes the floor when the last number has come above it.
reserve(#numbers{last = Last, reserved = Reserved} = Numbers) when Last =< Reserved ->
    Numbers;
reserve(#numbers{shard = Shard, last = Last} = Numbers) ->
    put_floor(Shard, Last + ?RESERVE),
    Numbers#numbers{reserved = Last + ?RESERVE}.

put_floor(Shard, Floor) ->
    pubsub_device_tables:write(#pubsub_device_number{node = {floor, Shard, node()}, last = Floor, item = none}).

put_last(Node, Number, ItemId) ->
    pubsub_device_tables:write(#pubsub_device_number{node = Node, last = Number, item = ItemId}).

last_item(Node) ->
    case ets:lookup(pubsub_device_number, Node) of
        [#pubsub_device_number{last = Last, item = Item}] -> {Last, Item};
        [] -> none
    end.

forget(Node) ->
    pubsub_device_tables:delete(pubsub_device_number, Node).
