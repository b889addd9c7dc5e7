%% SPDX-License-Identifier: GPL-3.0-only
%% The storage in PostgreSQL, for members without a state of their own: devices, key nodes and the creators of nodes.
%% What concerns the kept items is passed on to pubsub_device_sql_items and its parts. schema/pubsub_device.pg.sql describes
%% the tables.
%%
%% What is changed together is changed in one transaction. Transactions lock rows in one order: numbers of nodes,
%% accounts, devices, queues.
-module(pubsub_device_sql).
-behaviour(pubsub_device_storage).

-export([init/0, workers/0, sync/0, flush/0, tick/0, sweep/0]).
-export([saw_device/1, is_device/1, devices/1, all_devices/0, seen/1, forget_device/1]).
-export([key_of/1, node_of/1, push_of/1, put_key/4, delete_key/1, marks/1, mark/2, made/2, unmade/1, counted/1]).
-export([numbers/1, write/2, must_sync/1, complete/1, keep_last/5, last_item/1, forget_node/2]).
-export([acknowledged/4, drop/3, waits/3, take_back/3, next/4, newest/2, nodes_for/1, each_queue/1]).
-export([count/2, counts/2, oldest/1, load/1, total/0, totals/0, next_device/1, relieve/1]).
-export([jid/1, device/2, change/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/ejabberd_sql_pt.hrl").
-include("pubsub_device.hrl").

-import(pubsub_device_database, [ask/1, transaction/1]).

%% pubsub_device_database has made the tables.
init() -> ok.

workers() -> [pubsub_device_database, pubsub_device_sql_acks].

%% Transactions are on disk when they return.
sync() -> ok.

flush() -> ok.
tick() ->
    pubsub_device_sql_push:tick(),
    pubsub_device_sql_sums:tick().
sweep() -> pubsub_device_sql_items:sweep().

%%% names

%% A bare JID as it is stored. Its parts are prepared, so that neither has an @.
jid({User, Server, _}) -> <<User/binary, $@, Server/binary>>.

account_of(JID) ->
    [User, Server] = binary:split(JID, <<"@">>),
    {User, Server, <<>>}.

device(JID, Resource) -> setelement(3, account_of(JID), Resource).

%% A change that has to be made before the caller goes on.
change(Fun) ->
    case transaction(Fun) of
        {ok, Result} -> Result;
        {error, Reason} -> error({database, Reason})
    end.

%% The account's row, which is made when it is missing, locked until the transaction ends.
lock_account(JID) ->
    case ask(?SQL("select @(id)d from pubsub_device_account where jid=%(JID)s for update")) of
        {selected, [{Id}]} -> Id;
        {selected, []} ->
            ask(?SQL("insert into pubsub_device_account (jid) values (%(JID)s) on conflict do nothing")),
            lock_account(JID)
    end.

%%% devices

%% Accurate to a minute, so that a client that announces itself often causes no writes.
saw_device({_, _, Resource} = Device) ->
    JID = jid(Device),
    Now = erlang:system_time(second),
    Old = Now - 60,
    is_device(Device) orelse add_device(JID, Resource, Now),
    ask(?SQL("update pubsub_device d set seen=%(Now)d from pubsub_device_account a where a.id=d.account "
             "and a.jid=%(JID)s and d.resource=%(Resource)s and d.seen not between %(Old)d and %(Now)d")),
    ok.

add_device(JID, Resource, Now) ->
    change(fun() ->
                   Account = lock_account(JID),
                   ask(?SQL("insert into pubsub_device (account, resource, seen) values (%(Account)d, %(Resource)s, "
                            "%(Now)d) on conflict do nothing"))
           end),
    pubsub_device_sql_cache:forget([{devices, JID}]).

is_device(Device) -> lists:member(Device, devices(Device)).

devices(Who) ->
    JID = jid(Who),
    Read = fun() ->
                   {selected, Found} = ask(?SQL("select @(d.resource)s from pubsub_device d join pubsub_device_account a "
                                                "on a.id=d.account where a.jid=%(JID)s")),
                   [device(JID, Resource) || {Resource} <- Found]
           end,
    pubsub_device_sql_cache:read({devices, JID}, Read).

all_devices() ->
    {selected, Found} = ask(?SQL("select @(a.jid)s, @(d.resource)s from pubsub_device d join pubsub_device_account a "
                                 "on a.id=d.account")),
    [device(JID, Resource) || {JID, Resource} <- Found].

seen({_, _, Resource} = Device) ->
    JID = jid(Device),
    {selected, Found} = ask(?SQL("select @(d.seen)d from pubsub_device d join pubsub_device_account a on a.id=d.account "
                                 "where a.jid=%(JID)s and d.resource=%(Resource)s")),
    [Seen || {Seen} <- Found].

%% Device 0 distinguishes a node without remaining devices from one for which none was ever recorded.
forget_device({_, _, Resource} = Device) ->
    JID = jid(Device),
    Forget = fun() ->
                     lock_account(JID),
                     case ask(?SQL("select @(d.id)d from pubsub_device d join pubsub_device_account a on a.id=d.account "
                                   "where a.jid=%(JID)s and d.resource=%(Resource)s for update of d")) of
                         {selected, [{Id}]} -> forget_id(Id);
                         {selected, []} -> []
                     end
             end,
    Nodes = change(Forget),
    pubsub_device_sql_cache:forget([{devices, JID} | [{marks, Node} || Node <- Nodes]]).

%% Returns the nodes for which it was marked.
forget_id(Id) ->
    Dropped = pubsub_device_sql_waiting:drop_device(Id),
    pubsub_device_metrics:count({dropped, forgotten}, Dropped),
    {selected, Nodes} = ask(?SQL("select @(service)s, @(node)s from pubsub_device_mark where device=%(Id)d")),
    ask(?SQL("insert into pubsub_device_mark (service, node, device, since) select service, node, 0, since "
             "from pubsub_device_mark where device=%(Id)d on conflict do nothing")),
    ask(?SQL("delete from pubsub_device_mark where device=%(Id)d")),
    ask(?SQL("delete from pubsub_device where id=%(Id)d")),
    Nodes.

%%% key nodes

key_of({Service, NodeId} = Node) ->
    Read = fun() ->
                   case ask(?SQL("select @(k.key)s, @(a.jid)s from pubsub_device_key k join pubsub_device_account a "
                                 "on a.id=k.account where k.service=%(Service)s and k.node=%(NodeId)s")) of
                       {selected, [{Key, Account}]} -> {Key, account_of(Account)};
                       {selected, []} -> none
                   end
           end,
    pubsub_device_sql_cache:read({key, Node}, Read).

node_of(Key) ->
    Read = fun() ->
                   case ask(?SQL("select @(k.service)s, @(k.node)s, @(a.jid)s from pubsub_device_key k "
                                 "join pubsub_device_account a on a.id=k.account where k.key=%(Key)s")) of
                       {selected, [{Service, NodeId, Account}]} -> {{Service, NodeId}, account_of(Account)};
                       {selected, []} -> none
                   end
           end,
    pubsub_device_sql_cache:read({node, Key}, Read).

push_of({Service, NodeId} = Node) ->
    Read = fun() ->
                   case ask(?SQL("select @(web_push)b, @(coalesce(vapid, ''))s from pubsub_device_key "
                                 "where service=%(Service)s and node=%(NodeId)s")) of
                       {selected, [{WebPush, <<>>}]} -> {WebPush, none};
                       {selected, [Push]} -> Push;
                       {selected, []} -> {false, none}
                   end
           end,
    pubsub_device_sql_cache:read({push, Node}, Read).

put_key({Service, NodeId} = Node, Key, Owner, {WebPush, Vapid}) ->
    JID = jid(Owner),
    Only = case Vapid of
               none -> <<>>;
               _ -> Vapid
           end,
    Put = fun() ->
                  Former = delete_key_now(Node),
                  Account = lock_account(JID),
                  ask(?SQL("insert into pubsub_device_key (service, node, key, account, web_push, vapid) values "
                           "(%(Service)s, %(NodeId)s, %(Key)s, %(Account)d, %(WebPush)b, nullif(%(Only)s, ''))")),
                  ask(?SQL("update pubsub_device_account set keys=keys+1 where id=%(Account)d")),
                  [Key | Former]
          end,
    forget_keys(Node, change(Put)).

delete_key(Node) ->
    forget_keys(Node, change(fun() -> delete_key_now(Node) end)).

forget_keys(Node, Keys) ->
    pubsub_device_sql_cache:forget([{key, Node}, {push, Node}, {marks, Node} | [{node, Key} || Key <- Keys]]).

%% Returns the key, if there was one.
delete_key_now({Service, NodeId}) ->
    {selected, Keys} =
        ask(?SQL("with gone as (delete from pubsub_device_key where service=%(Service)s and node=%(NodeId)s "
                 "returning key, account), marks as (delete from pubsub_device_mark where service=%(Service)s "
                 "and node=%(NodeId)s), counted as (update pubsub_device_account set keys=keys-1 where id in "
                 "(select account from gone)) select @(key)s from gone")),
    [Key || {Key} <- Keys].

marks({Service, NodeId} = Node) ->
    Read = fun() ->
                   {selected, Found} = ask(?SQL("select @(coalesce(a.jid, ''))s, @(coalesce(d.resource, ''))s "
                                                "from pubsub_device_mark m left join pubsub_device d on d.id=m.device "
                                                "left join pubsub_device_account a on a.id=d.account "
                                                "where m.service=%(Service)s and m.node=%(NodeId)s")),
                   [case JID of
                        <<>> -> none;
                        _ -> device(JID, Resource)
                    end || {JID, Resource} <- Found]
           end,
    pubsub_device_sql_cache:read({marks, Node}, Read).

mark({Service, NodeId} = Node, {_, _, Resource} = Device) ->
    JID = jid(Device),
    Now = erlang:system_time(second),
    ask(?SQL("insert into pubsub_device_mark (service, node, device, since) select %(Service)s, %(NodeId)s, d.id, "
             "%(Now)d from pubsub_device d join pubsub_device_account a on a.id=d.account where a.jid=%(JID)s "
             "and d.resource=%(Resource)s on conflict do nothing")),
    pubsub_device_sql_cache:forget([{marks, Node}]).

%%% creators of nodes

made({Service, NodeId} = Node, Account) ->
    JID = jid(Account),
    Make = fun() ->
                   unmade_now(Node),
                   Id = lock_account(JID),
                   ask(?SQL("insert into pubsub_device_node (service, node, account) values (%(Service)s, %(NodeId)s, "
                            "%(Id)d)")),
                   ask(?SQL("update pubsub_device_account set nodes=nodes+1 where id=%(Id)d"))
           end,
    change(Make),
    ok.

unmade(Node) ->
    change(fun() -> unmade_now(Node) end),
    ok.

unmade_now({Service, NodeId}) ->
    ask(?SQL("with gone as (delete from pubsub_device_node where service=%(Service)s and node=%(NodeId)s "
             "returning account) update pubsub_device_account set nodes=nodes-1 where id in "
             "(select account from gone)")).

counted({What, Account}) ->
    JID = jid(Account),
    get(ejabberd_sql_state) == undefined orelse lock_account(JID),
    {selected, Found} = ask(?SQL("select @(nodes)d, @(keys)d from pubsub_device_account where jid=%(JID)s")),
    lists:sum([case What of
                   nodes -> Nodes;
                   keys -> Keys
               end || {Nodes, Keys} <- Found]).

%%% items

numbers(Shard) -> pubsub_device_sql_numbers:numbers(Shard).
write(Publications, Numbers) -> pubsub_device_sql_items:write(Publications, Numbers).
must_sync(_) -> none.
complete(Change) -> pubsub_device_sql_waiting:complete(Change).
keep_last(Node, Device, Number, ItemId, Item) -> pubsub_device_sql_items:keep_last(Node, Device, Number, ItemId, Item).
last_item(Node) -> pubsub_device_sql_numbers:last_item(Node).
forget_node(Node, Id) -> pubsub_device_sql_items:forget_node(Node, Id).
acknowledged(Node, Device, Number, Done) -> pubsub_device_sql_acks:add(Node, Device, Number, Done).
drop(Node, Device, Number) -> pubsub_device_sql_waiting:drop({Node, Device, Number}).
waits(Node, Number, ItemId) -> pubsub_device_sql_push:waits(Node, Number, ItemId).
take_back(Node, Number, ItemId) -> pubsub_device_sql_push:take_back(Node, Number, ItemId).
relieve(Room) -> pubsub_device_sql_waiting:relieve(Room).
next(Node, Device, Above, Least) -> pubsub_device_sql_reading:next(Node, Device, Above, Least).
newest(Node, Device) -> pubsub_device_sql_reading:newest(Node, Device).
nodes_for(Device) -> pubsub_device_sql_reading:nodes_for(Device).
each_queue(Fun) -> pubsub_device_sql_reading:each_queue(Fun).
count(Node, Device) -> pubsub_device_sql_reading:count(Node, Device).
counts(Nodes, Device) -> pubsub_device_sql_reading:counts(Nodes, Device).
oldest(Device) -> pubsub_device_sql_reading:oldest(Device).
load(Who) -> pubsub_device_sql_sums:load(Who).
total() -> pubsub_device_sql_sums:total().
totals() -> pubsub_device_sql_sums:totals().
next_device(Before) -> pubsub_device_sql_sums:next_device(Before).
