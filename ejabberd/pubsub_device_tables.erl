%% SPDX-License-Identifier: GPL-3.0-only
%% Reads and writes of the extension's mnesia tables. A server without a running cluster changes tables in memory
%% directly and writes those on disk without a transaction: the changes of one key are made by one process, or are
%% atomic (take/2, add/4). With other members the same changes are made in transactions.
-module(pubsub_device_tables).

-export([create/5, alone/0, together/1, write/1, delete/2, delete_object/1, put/1, remove/2, take/2, add/4]).
-export([read/2, next/3]).

%% Tables in memory are changed by many processes at once.
-define(CONCURRENT, {storage_properties, [{ets, [{read_concurrency, true}, {write_concurrency, true}]}]}).

create(Name, Storage, Type, Fields, More) ->
    Concurrent = [?CONCURRENT || Storage == ram_copies],
    {atomic, ok} = ejabberd_mnesia:create(?MODULE, Name, [{Storage, [node()]}, {type, Type}, {attributes, Fields}
                                                          | Concurrent ++ More]),
    ok.

%% Whether no other member of the cluster runs. A starting member is counted before it copies any table.
alone() ->
    mnesia:system_info(running_db_nodes) == [node()].

together(Fun) ->
    case alone() orelse mnesia:is_transaction() of
        true -> Fun();
        false -> {atomic, Result} = mnesia:sync_transaction(Fun), Result
    end.

%%% tables on disk

write(Record) ->
    case mnesia:is_transaction() of
        true -> mnesia:write(Record);
        false -> mnesia:sync_dirty(fun() -> mnesia:write(Record) end)
    end.

delete(Table, Key) ->
    case mnesia:is_transaction() of
        true -> mnesia:delete({Table, Key});
        false -> mnesia:sync_dirty(fun() -> mnesia:delete({Table, Key}) end)
    end.

%% Only if the record is as given.
delete_object(Record) ->
    mnesia:sync_dirty(fun() -> mnesia:delete_object(Record) end).

%%% tables in memory

put(Record) ->
    case mnesia:is_transaction() of
        true -> mnesia:write(Record);
        false -> ets:insert(element(1, Record), Record)
    end,
    ok.

remove(Table, Key) ->
    case mnesia:is_transaction() of
        true -> mnesia:delete({Table, Key});
        false -> ets:delete(Table, Key)
    end,
    ok.

%% Takes the record out: of several processes at once, one gets it.
take(Table, Key) ->
    case mnesia:is_transaction() of
        true ->
            Found = mnesia:read(Table, Key, write),
            Found == [] orelse mnesia:delete({Table, Key}),
            Found;
        false -> ets:take(Table, Key)
    end.

%% Adds to the third element, a number; without a record `Default` is changed. The record of zero is removed. Returns
%% the sum.
add(Table, Key, Value, Default) ->
    case mnesia:is_transaction() of
        true ->
            Record = case mnesia:read(Table, Key, write) of
                         [Found] -> Found;
                         [] -> Default
                     end,
            case max(0, element(3, Record) + Value) of
                0 -> mnesia:delete({Table, Key}), 0;
                Sum -> mnesia:write(setelement(3, Record, Sum)), Sum
            end;
        false ->
            case ets:update_counter(Table, Key, {3, Value}, Default) of
                0 -> ets:delete_object(Table, setelement(3, Default, 0)), 0;
                Sum -> Sum
            end
    end.

%% The record, as a list. In a transaction its own changes count, and no other process changes the record until it ends.
read(Table, Key) ->
    case mnesia:is_transaction() of
        true -> mnesia:read(Table, Key, write);
        false -> ets:lookup(Table, Key)
    end.

%% The next key of an ordered table, or `none` if IsMine(Key) is false for it. In a transaction its own changes count:
%% records that it took out are passed over, and those that it added are looked for only if no other is left, since
%% that locks the whole table.
next(Table, Key, IsMine) ->
    case mnesia:is_transaction() of
        true ->
            case left(Table, Key, IsMine) of
                none -> mine(mnesia:next(Table, Key), IsMine);
                Left -> Left
            end;
        false -> mine(ets:next(Table, Key), IsMine)
    end.

left(Table, Key, IsMine) ->
    case mine(ets:next(Table, Key), IsMine) of
        none -> none;
        Next ->
            case mnesia:read(Table, Next, write) of
                [] -> left(Table, Next, IsMine);
                _ -> Next
            end
    end.

mine('$end_of_table', _) -> none;
mine(Key, IsMine) ->
    case IsMine(Key) of
        true -> Key;
        false -> none
    end.
