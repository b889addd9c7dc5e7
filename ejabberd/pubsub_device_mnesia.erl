%% SPDX-License-Identifier: GPL-3.0-only
%% The storage in mnesia, for one server or a small cluster: devices, key nodes and the creators of nodes. What concerns
%% the kept items is passed on to pubsub_device_items and its parts.
-module(pubsub_device_mnesia).
-behaviour(pubsub_device_storage).

-export([init/0, workers/0, sync/0, flush/0, tick/0, sweep/0]).
-export([saw_device/1, is_device/1, devices/1, all_devices/0, seen/1, forget_device/1]).
-export([key_of/1, node_of/1, push_of/1, put_key/4, delete_key/1, marks/1, mark/2, made/2, unmade/1, counted/1]).
-export([numbers/1, write/2, must_sync/1, complete/1, keep_last/5, last_item/1, forget_node/2]).
-export([acknowledged/4, drop/3, waits/3, take_back/3, next/4, newest/2, nodes_for/1, each_queue/1]).
-export([count/2, counts/2, oldest/1, load/1, total/0, totals/0, next_device/1, relieve/1]).
-export([device_id/1, some_device_id/1, devices_by_id/0, account_ids/0]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").
-include("pubsub_device.hrl").
-include("pubsub_device_mnesia.hrl").

-import(pubsub_device_tables, [together/1, write/1, delete/2]).

init() ->
    Create = fun pubsub_device_tables:create/5,
    Create(pubsub_device, disc_copies, ordered_set, record_info(fields, pubsub_device), []),
    Create(pubsub_device_serial, disc_copies, set, record_info(fields, pubsub_device_serial), []),
    Create(pubsub_device_key, disc_copies, set, record_info(fields, pubsub_device_key), [{index, [key, owner]}]),
    Create(pubsub_device_push, disc_copies, set, record_info(fields, pubsub_device_push), []),
    Create(pubsub_device_mark, disc_copies, ordered_set, record_info(fields, pubsub_device_mark), []),
    Create(pubsub_device_node, disc_copies, set, record_info(fields, pubsub_device_node), []),
    Create(pubsub_device_load, ram_copies, set, record_info(fields, pubsub_device_load), []),
    Alone = pubsub_device_tables:alone(),
    Alone andalso keep_items_in_memory(),
    number_devices(),
    pubsub_device_items:init(),
    Alone andalso count_nodes(),
    ok.

%% The engine's default for its items is a table in one file, which fails above 2 GB. An index does not survive a
%% change of the storage type, so it is created again.
keep_items_in_memory() ->
    Readable = try mnesia:dirty_index_read(pubsub_item, none, #pubsub_item.nodeidx) of
                   _ -> true
               catch exit:_ -> false
               end,
    case mnesia:table_info(pubsub_item, storage_type) of
        disc_copies when Readable -> ok;
        Storage ->
            mnesia:del_table_index(pubsub_item, nodeidx),
            Storage == disc_copies orelse ({atomic, ok} = mnesia:change_table_copy_type(pubsub_item, node(), disc_copies)),
            {atomic, ok} = mnesia:add_table_index(pubsub_item, nodeidx)
    end.

%% Where the creator of a node is not recorded, it is the first owner; later owners are listed before it.
count_nodes() ->
    Note = fun(#pubsub_node{nodeid = {Service, _} = Node, owners = [_ | _] = Owners}, ok) when is_binary(Service) ->
                   ets:member(pubsub_device_node, Node)
                       orelse write(#pubsub_device_node{node = Node, account = lists:last(Owners)}),
                   ok;
              (_, ok) -> ok
           end,
    ets:foldl(Note, ok, pubsub_node),
    count_each(nodes, pubsub_device_node, #pubsub_device_node.account),
    count_each(keys, pubsub_device_key, #pubsub_device_key.owner).

count_each(What, Table, Position) ->
    Add = fun(Record, Counts) ->
                  maps:update_with({What, element(Position, Record)}, fun(Count) -> Count + 1 end, 1, Counts)
          end,
    maps:foreach(fun(Who, Count) -> pubsub_device_tables:put(#pubsub_device_load{who = Who, load = Count}) end,
                 ets:foldl(Add, #{}, Table)).

workers() -> [].
%% Of a transaction with tables on disk and in memory, a process of mnesia's own logs afterwards whether it was carried
%% out. Without that record a start would undo it, so this waits until that process has come so far.
sync() ->
    mnesia_recover:sync(),
    mnesia:sync_log().
flush() -> tick().
tick() ->
    pubsub_device_traits:tick(),
    pubsub_device_bodies:tick().
sweep() -> pubsub_device_items:sweep().

%%% devices

saw_device(Device) ->
    Now = erlang:system_time(second),
    case ets:lookup(pubsub_device, Device) of
        [#pubsub_device{seen = Seen}] when Seen > Now - 60, Seen =< Now -> ok;
        [Known] -> write(Known#pubsub_device{seen = Now});
        [] -> new_device(Device, Now)
    end.

%% One process at a time adds a device to an account.
new_device(Device, Now) ->
    Account = case account_id(Device) of
                  none -> serial();
                  Known -> Known
              end,
    write(#pubsub_device{jid = Device, seen = Now, id = serial(), account = Account}).

account_id(Device) ->
    case some_device_id(setelement(3, Device, <<>>)) of
        [{_, Account}] -> Account;
        [] -> none
    end.

serial() ->
    together(fun() ->
                     case mnesia:is_transaction() of
                         false -> mnesia:dirty_update_counter(pubsub_device_serial, serial, 1);
                         true ->
                             Next = case mnesia:read(pubsub_device_serial, serial, write) of
                                        [#pubsub_device_serial{last = Last}] -> Last + 1;
                                        [] -> 1
                                    end,
                             mnesia:write(#pubsub_device_serial{what = serial, last = Next}),
                             Next
                     end
             end).

%% Devices of a version that had no serial numbers get theirs.
number_devices() ->
    Old = ets:select(pubsub_device, [{#pubsub_device{id = undefined, _ = '_'}, [], ['$_']}]),
    [new_device(Device, Seen) || #pubsub_device{jid = Device, seen = Seen} <- Old],
    ok.

is_device(Device) -> ets:member(pubsub_device, Device).

%% {DeviceId, AccountId}: a list of one, or none.
device_id(Device) ->
    [{Id, Account} || #pubsub_device{id = Id, account = Account} <- ets:lookup(pubsub_device, Device)].

%% The same for a device, or for any device of an account.
some_device_id({_, _, <<>>} = Account) ->
    case numbered(Account, ets:next(pubsub_device, Account)) of
        none -> [];
        Id -> [Id]
    end;
some_device_id(Device) ->
    device_id(Device).

numbered({User, Server, _} = Account, {User, Server, _} = Device) ->
    case device_id(Device) of
        [{Id, Number}] when Id /= undefined -> {Id, Number};
        _ -> numbered(Account, ets:next(pubsub_device, Device))
    end;
numbered(_, _) ->
    none.

devices_by_id() ->
    ets:foldl(fun(#pubsub_device{jid = Device, id = Id, account = Account}, Map) -> Map#{Id => {Device, Account}} end,
              #{}, pubsub_device).

account_ids() ->
    lists:usort(ets:select(pubsub_device, [{#pubsub_device{account = '$1', _ = '_'}, [], ['$1']}])).

devices({User, Server, _}) ->
    ets:select(pubsub_device, [{#pubsub_device{jid = {User, Server, '$1'}, _ = '_'}, [], [{{User, Server, '$1'}}]}]).

all_devices() ->
    ets:select(pubsub_device, [{#pubsub_device{jid = '$1', _ = '_'}, [], ['$1']}]).

seen(Device) ->
    [Seen || #pubsub_device{seen = Seen} <- ets:lookup(pubsub_device, Device)].

%% Forgets the device first, so that nothing more is kept for it while its copies go.
forget_device(Device) ->
    Ids = device_id(Device),
    delete(pubsub_device, Device),
    unmark_all(Device),
    spawn(fun() -> [pubsub_device_waiting:drop_device(Id) || {Id, _} <- Ids] end),
    ok.

%% The entry `none` distinguishes a node without remaining devices from one for which none was ever recorded.
unmark_all({User, Server, _} = Device) ->
    [begin
         mark(Node, none),
         delete(pubsub_device_mark, {Node, Device})
     end || #pubsub_device_key{node = Node}
                <- mnesia:dirty_index_read(pubsub_device_key, {User, Server, <<>>}, #pubsub_device_key.owner),
            ets:member(pubsub_device_mark, {Node, Device})],
    ok.

%%% key nodes

key_of(Node) ->
    case ets:lookup(pubsub_device_key, Node) of
        [#pubsub_device_key{key = Key, owner = Owner}] -> {Key, Owner};
        [] -> none
    end.

node_of(Key) ->
    case mnesia:dirty_index_read(pubsub_device_key, Key, #pubsub_device_key.key) of
        [#pubsub_device_key{node = Node, owner = Owner}] -> {Node, Owner};
        _ -> none
    end.

push_of(Node) ->
    case ets:lookup(pubsub_device_push, Node) of
        [#pubsub_device_push{web_push = WebPush, vapid = Vapid}] -> {WebPush, Vapid};
        [] -> {false, none}
    end.

put_key(Node, Key, Owner, {WebPush, Vapid} = Push) ->
    delete_key(Node),
    together(fun() ->
                     Push == {false, none}
                         orelse write(#pubsub_device_push{node = Node, web_push = WebPush, vapid = Vapid}),
                     write(#pubsub_device_key{node = Node, key = Key, owner = Owner}),
                     sum({keys, Owner}, 1)
             end).

delete_key(Node) ->
    together(fun() ->
                     [sum({keys, Owner}, -1) || {_, Owner} <- [key_of(Node)]],
                     delete(pubsub_device_key, Node),
                     ets:member(pubsub_device_push, Node) andalso delete(pubsub_device_push, Node),
                     [delete(pubsub_device_mark, {Node, Device}) || Device <- marks(Node)]
             end),
    ok.

%% There are few for a node, and a search in the whole table costs more.
marks(Node) -> marks(Node, ets:next(pubsub_device_mark, {Node, 0})).  % a number is less than every device

marks(Node, {Node, Device} = Id) -> [Device | marks(Node, ets:next(pubsub_device_mark, Id))];
marks(_, _) -> [].

mark(Node, Device) ->
    write(#pubsub_device_mark{id = {Node, Device}, since = erlang:system_time(second)}).

%%% creators of nodes

made(Node, Account) ->
    write(#pubsub_device_node{node = Node, account = Account}),
    sum({nodes, Account}, 1).

unmade(Node) ->
    case mnesia:read(pubsub_device_node, Node, write) of
        [#pubsub_device_node{account = Account}] ->
            delete(pubsub_device_node, Node),
            sum({nodes, Account}, -1);
        [] -> ok
    end.

sum(Who, Value) ->
    pubsub_device_sums:sum(Who, Value),
    ok.

counted(Who) -> pubsub_device_sums:load_of(Who).

%%% items

numbers(Shard) -> pubsub_device_numbers:numbers(Shard).
write(Publications, Numbers) -> pubsub_device_items:write(Publications, Numbers).
must_sync(Change) -> pubsub_device_items:must_sync(Change).
complete(Change) -> pubsub_device_items:complete(Change).
keep_last(Node, Device, Number, ItemId, Item) -> pubsub_device_items:keep_last(Node, Device, Number, ItemId, Item).
last_item(Node) -> pubsub_device_numbers:last_item(Node).
forget_node(Node, Id) -> pubsub_device_items:forget_node(Node, Id).

acknowledged(Node, Device, Number, Done) ->
    drop(Node, Device, Number),
    Done(newest(Node, Device) /= none).

drop(Node, Device, Number) -> pubsub_device_waiting:drop(Node, Device, Number).
waits(Node, Number, ItemId) -> pubsub_device_traits:waits(pubsub_device_tree:known(Node), Number, ItemId).
take_back(Node, Number, ItemId) -> pubsub_device_traits:take_back(pubsub_device_tree:known(Node), Number, ItemId).
relieve(Room) -> pubsub_device_waiting:relieve(Room).
next(Node, Device, Above, Least) -> pubsub_device_reading:next(Node, Device, Above, Least).
newest(Node, Device) -> pubsub_device_reading:newest(Node, Device).
nodes_for(Device) -> pubsub_device_reading:nodes_for(Device).
each_queue(Fun) -> pubsub_device_reading:each_queue(Fun).
count(Node, Device) -> pubsub_device_reading:count(Node, Device).
counts(Nodes, Device) -> [count(Node, Device) || Node <- Nodes].
oldest(Device) -> pubsub_device_reading:oldest_of(Device).
load(Who) -> pubsub_device_sums:load(Who).
total() -> pubsub_device_sums:total().
totals() -> pubsub_device_sums:totals().
next_device(Before) -> pubsub_device_sums:next_device(Before).
