%% SPDX-License-Identifier: GPL-3.0-only
%% The tables: devices, sessions, keys, numbers and kept copies. Only the node's writer changes its numbers and adds
%% copies, so on a server without a cluster this needs no transaction. Writes wait for every member of a cluster
%% (sync_dirty); pubsub_device_commit waits until they are on disk.
-module(pubsub_device_store).

-export([init/0, together/1]).
-export([saw_device/1, is_device/1, devices/1, all_devices/0, seen/1, forget_device/1]).
-export([attach/2, detach/2, session/1, sessions/0, forget_session/1]).
-export([activate/3, deactivate/2, is_active/3, stale_activations/0]).
-export([key_of/1, node_of/1, put_key/3, delete_key/1]).
-export([marks/1, mark/2, unmark_all/1, made/2, unmade/1, counted/1]).
-export([last_number/2, last_item/1, put_number/3, retire_number/2]).
-export([keep/6, bytes/1, drop/3, drop_all/2, next/3, newest/2, is_kept/3, nodes_for/1, devices_for/1, pairs/0]).
-export([count/2, load/1, oldest/1, miscounted/1, miscounted/2, accounts/0]).
-export([totals/0, next_holder/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").
-include("pubsub_device.hrl").

%% The cost of a copy without text: its record, its entries in the other tables, and their share of the log.
-define(RECORD_BYTES, 1000).

init() ->
    table(pubsub_device, disc_copies, ordered_set, record_info(fields, pubsub_device), []),
    table(pubsub_device_session, ram_copies, set, record_info(fields, pubsub_device_session), []),
    table(pubsub_device_active, ram_copies, ordered_set, record_info(fields, pubsub_device_active), []),
    table(pubsub_device_key, disc_copies, set, record_info(fields, pubsub_device_key),
          [{index, [key, owner]}]),
    table(pubsub_device_mark, disc_copies, ordered_set, record_info(fields, pubsub_device_mark), []),
    table(pubsub_device_node, disc_copies, set, record_info(fields, pubsub_device_node), []),
    table(pubsub_device_number, disc_copies, set, record_info(fields, pubsub_device_number), []),
    table(pubsub_device_copy, disc_copies, ordered_set, record_info(fields, pubsub_device_copy), []),
    table(pubsub_device_pair, ram_copies, ordered_set, record_info(fields, pubsub_device_pair), []),
    table(pubsub_device_age, ram_copies, ordered_set, record_info(fields, pubsub_device_age), []),
    table(pubsub_device_load, ram_copies, set, record_info(fields, pubsub_device_load), []),
    count_copies(mnesia:dirty_first(pubsub_device_pair)),
    mnesia:system_info(running_db_nodes) == [node()] andalso alone().

alone() ->
    keep_items_in_memory(),
    count_nodes().

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

table(Name, Storage, Type, Fields, More) ->
    {atomic, ok} = ejabberd_mnesia:create(?MODULE, Name,
                                          [{Storage, [node()]}, {type, Type}, {attributes, Fields} | More]).

%% The data on disk is counted at start. A member that joins a running cluster gets the existing counts.
count_copies('$end_of_table') ->
    Add = fun(#pubsub_device_copy{id = {Node, Device, Number}, item = Item}, {Pairs, Loads}) ->
                  Bytes = bytes(Item),
                  index(Node, Device, Number, Bytes),
                  {plus({Device, Node}, 1, Pairs),
                   plus(Device, one_copy(Bytes), plus(account(Device), one_copy(Bytes), Loads))}
          end,
    {Pairs, Loads} = mnesia:activity(async_dirty, fun() -> mnesia:foldl(Add, {#{}, #{}}, pubsub_device_copy) end),
    maps:foreach(fun(Id, Count) -> write(#pubsub_device_pair{id = Id, count = Count}) end, Pairs),
    maps:foreach(fun(Who, Load) -> write(#pubsub_device_load{who = Who, load = Load}) end, Loads);
count_copies(_) ->
    ok.

%% Where the creator of a node is not recorded, it is the first owner; later owners are listed before it.
count_nodes() ->
    Note = fun(#pubsub_node{nodeid = {Service, _} = Node, owners = [_ | _] = Owners}, ok) when is_binary(Service) ->
                   mnesia:dirty_read(pubsub_device_node, Node) == []
                       andalso write(#pubsub_device_node{node = Node, account = lists:last(Owners)}),
                   ok;
              (_, ok) -> ok
           end,
    mnesia:activity(async_dirty, fun() -> mnesia:foldl(Note, ok, pubsub_node) end),
    count_each(nodes, pubsub_device_node, #pubsub_device_node.account),
    count_each(keys, pubsub_device_key, #pubsub_device_key.owner).

count_each(What, Table, Position) ->
    Add = fun(Record, Counts) -> plus({What, element(Position, Record)}, 1, Counts) end,
    Counts = mnesia:activity(async_dirty, fun() -> mnesia:foldl(Add, #{}, Table) end),
    maps:foreach(fun(Who, Count) -> write(#pubsub_device_load{who = Who, load = Count}) end, Counts).

plus(Key, Value, Map) -> maps:update_with(Key, fun(Old) -> Old + Value end, Value, Map).

account({User, Server, _}) -> {User, Server, <<>>}.

write(Record) -> act(fun() -> mnesia:write(Record) end).
delete(Table, Key) -> act(fun() -> mnesia:delete({Table, Key}) end).

act(Fun) ->
    case mnesia:is_transaction() of
        true -> Fun();
        false -> mnesia:sync_dirty(Fun)
    end.

%% In a cluster two members may both act as a node's writer for a short time. There, a number and its copies are
%% written in one transaction, so the next number is assigned only when they are in the store.
together(Fun) ->
    case mnesia:system_info(db_nodes) of
        [_] -> Fun();
        _ -> {atomic, Result} = mnesia:sync_transaction(Fun), Result
    end.

%%% devices

%% Accurate to a minute, so that a client that announces itself often causes no writes.
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

%% Only if it is still the ending session: in a resource conflict the old session is closed after the new one has
%% announced itself.
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

put_key(Node, Key, Owner) ->
    delete_key(Node),
    together(fun() ->
                     write(#pubsub_device_key{node = Node, key = Key, owner = Owner}),
                     add(pubsub_device_load, {keys, Owner}, 1)
             end).

%% The records of its devices are removed with the key.
delete_key(Node) ->
    together(fun() ->
                     [add(pubsub_device_load, {keys, Owner}, -1) || {_, Owner} <- [key_of(Node)]],
                     delete(pubsub_device_key, Node),
                     [delete(pubsub_device_mark, {Node, Device}) || Device <- marks(Node)]
             end),
    ok.

%%% devices and creators of nodes

%% The devices that created or activated the key node, and `none` when one of them was forgotten.
marks(Node) ->
    mnesia:dirty_select(pubsub_device_mark, [{#pubsub_device_mark{id = {Node, '$1'}, _ = '_'}, [], ['$1']}]).

mark(Node, Device) ->
    write(#pubsub_device_mark{id = {Node, Device}, since = erlang:system_time(second)}).

%% Forgets the device. The entry `none` distinguishes a node without remaining devices from one for which none was
%% ever recorded.
unmark_all({User, Server, _} = Device) ->
    [begin
         mark(Node, none),
         delete(pubsub_device_mark, {Node, Device})
     end || #pubsub_device_key{node = Node}
                <- mnesia:dirty_index_read(pubsub_device_key, {User, Server, <<>>}, #pubsub_device_key.owner),
            mnesia:dirty_read(pubsub_device_mark, {Node, Device}) /= []],
    ok.

%% Both run in the transaction that creates or deletes the node.
made(Node, Account) ->
    write(#pubsub_device_node{node = Node, account = Account}),
    add(pubsub_device_load, {nodes, Account}, 1).

unmade(Node) ->
    case mnesia:read(pubsub_device_node, Node, write) of
        [#pubsub_device_node{account = Account}] ->
            delete(pubsub_device_node, Node),
            add(pubsub_device_load, {nodes, Account}, -1);
        [] -> ok
    end.

%% How many nodes or keys an account has. In a transaction the count cannot change until the transaction ends.
counted(Who) ->
    Found = case mnesia:is_transaction() of
                true -> mnesia:read(pubsub_device_load, Who, write);
                false -> mnesia:dirty_read(pubsub_device_load, Who)
            end,
    lists:sum([Load || #pubsub_device_load{load = Load} <- Found]).

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

%% The node is deleted; its number is kept in the floor. The floor is written first, so a crash between the two writes
%% loses nothing.
retire_number(Node, Shard) ->
    case mnesia:dirty_read(pubsub_device_number, Node) of
        [#pubsub_device_number{last = Last}] ->
            Floor = max(Last, floor_of(Shard)),
            write(#pubsub_device_number{node = {floor, Shard, node()}, last = Floor, item = none}),
            delete(pubsub_device_number, Node);
        [] -> ok
    end.

%% Each member of a cluster writes a floor of its own, so that members cannot overwrite each other's floor with a
%% lower one.
floor_of(Shard) ->
    lists:max([0 | [Last || Member <- mnesia:system_info(db_nodes),
                            #pubsub_device_number{last = Last}
                                <- mnesia:dirty_read(pubsub_device_number, {floor, Shard, Member})]]).

%%% kept copies

%% The entries by age are written last: a process that drops copies looks for these, so it does not find an incomplete
%% copy.
keep(Node, Device, Number, ItemId, Via, Item) ->
    Bytes = bytes(Item),
    add(pubsub_device_pair, {Device, Node}, 1),
    [add(pubsub_device_load, Who, one_copy(Bytes)) || Who <- [Device, account(Device)]],
    write(#pubsub_device_copy{id = {Node, Device, Number}, item_id = ItemId, via = Via, item = Item,
                              at = erlang:system_time(second)}),
    index(Node, Device, Number, Bytes).

index(Node, Device, Number, Bytes) ->
    [write(#pubsub_device_age{id = {Who, Number, Node, Device}, bytes = Bytes}) || Who <- [Device, account(Device)]],
    ok.

%% Any process may drop any copy, and two may try at once: the one that takes the copy's token drops it and decrements
%% the counts. Returns whether it was this one.
drop(Node, Device, Number) ->
    together(fun() -> drop_now(Node, Device, Number) end).

drop_now(Node, Device, Number) ->
    Token = {Device, Number, Node, Device},
    Dropped = case take(Token) of
                  [#pubsub_device_age{bytes = Bytes}] ->
                      delete(pubsub_device_copy, {Node, Device, Number}),
                      add(pubsub_device_pair, {Device, Node}, -1),
                      [add(pubsub_device_load, Who, -one_copy(Bytes)) || Who <- [Device, account(Device)]],
                      true;
                  [] -> false
              end,
    %% Also without the token, so that a process that was too late leaves no entry without a copy.
    delete(pubsub_device_age, setelement(1, Token, account(Device))),
    Dropped.

take(Token) ->
    case mnesia:is_transaction() of
        true ->
            Found = mnesia:read(pubsub_device_age, Token, write),
            Found == [] orelse mnesia:delete({pubsub_device_age, Token}),
            Found;
        %% Without a cluster the table is a plain ETS table, where take is atomic.
        false -> ets:take(pubsub_device_age, Token)
    end.

%% The cost of a copy: its text and its records.
bytes(Item) -> ?RECORD_BYTES + text_bytes(Item).

text_bytes({xmlcdata, Text}) -> byte_size(Text);
text_bytes(#xmlel{name = Name, attrs = Attributes, children = Children}) ->
    byte_size(Name) + lists:sum([byte_size(Key) + byte_size(Value) || {Key, Value} <- Attributes])
        + lists:sum([text_bytes(Child) || Child <- Children]).

one_copy(Bytes) -> (1 bsl ?BYTES_BITS) + Bytes.

%% Several processes count for one device at once. Without a cluster the counter is changed atomically; in a cluster
%% the transaction locks it.
add(Table, Key, Value) ->
    case mnesia:is_transaction() of
        true ->
            Before = case mnesia:read(Table, Key, write) of
                         [Record] -> element(3, Record);
                         [] -> 0
                     end,
            case max(0, Before + Value) of
                0 -> mnesia:delete({Table, Key});
                After -> mnesia:write({Table, Key, After})
            end;
        false ->
            case mnesia:dirty_update_counter(Table, Key, Value) of
                0 -> mnesia:dirty_delete_object({Table, Key, 0});
                _ -> ok
            end
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
    case mnesia:dirty_prev(pubsub_device_copy, {Node, Device, infinity}) of  % an atom is greater than every number
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

%% The devices for which copies of a node are kept; reads one key for each device.
devices_for(Node) ->
    devices_for(Node, mnesia:dirty_next(pubsub_device_copy, {Node, 0, 0})).  % a number is less than every device

devices_for(Node, {Node, Device, _}) ->
    [Device | devices_for(Node, mnesia:dirty_next(pubsub_device_copy, {Node, Device, infinity}))];
devices_for(_, _) ->
    [].

pairs() ->
    mnesia:dirty_all_keys(pubsub_device_pair).

%% Number and bytes of the copies kept for a device or an account.
load(Who) ->
    case mnesia:dirty_read(pubsub_device_load, Who) of
        [#pubsub_device_load{load = Load}] -> {Load bsr ?BYTES_BITS, bytes_of(Load)};
        [] -> {0, 0}
    end.

%% The oldest copy of a device or an account.
oldest(Who) ->
    case mnesia:dirty_next(pubsub_device_age, {Who, 0, 0, 0}) of
        {Who, Number, Node, Device} -> {Node, Device, Number};
        _ -> none
    end.

%% There is no copy although the count is not zero: a process ended between counting and writing.
miscounted(Who) -> delete(pubsub_device_load, Who).
miscounted(Node, Device) -> delete(pubsub_device_pair, {Device, Node}).

%% The bytes kept for each account.
accounts() ->
    Loads = mnesia:dirty_select(pubsub_device_load,
                                [{#pubsub_device_load{who = {'$1', '$2', <<>>}, load = '$3'}, [],
                                  [{{{{'$1', '$2', <<>>}}, '$3'}}]}]),
    [{Account, bytes_of(Load)} || {Account, Load} <- Loads].

bytes_of(Load) -> Load band ((1 bsl ?BYTES_BITS) - 1).

%%% what an operator sees

%% How much there is of each, without counting.
totals() ->
    [{What, mnesia:table_info(Table, size)} || {What, Table} <- [{sessions, pubsub_device_session},
                                                                 {devices, pubsub_device},
                                                                 {nodes, pubsub_device_node},
                                                                 {key_nodes, pubsub_device_key},
                                                                 {kept_items, pubsub_device_copy}]].

%% The device or account after `Who` in their order for which something is kept, with its oldest copy's number; the
%% first one after `none`.
next_holder(Who) ->
    From = case Who of
               none -> {0, 0, 0, 0};  % a number is less than every tuple, and than every atom
               _ -> {Who, infinity, 0, 0}
           end,
    case mnesia:dirty_next(pubsub_device_age, From) of
        {Next, Number, _, _} -> {Next, Number};
        '$end_of_table' -> none
    end.
