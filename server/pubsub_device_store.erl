%% SPDX-License-Identifier: GPL-3.0-only
%% The tables: devices, sessions, keys, numbers and what is kept. Only the node's writer changes its numbers
%% and copies, so reading and writing them takes no transaction on a server of its own. Writes wait for every
%% member of a cluster (sync_dirty); that they are on disk is the business of pubsub_device_commit.
-module(pubsub_device_store).

-export([init/0, together/1]).
-export([saw_device/1, is_device/1, devices/1, all_devices/0, seen/1, forget_device/1]).
-export([attach/2, detach/2, session/1, sessions/0, forget_session/1]).
-export([activate/3, deactivate/2, is_active/3, stale_activations/0]).
-export([key_of/1, node_of/1, put_key/3, delete_key/1]).
-export([last_number/2, last_item/1, put_number/3, retire_number/2]).
-export([keep/6, drop/3, drop_all/2, next/3, newest/2, is_kept/3, count/2, nodes_for/1, devices_for/1, pairs/0,
         total_at_least/2, size_bytes/0]).

-include("pubsub_device.hrl").

init() ->
    table(pubsub_device, disc_copies, ordered_set, record_info(fields, pubsub_device), []),
    table(pubsub_device_session, ram_copies, set, record_info(fields, pubsub_device_session), []),
    table(pubsub_device_active, ram_copies, ordered_set, record_info(fields, pubsub_device_active), []),
    table(pubsub_device_key, disc_copies, set, record_info(fields, pubsub_device_key), [{index, [key]}]),
    table(pubsub_device_number, disc_copies, set, record_info(fields, pubsub_device_number), []),
    table(pubsub_device_copy, disc_copies, ordered_set, record_info(fields, pubsub_device_copy), []),
    table(pubsub_device_pair, ram_copies, ordered_set, record_info(fields, pubsub_device_pair), []),
    count_pairs(mnesia:dirty_first(pubsub_device_pair)).

table(Name, Storage, Type, Fields, More) ->
    {atomic, ok} = ejabberd_mnesia:create(?MODULE, Name,
                                          [{Storage, [node()]}, {type, Type}, {attributes, Fields} | More]).

%% A member that joins a running cluster finds the pairs there already.
count_pairs('$end_of_table') ->
    Add = fun({Node, Device, _}, Counts) ->
                  maps:update_with({Device, Node}, fun(N) -> N + 1 end, 1, Counts)
          end,
    Counts = lists:foldl(Add, #{}, mnesia:dirty_all_keys(pubsub_device_copy)),
    maps:foreach(fun(Id, Count) -> write(#pubsub_device_pair{id = Id, count = Count}) end, Counts);
count_pairs(_) ->
    ok.

write(Record) -> act(fun() -> mnesia:write(Record) end).
delete(Table, Key) -> act(fun() -> mnesia:delete({Table, Key}) end).

act(Fun) ->
    case mnesia:is_transaction() of
        true -> Fun();
        false -> mnesia:sync_dirty(Fun)
    end.

%% In a cluster two members may take themselves for a node's writer for a moment. A number and the copies that
%% have it are written in one transaction there, so the next number is given out only when they are in place.
together(Fun) ->
    case mnesia:system_info(db_nodes) of
        [_] -> Fun();
        _ -> {atomic, Result} = mnesia:sync_transaction(Fun), Result
    end.

%%% devices

%% To the minute: a client that announces itself often costs no writing.
saw_device(Device) ->
    Now = erlang:system_time(second),
    case mnesia:dirty_read(pubsub_device, Device) of
        [#pubsub_device{seen = Seen}] when Seen > Now - 60, Seen =< Now -> ok;
        _ -> write(#pubsub_device{jid = Device, seen = Now})
    end.

is_device(Device) ->
    mnesia:dirty_read(pubsub_device, Device) /= [].

%% All devices of an account.
devices({User, Server, _}) ->
    mnesia:dirty_select(pubsub_device, [{#pubsub_device{jid = {User, Server, '$1'}, _ = '_'}, [],
                                         [{{User, Server, '$1'}}]}]).

all_devices() ->
    mnesia:dirty_all_keys(pubsub_device).

%% When the device was last seen, in seconds: a list of one, or none.
seen(Device) ->
    [Seen || #pubsub_device{seen = Seen} <- mnesia:dirty_read(pubsub_device, Device)].

forget_device(Device) ->
    delete(pubsub_device, Device).

%%% sessions

attach(Device, Pid) ->
    case mnesia:dirty_read(pubsub_device_session, Device) of
        [#pubsub_device_session{pid = Pid}] -> ok;
        _ -> write(#pubsub_device_session{jid = Device, pid = Pid})
    end.

%% Only for the session that ends: a resource conflict closes the old one after the new one has announced
%% itself.
detach(Device, Pid) ->
    case mnesia:dirty_read(pubsub_device_session, Device) of
        [#pubsub_device_session{pid = Pid}] -> delete(pubsub_device_session, Device), true;
        _ -> false
    end.

%% The session that announced the device, if it still is the device's session.
session({User, Server, Resource} = Device) ->
    case mnesia:dirty_read(pubsub_device_session, Device) of
        [#pubsub_device_session{pid = Pid}] ->
            case ejabberd_sm:get_session_pid(User, Server, Resource) of
                Pid -> Pid;
                _ -> none
            end;
        [] -> none
    end.

sessions() ->
    mnesia:dirty_all_keys(pubsub_device_session).

forget_session(Device) ->
    delete(pubsub_device_session, Device).

activate(Node, Device, Pid) ->
    case is_active(Node, Device, Pid) of
        true -> ok;
        false -> write(#pubsub_device_active{id = {Node, Device}, pid = Pid})
    end.

deactivate(Node, Device) ->
    delete(pubsub_device_active, {Node, Device}).

is_active(Node, Device, Pid) ->
    case mnesia:dirty_read(pubsub_device_active, {Node, Device}) of
        [#pubsub_device_active{pid = Pid}] -> true;
        _ -> false
    end.

stale_activations() ->
    [Id || {_, Device} = Id <- mnesia:dirty_all_keys(pubsub_device_active),
           #pubsub_device_active{pid = Pid} <- mnesia:dirty_read(pubsub_device_active, Id), session(Device) /= Pid].

%%% keys

key_of(Node) ->
    case mnesia:dirty_read(pubsub_device_key, Node) of
        [#pubsub_device_key{key = Key, owner = Owner}] -> {Key, Owner};
        [] -> none
    end.

node_of(Key) ->
    case mnesia:dirty_index_read(pubsub_device_key, Key, #pubsub_device_key.key) of
        [#pubsub_device_key{node = Node, owner = Owner}] -> {Node, Owner};
        _ -> none
    end.

put_key(Node, Key, Owner) -> write(#pubsub_device_key{node = Node, key = Key, owner = Owner}).
delete_key(Node) -> delete(pubsub_device_key, Node).

%%% numbers

last_number(Node, Shard) ->
    Records = case mnesia:is_transaction() of
                  true -> mnesia:read(pubsub_device_number, Node, write);
                  false -> mnesia:dirty_read(pubsub_device_number, Node)
              end,
    case Records of
        [#pubsub_device_number{last = Last}] -> Last;
        [] -> floor_of(Shard)
    end.

last_item(Node) ->
    case mnesia:dirty_read(pubsub_device_number, Node) of
        [#pubsub_device_number{last = Last, item = Item}] -> {Last, Item};
        [] -> none
    end.

put_number(Node, Last, Item) ->
    write(#pubsub_device_number{node = Node, last = Last, item = Item}).

%% The node is gone; its number lives on in the floor. The floor is written first, so a crash between the two
%% loses nothing.
retire_number(Node, Shard) ->
    case mnesia:dirty_read(pubsub_device_number, Node) of
        [#pubsub_device_number{last = Last}] ->
            Floor = max(Last, floor_of(Shard)),
            write(#pubsub_device_number{node = {floor, Shard, node()}, last = Floor, item = none}),
            delete(pubsub_device_number, Node);
        [] -> ok
    end.

%% Each member of a cluster writes a floor of its own, so two of them cannot lower it between them.
floor_of(Shard) ->
    lists:max([0 | [Last || Member <- mnesia:system_info(db_nodes),
                            #pubsub_device_number{last = Last}
                                <- mnesia:dirty_read(pubsub_device_number, {floor, Shard, Member})]]).

%%% what is kept

keep(Node, Device, Number, ItemId, Via, Item) ->
    write(#pubsub_device_copy{id = {Node, Device, Number}, item_id = ItemId, via = Via, item = Item,
                              at = erlang:system_time(second)}),
    write(#pubsub_device_pair{id = {Device, Node}, count = count(Node, Device) + 1}).

drop(Node, Device, Number) ->
    case is_kept(Node, Device, Number) of
        true ->
            delete(pubsub_device_copy, {Node, Device, Number}),
            case count(Node, Device) of
                Count when Count > 1 -> write(#pubsub_device_pair{id = {Device, Node}, count = Count - 1});
                _ -> delete(pubsub_device_pair, {Device, Node})
            end;
        false -> ok
    end.

drop_all(Node, Device) ->
    case next(Node, Device, 0) of
        none -> ok;
        #pubsub_device_copy{id = {_, _, Number}} -> drop(Node, Device, Number), drop_all(Node, Device)
    end.

%% The oldest copy above the number.
next(Node, Device, Number) ->
    case mnesia:dirty_next(pubsub_device_copy, {Node, Device, Number}) of
        {Node, Device, _} = Id -> one(Id);
        _ -> none
    end.

newest(Node, Device) ->
    case mnesia:dirty_prev(pubsub_device_copy, {Node, Device, infinity}) of  % an atom is above every number
        {Node, Device, _} = Id -> one(Id);
        _ -> none
    end.

one(Id) ->
    case mnesia:dirty_read(pubsub_device_copy, Id) of
        [Copy] -> Copy;
        [] -> none
    end.

is_kept(Node, Device, Number) ->
    mnesia:dirty_read(pubsub_device_copy, {Node, Device, Number}) /= [].

count(Node, Device) ->
    case mnesia:dirty_read(pubsub_device_pair, {Device, Node}) of
        [#pubsub_device_pair{count = Count}] -> Count;
        [] -> 0
    end.

nodes_for(Device) ->
    mnesia:dirty_select(pubsub_device_pair, [{#pubsub_device_pair{id = {Device, '$1'}, _ = '_'}, [], ['$1']}]).

%% The devices that copies of a node are kept for: a walk that reads one key for each device.
devices_for(Node) ->
    devices_for(Node, mnesia:dirty_next(pubsub_device_copy, {Node, 0, 0})).  % a number is below every device

devices_for(Node, {Node, Device, _}) ->
    [Device | devices_for(Node, mnesia:dirty_next(pubsub_device_copy, {Node, Device, infinity}))];
devices_for(_, _) ->
    [].

pairs() ->
    mnesia:dirty_all_keys(pubsub_device_pair).

%% Whether at least `Bound` copies are kept for the device, over all nodes.
total_at_least(Device, Bound) ->
    mnesia:table_info(pubsub_device_copy, size) >= Bound
        andalso lists:sum(mnesia:dirty_select(pubsub_device_pair,
                                              [{#pubsub_device_pair{id = {Device, '_'}, count = '$1'}, [], ['$1']}]))
                >= Bound.

%% The table's own memory and the texts, which lie outside it.
size_bytes() ->
    mnesia:table_info(pubsub_device_copy, memory) * erlang:system_info(wordsize) + erlang:memory(binary).
