%% SPDX-License-Identifier: GPL-3.0-only
%% The kept items in mnesia. An item is stored once, as a body with the devices that it is for. What each device has
%% taken is not written for each item: a body is deleted with its last device, and for a body that others still wait
%% for, a cursor for each node and device is written about every second (tick/0). After a crash a device may therefore
%% get items again that it acknowledged in the last second.
%%
%% Nodes are identified by the engine's ids, which are never used again, devices and accounts by serial numbers. What
%% is looked up while publishing is in memory: the waiting items of each device, their order by age, and the sums.
-module(pubsub_device_items).

-export([init/0, flush/0, tick/0, sweep/0]).
-export([numbers/1, write/2, must_sync/1, complete/1, keep_last/5, last_item/1, forget_node/2]).
-export([drop/3, drop_device/1, next/3, newest/2, nodes_for/1, each_queue/1]).
-export([count/2, oldest_of/1, load/1, total/0, kept/0, relieve/1]).
-export([put_body/5, put_floor/2, bytes/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").
-include("pubsub_device_mnesia.hrl").

-import(pubsub_device_tables, [together/1, put/1, remove/2, take/2, add/4]).

%% On disk: id = {NodeId, Number}; `devices` is [{DeviceId, Via}].
-record(pubsub_device_body, {id, item_id, item, at, devices}).

%% On disk: id = {NodeId, DeviceId}; the device has no waiting item of the node up to the number `floor`.
-record(pubsub_device_cursor, {id, floor}).

%% On disk: the newest number of a node and the item that has it, for nodes whose items the engine stores and, in a
%% cluster, for all. node = {floor, Shard, Member}: all numbers that the shard's writer on the member gave are up to
%% `last`, which is written ahead of time.
-record(pubsub_device_number, {node, last, item}).

%% In memory: id = {DeviceId, NodeId, Number}; a waiting item. Who takes out this record drops the copy.
-record(pubsub_device_waiting, {id, account, via, bytes}).

%% In memory: id = {Who, Number, NodeId, DeviceId}, for each waiting item once with the device and once with its account
%% as `Who`. The first of each is the oldest.
-record(pubsub_device_oldest, {id, none}).

%% In memory: id = {DeviceId, NodeId}; how many items of the node wait for the device.
-record(pubsub_device_queue, {id, count, node, device}).

%% In memory: id = {NodeId, Number}; for how many devices a body is, if it is for several.
-record(pubsub_device_share, {id, count}).

%% In memory, each member its own: id = {NodeId, DeviceId}; the device has taken an item of the number `taken`, and its
%% cursor has not followed yet.
-record(pubsub_device_lagging, {id, taken}).

-record(numbers, {shard, last = 0, reserved = 0, members = []}).

%% The cost of a copy without text: its record, its entries in the other tables, and their share of the log.
-define(RECORD_BYTES, 1000).

%% How far ahead of the last number, in microseconds, the floor is written.
-define(RESERVE, 1000000).

%%% start and regular work

init() ->
    Create = fun pubsub_device_tables:create/5,
    Create(pubsub_device_body, disc_copies, ordered_set, record_info(fields, pubsub_device_body), []),
    Create(pubsub_device_cursor, disc_copies, ordered_set, record_info(fields, pubsub_device_cursor), []),
    Create(pubsub_device_number, disc_copies, set, record_info(fields, pubsub_device_number), []),
    Create(pubsub_device_waiting, ram_copies, ordered_set, record_info(fields, pubsub_device_waiting), []),
    Create(pubsub_device_oldest, ram_copies, ordered_set, record_info(fields, pubsub_device_oldest), []),
    Create(pubsub_device_queue, ram_copies, ordered_set, record_info(fields, pubsub_device_queue), []),
    Create(pubsub_device_share, ram_copies, set, record_info(fields, pubsub_device_share), []),
    Create(pubsub_device_lagging, ram_copies, set, record_info(fields, pubsub_device_lagging), [{local_content, true}]),
    pubsub_device_old:convert(),
    global:trans({?MODULE, self()}, fun load_copies/0, pubsub_device_commit:members()).

%% The data on disk is counted at start. A member that joins a running cluster gets the existing entries.
load_copies() ->
    ets:first(pubsub_device_queue) == '$end_of_table'
        andalso load_bodies(ets:first(pubsub_device_body), pubsub_device_tree:by_id(),
                            pubsub_device_mnesia:devices_by_id()),
    ok.

load_bodies('$end_of_table', _, _) ->
    ok;
load_bodies({NodeId, Number} = Id, Nodes, Devices) ->
    [#pubsub_device_body{item = Item, devices = For}] = ets:lookup(pubsub_device_body, Id),
    Waiting = [{Device, DeviceId, Account, Via}
               || is_map_key(NodeId, Nodes), {DeviceId, Via} <- For, is_map_key(DeviceId, Devices),
                  Number > floor_of(NodeId, DeviceId), {Device, Account} <- [maps:get(DeviceId, Devices)]],
    case Waiting of
        [] -> pubsub_device_tables:delete(pubsub_device_body, Id);
        _ -> together(fun() -> wait(maps:get(NodeId, Nodes), NodeId, Number, bytes(Item), Waiting) end)
    end,
    load_bodies(ets:next(pubsub_device_body, Id), Nodes, Devices).

floor_of(NodeId, DeviceId) ->
    case ets:lookup(pubsub_device_cursor, {NodeId, DeviceId}) of
        [#pubsub_device_cursor{floor = Floor}] -> Floor;
        [] -> 0
    end.

%% Writes the cursors of devices that took a shared item, if there is still one up to there.
tick() ->
    Followed = [true || Lagging <- ets:tab2list(pubsub_device_lagging), follow(Lagging) == ok],
    Followed == [] orelse pubsub_device_mnesia:sync(),
    ok.

follow(#pubsub_device_lagging{id = {NodeId, DeviceId}, taken = Taken} = Lagging) ->
    ets:delete_object(pubsub_device_lagging, Lagging),
    Floor = case first(DeviceId, NodeId) of
                none -> Taken;
                First -> First - 1
            end,
    Floor > floor_of(NodeId, DeviceId) andalso first_body(NodeId) =< Floor
        andalso mnesia:dirty_write(#pubsub_device_cursor{id = {NodeId, DeviceId}, floor = Floor}).

%% The lowest number of the node's bodies; an atom, which is greater than every number, when there is none.
first_body(NodeId) ->
    case ets:next(pubsub_device_body, {NodeId, 0}) of
        {NodeId, Number} -> Number;
        _ -> none
    end.

flush() ->
    tick().

%% Removes cursors that no body needs any more, and what a crash left of a deleted node.
sweep() ->
    sweep_cursors(ets:first(pubsub_device_cursor)),
    sweep_queues(ets:first(pubsub_device_queue)).

sweep_cursors('$end_of_table') ->
    ok;
sweep_cursors({NodeId, DeviceId} = Id) ->
    first_body(NodeId) =< floor_of(NodeId, DeviceId) orelse delete_cursor(Id),
    sweep_cursors(ets:next(pubsub_device_cursor, Id)).

delete_cursor(Id) ->
    mnesia:dirty_delete(pubsub_device_cursor, Id).

sweep_queues('$end_of_table') ->
    ok;
sweep_queues({_, NodeId} = Id) ->
    case ets:lookup(pubsub_device_queue, Id) of
        [#pubsub_device_queue{node = Node}] -> pubsub_device_tree:known(Node) == NodeId orelse forget_id(NodeId);
        [] -> ok
    end,
    sweep_queues(ets:next(pubsub_device_queue, Id)).

%%% numbers

%% Alone, numbers ascend within a shard, so none is stored for a node. A floor is written ahead of them.
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

reserve(#numbers{last = Last, reserved = Reserved} = Numbers) when Last =< Reserved ->
    Numbers;
reserve(#numbers{shard = Shard, last = Last} = Numbers) ->
    put_floor(Shard, Last + ?RESERVE),
    Numbers#numbers{reserved = Last + ?RESERVE}.

put_floor(Shard, Floor) ->
    pubsub_device_tables:write(#pubsub_device_number{node = {floor, Shard, node()}, last = Floor, item = none}).

last_item(Node) ->
    case ets:lookup(pubsub_device_number, Node) of
        [#pubsub_device_number{last = Last, item = Item}] -> {Last, Item};
        [] -> none
    end.

%%% publishing

%% The change is what complete/1 still has to do.
write(Publications, Before) ->
    Numbers = current(Before),
    case pubsub_device_tables:alone() of
        true ->
            {Written, After} = lists:mapfoldl(fun number/2, Numbers, Publications),
            Reserved = reserve(After),
            mnesia:async_dirty(fun() -> lists:foreach(fun store/1, Written) end),
            {[outcome(Each) || Each <- Written], {Written, After /= Reserved}, Reserved};
        false ->
            {Written, After} = together(fun() -> write_together(Publications, Numbers) end),
            {[outcome(Each) || Each <- Written], {[], true}, After}
    end.

write_together(Publications, Numbers) ->
    {Written, After} = lists:mapfoldl(fun number/2, Numbers, Publications),
    lists:foreach(fun store/1, Written),
    lists:foreach(fun finish/1, Written),
    {Written, reserve(After)}.

%% {Publication, Number, NodeId, Devices}, or `gone`.
number(#publication{node = Node, id = Id, item_id = ItemId, item = Item, keep = Keep} = Publication, Numbers) ->
    case pubsub_device_tree:id(Node) of
        NodeId when NodeId /= none, Id == any orelse NodeId == Id ->
            {Number, After} = next_number(Node, Numbers),
            Devices = [{Device, DeviceId, Account, Via}
                       || {Device, Via} <- Keep, pubsub_device_bounds:fits(Node, Device, Number, bytes(Item)),
                          {DeviceId, Account} <- pubsub_device_mnesia:device_id(Device)],
            (Publication#publication.engine orelse mnesia:is_transaction())
                andalso pubsub_device_tables:write(#pubsub_device_number{node = Node, last = Number, item = ItemId}),
            {{Publication, Number, NodeId, Devices}, After};
        _ -> {gone, Numbers}
    end.

outcome(gone) -> gone;
outcome({_, Number, _, _}) -> {ok, Number}.

store({#publication{item_id = ItemId, item = Item}, Number, NodeId, [_ | _] = Devices}) ->
    mnesia:write(#pubsub_device_body{id = {NodeId, Number}, item_id = ItemId, item = Item,
                                     at = erlang:system_time(second),
                                     devices = [{DeviceId, Via} || {_, DeviceId, _, Via} <- Devices]});
store(_) ->
    ok.

must_sync({Written, Changed}) ->
    Changed orelse lists:any(fun({#publication{engine = Engine}, _, _, Devices}) -> Engine orelse Devices /= [];
                                (gone) -> false
                             end, Written).

complete({Written, _}) ->
    lists:foreach(fun finish/1, Written).

finish({#publication{node = Node, item = Item}, Number, NodeId, [_ | _] = Devices}) ->
    wait(Node, NodeId, Number, bytes(Item), Devices);
finish(_) ->
    ok.

%%% waiting items

%% Each copy is counted before older ones are dropped for it, and added after that: no bound is ever exceeded by what
%% can be read.
wait(Node, NodeId, Number, Bytes, Devices) ->
    Limits = pubsub_device_bounds:limits(),
    case Devices of
        [_] -> ok;
        _ -> put(#pubsub_device_share{id = {NodeId, Number}, count = length(Devices)})
    end,
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

shrink_queue(DeviceId, NodeId, Max) ->
    case ets:lookup(pubsub_device_queue, {DeviceId, NodeId}) of
        [#pubsub_device_queue{count = Count}] when Count > Max ->
            case first(DeviceId, NodeId) of
                none -> ok;
                Number -> drop_oldest(DeviceId, NodeId, Number, node), shrink_queue(DeviceId, NodeId, Max)
            end;
        _ -> ok
    end.

%% An atom is greater than every number. The copies that other writers have counted, but not added yet, are not found.
shrink(Who, Max, MaxBytes, Why) ->
    case exceeds(load_of(Who), Max, MaxBytes) of
        true ->
            case oldest(Who) of
                {_, Number, NodeId, DeviceId} = Id ->
                    drop_oldest(DeviceId, NodeId, Number, Why) orelse remove(pubsub_device_oldest, Id),
                    shrink(Who, Max, MaxBytes, Why);
                none -> ok
            end;
        false -> ok
    end.

exceeds(Load, Max, MaxBytes) ->
    Load bsr ?BYTES_BITS > Max orelse bytes_of(Load) > MaxBytes.

oldest(Who) ->
    case in_order(pubsub_device_oldest, {Who, 0, 0, 0}) of
        {Who, _, _, _} = Id -> Id;
        _ -> none
    end.

first(DeviceId, NodeId) ->
    case in_order(pubsub_device_waiting, {DeviceId, NodeId, 0}) of
        {DeviceId, NodeId, Number} -> Number;
        _ -> none
    end.

%% In a transaction its own changes count.
in_order(Table, Key) ->
    case mnesia:is_transaction() of
        true -> mnesia:next(Table, Key);
        false -> ets:next(Table, Key)
    end.

drop_oldest(DeviceId, NodeId, Number, Why) ->
    Queue = ets:lookup(pubsub_device_queue, {DeviceId, NodeId}),
    Dropped = drop_id(DeviceId, NodeId, Number),
    [pubsub_device_bounds:dropped(Node, Device, Number, Why)
     || Dropped, #pubsub_device_queue{node = Node, device = Device} <- Queue],
    Dropped.

%% Any process may drop any copy, and two may try at once: one of them takes it out and changes the counts. Returns
%% whether it was this one.
drop(Node, Device, Number) ->
    case ids(Node, Device) of
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
            release(NodeId, Number, DeviceId),
            true;
        [] -> false
    end.

%% The record of an empty queue is removed; it has to be known for that.
uncount_queue(Id) ->
    case ets:lookup(pubsub_device_queue, Id) of
        [Queue] -> add(pubsub_device_queue, Id, -1, Queue);
        [] -> mnesia:is_transaction() andalso add(pubsub_device_queue, Id, -1, #pubsub_device_queue{id = Id, count = 0})
    end.

%% The last device releases the body.
release(NodeId, Number, DeviceId) ->
    Id = {NodeId, Number},
    case add(pubsub_device_share, Id, -1, #pubsub_device_share{id = Id, count = 1}) of
        0 ->
            case mnesia:is_transaction() of
                true -> mnesia:delete({pubsub_device_body, Id});
                false -> mnesia:dirty_delete(pubsub_device_body, Id)
            end;
        _ -> lag({NodeId, DeviceId}, Number)
    end.

%% Two processes may note a number at once; the lower one does no harm, since the cursor then follows later.
lag(Id, Number) ->
    case ets:lookup(pubsub_device_lagging, Id) of
        [#pubsub_device_lagging{taken = Taken}] when Taken >= Number -> ok;
        _ -> ets:insert(pubsub_device_lagging, #pubsub_device_lagging{id = Id, taken = Number}), ok
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

%% Adds the device to the item's body, or makes the body again.
keep_last(Node, Device, Number, ItemId, Item) ->
    case {last_item(Node), ids(Node, Device), newest(Node, Device)} of
        {{Number, ItemId}, {NodeId, DeviceId}, Newest} when Newest == none; element(1, Newest) < Number ->
            pubsub_device_bounds:fits(Node, Device, Number, bytes(Item))
                andalso together(fun() -> add_device(Node, NodeId, Device, DeviceId, Number, ItemId, Item) end);
        _ -> false
    end.

add_device(Node, NodeId, Device, DeviceId, Number, ItemId, Item) ->
    [{DeviceId, Account}] = pubsub_device_mnesia:device_id(Device),
    floor_of(NodeId, DeviceId) >= Number
        andalso pubsub_device_tables:write(#pubsub_device_cursor{id = {NodeId, DeviceId}, floor = Number - 1}),
    Put = fun() -> put_body(NodeId, Number, {ItemId, Item, erlang:system_time(second)}, DeviceId, subscription) end,
    Put(),
    share(NodeId, Number, DeviceId),
    wait(Node, NodeId, Number, bytes(Item), [{Device, DeviceId, Account, subscription}]),
    %% The only other device may have taken the item, and deleted the body, in the meantime.
    case ets:member(pubsub_device_body, {NodeId, Number}) of
        true -> ok;
        false -> Put(), remove(pubsub_device_share, {NodeId, Number})
    end,
    true.

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

%% Writes the body for one more device.
put_body(NodeId, Number, {ItemId, Item, At}, DeviceId, Via) ->
    Body = case ets:lookup(pubsub_device_body, {NodeId, Number}) of
               [Found] -> Found;
               [] -> #pubsub_device_body{id = {NodeId, Number}, item_id = ItemId, item = Item, at = At, devices = []}
           end,
    Devices = lists:keystore(DeviceId, 1, Body#pubsub_device_body.devices, {DeviceId, Via}),
    pubsub_device_tables:write(Body#pubsub_device_body{devices = Devices}).

%%% deleted nodes

forget_node(Node, Id) ->
    pubsub_device_tables:delete(pubsub_device_number, Node),
    forget_id(case Id of
                  unknown -> pubsub_device_tree:known(Node);
                  _ -> Id
              end).

forget_id(NodeId) ->
    forget_bodies(NodeId, ets:next(pubsub_device_body, {NodeId, 0})),
    forget_cursors(NodeId, ets:next(pubsub_device_cursor, {NodeId, 0})).

forget_bodies(NodeId, {NodeId, Number} = Id) ->
    [together(fun() -> drop_id(DeviceId, NodeId, Number) end)
     || #pubsub_device_body{devices = Devices} <- ets:lookup(pubsub_device_body, Id), {DeviceId, _} <- Devices],
    ets:member(pubsub_device_body, Id) andalso pubsub_device_tables:delete(pubsub_device_body, Id),
    forget_bodies(NodeId, ets:next(pubsub_device_body, Id));
forget_bodies(_, _) ->
    ok.

forget_cursors(NodeId, {NodeId, _} = Id) ->
    delete_cursor(Id),
    forget_cursors(NodeId, ets:next(pubsub_device_cursor, Id));
forget_cursors(_, _) ->
    ok.

%%% reading

ids(Node, Device) ->
    case {pubsub_device_tree:known(Node), pubsub_device_mnesia:device_id(Device)} of
        {NodeId, [{DeviceId, _}]} when NodeId /= none -> {NodeId, DeviceId};
        _ -> none
    end.

next(Node, Device, Above) ->
    case ids(Node, Device) of
        {NodeId, DeviceId} -> next(Node, Device, NodeId, DeviceId, Above);
        none -> none
    end.

%% The body of a copy that is being dropped may be gone already.
next(Node, Device, NodeId, DeviceId, Above) ->
    case ets:next(pubsub_device_waiting, {DeviceId, NodeId, Above}) of
        {DeviceId, NodeId, Number} ->
            case ets:lookup(pubsub_device_body, {NodeId, Number}) of
                [#pubsub_device_body{item_id = ItemId, item = Item, at = At}] ->
                    #pubsub_device_copy{id = {Node, Device, Number}, item_id = ItemId,
                                        item = pubsub_device_stanza:numbered(Item, Number), at = At};
                [] -> next(Node, Device, NodeId, DeviceId, Number)
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

each_queue(Fun) ->
    each_queue(Fun, ets:first(pubsub_device_queue)).

each_queue(_, '$end_of_table') ->
    ok;
each_queue(Fun, Id) ->
    [Fun(Device, Node) || #pubsub_device_queue{device = Device, node = Node} <- ets:lookup(pubsub_device_queue, Id)],
    each_queue(Fun, ets:next(pubsub_device_queue, Id)).

%%% sums

sum(Who, Value) ->
    add(pubsub_device_load, Who, Value, {pubsub_device_load, Who, 0}).

%% Number and bytes in one integer, so that they change together.
one_copy(Bytes) -> (1 bsl ?BYTES_BITS) + Bytes.

bytes_of(Load) -> Load band ((1 bsl ?BYTES_BITS) - 1).

load_of(Who) ->
    Found = case mnesia:is_transaction() of
                true -> mnesia:read(pubsub_device_load, Who, write);
                false -> ets:lookup(pubsub_device_load, Who)
            end,
    lists:sum([Load || #pubsub_device_load{load = Load} <- Found]).

load({User, Server, _} = Who) ->
    Ids = [case Who of
               {_, _, <<>>} -> Account;
               _ -> DeviceId
           end || {DeviceId, Account} <- pubsub_device_mnesia:some_device_id({User, Server, element(3, Who)})],
    Load = lists:sum([load_of(Id) || Id <- Ids]),
    {Load bsr ?BYTES_BITS, bytes_of(Load)}.

total() ->
    load_of(total).

kept() ->
    ets:info(pubsub_device_waiting, size).

%% Reduces the accounts that have most to the same level.
relieve(Room) ->
    Sums = [{bytes_of(load_of(Account)), Account} || Account <- pubsub_device_mnesia:account_ids()],
    Level = level(lists:sort([Bytes || {Bytes, _} <- Sums]), Room, length(Sums)),
    Above = [Account || {Bytes, Account} <- Sums, Bytes > Level],
    [together(fun() -> shrink(Account, infinity, Level, store) end) || Account <- Above],
    {Level, length(Above)}.

level([Size | Rest], Room, Left) when Size * Left =< Room -> level(Rest, Room - Size, Left - 1);
level(_, Room, Left) -> Room div max(1, Left).

%% The cost of a copy: its text, its number and its records.
bytes(Item) -> ?RECORD_BYTES + byte_size(<<"seqNo0123456789012345">>) + text_bytes(Item).

text_bytes({xmlcdata, Text}) -> byte_size(Text);
text_bytes(#xmlel{name = Name, attrs = Attributes, children = Children}) ->
    byte_size(Name) + lists:sum([byte_size(Key) + byte_size(Value) || {Key, Value} <- Attributes])
        + lists:sum([text_bytes(Child) || Child <- Children]).
