%% SPDX-License-Identifier: GPL-3.0-only
%% What the extension knows: the sessions and activations of devices, which are in memory and end with the sessions,
%% and everything that survives a restart, from the storage that is configured (pubsub_device_storage).
-module(pubsub_device_store).

-export([init/1, workers/0, sync/0, flush/0, tick/0, sweep/0]).
-export([attach/2, detach/2, session/1, attached/1, sessions/0, forget_session/1]).
-export([activate/4, deactivate/2, activation/3, least/3, is_active/3]).
-export([forget_activation/3, forget_limits/1, forget_stale_activations/0]).
-export([saw_device/1, is_device/1, devices/1, all_devices/0, seen/1, forget_device/1]).
-export([key_of/1, node_of/1, push_of/1, put_key/4, delete_key/1, marks/1, mark/2, made/2, unmade/1, counted/1]).
-export([numbers/1, write/2, must_sync/1, complete/1, keep_last/5, last_item/1, forget_node/2]).
-export([acknowledged/4, drop/3, waits/3, take_back/3, next/3, next/4, newest/2, nodes_for/1, each_queue/1]).
-export([count/2, counts/2, oldest/1, load/1, total/0, totals/0, next_device/1, relieve/1]).

-include("pubsub_device.hrl").

-define(STORAGE, (persistent_term:get(?MODULE))).

%% The storage is where the nodes of the host's service are.
init(Host) ->
    persistent_term:put(?MODULE, case mod_pubsub_opt:db_type(Host) of
                                     sql -> pubsub_device_database:connect(Host), pubsub_device_sql;
                                     _ -> pubsub_device_mnesia
                                 end),
    Create = fun pubsub_device_tables:create/5,
    Create(pubsub_device_session, ram_copies, set, record_info(fields, pubsub_device_session), []),
    Create(pubsub_device_active, ram_copies, ordered_set, record_info(fields, pubsub_device_active), []),
    ?STORAGE:init().

%%% sessions

attach(Device, Pid) ->
    case ets:lookup(pubsub_device_session, Device) of
        [#pubsub_device_session{pid = Pid}] -> ok;
        _ -> pubsub_device_tables:write(#pubsub_device_session{jid = Device, pid = Pid})
    end.

%% Only if it is still the ending session: in a resource conflict the old session is closed after the new one has
%% announced itself.
detach(Device, Pid) ->
    case ets:lookup(pubsub_device_session, Device) of
        [#pubsub_device_session{pid = Pid}] -> pubsub_device_tables:delete(pubsub_device_session, Device), true;
        _ -> false
    end.

%% The session that announced the device, if it still is the device's session.
session({User, Server, Resource} = Device) ->
    case attached(Device) of
        none -> none;
        Pid ->
            case ejabberd_sm:get_session_pid(User, Server, Resource) of
                Pid -> Pid;
                _ -> none
            end
    end.

%% The session that announced the device. It may be about to end.
attached(Device) ->
    try ets:lookup_element(pubsub_device_session, Device, #pubsub_device_session.pid)
    catch error:badarg -> none
    end.

sessions() ->
    mnesia:dirty_all_keys(pubsub_device_session).

forget_session(Device) ->
    pubsub_device_tables:delete(pubsub_device_session, Device).

%% How: `active`, or {limited, Least} to one open item that is at least so urgent.
activate(Node, Device, Pid, How) ->
    Session = case How of
                  active -> Pid;
                  {limited, 1} -> {limited, Pid};
                  _ -> {How, Pid}
              end,
    case ets:lookup(pubsub_device_active, {Node, Device}) of
        [#pubsub_device_active{pid = Session}] -> ok;
        _ -> put_activation(Node, Device, Session)
    end.

%% A node with a limit stays closed until its next activation; others are as if they had never been activated.
deactivate(Node, Device) ->
    case ets:lookup(pubsub_device_active, {Node, Device}) of
        [#pubsub_device_active{pid = {_, Pid}}] -> put_activation(Node, Device, {closed, Pid});
        _ -> pubsub_device_tables:delete(pubsub_device_active, {Node, Device})
    end.

put_activation(Node, Device, Session) ->
    pubsub_device_tables:write(#pubsub_device_active{id = {Node, Device}, pid = Session}).

%% What the session made of the node: `active`, `limited`, `closed`, or `none`.
activation(Node, Device, Pid) ->
    case ets:lookup(pubsub_device_active, {Node, Device}) of
        [#pubsub_device_active{pid = Pid}] -> active;
        [#pubsub_device_active{pid = {{limited, _}, Pid}}] -> limited;
        [#pubsub_device_active{pid = {How, Pid}}] -> How;
        _ -> none
    end.

%% How urgent an item has to be for the session to be sent it.
least(Node, Device, Pid) ->
    case ets:lookup(pubsub_device_active, {Node, Device}) of
        [#pubsub_device_active{pid = {{limited, Least}, Pid}}] -> Least;
        _ -> 1
    end.

is_active(Node, Device, Pid) ->
    lists:member(activation(Node, Device, Pid), [active, limited]).

%% The session has ended. A later one of the device may have activated the node by now.
forget_activation(Node, Device, Pid) ->
    [pubsub_device_tables:delete_object(Found)
     || #pubsub_device_active{pid = Session} = Found <- ets:lookup(pubsub_device_active, {Node, Device}),
        of_session(Session) == Pid],
    ok.

of_session({_, Pid}) -> Pid;
of_session(Pid) -> Pid.

%% A limit ends with the node; one of the same name is another node.
forget_limits(Node) -> forget_limits(Node, ets:next(pubsub_device_active, {Node, 0})).  % less than every device

forget_limits(Node, {Node, _} = Id) ->
    [pubsub_device_tables:delete_object(Found)
     || #pubsub_device_active{pid = {_, _}} = Found <- ets:lookup(pubsub_device_active, Id)],
    forget_limits(Node, ets:next(pubsub_device_active, Id));
forget_limits(_, _) ->
    ok.

forget_stale_activations() ->
    [pubsub_device_tables:delete_object(Found)
     || Id <- mnesia:dirty_all_keys(pubsub_device_active), Found <- ets:lookup(pubsub_device_active, Id),
        is_stale(Found)],
    ok.

%% A session may set limits before it announces itself.
is_stale(#pubsub_device_active{id = {_, {User, Server, Resource}}, pid = {_, Pid}}) ->
    ejabberd_sm:get_session_pid(User, Server, Resource) /= Pid;
is_stale(#pubsub_device_active{id = {_, Device}, pid = Pid}) ->
    session(Device) /= Pid.

%%% the storage

workers() -> ?STORAGE:workers().
sync() -> ?STORAGE:sync().
flush() -> ?STORAGE:flush().
tick() -> ?STORAGE:tick().
sweep() -> ?STORAGE:sweep().
saw_device(Device) -> ?STORAGE:saw_device(Device).
is_device(Device) -> ?STORAGE:is_device(Device).
devices(Who) -> ?STORAGE:devices(Who).
all_devices() -> ?STORAGE:all_devices().
seen(Device) -> ?STORAGE:seen(Device).
forget_device(Device) -> ?STORAGE:forget_device(Device).
key_of(Node) -> ?STORAGE:key_of(Node).
node_of(Key) -> ?STORAGE:node_of(Key).
push_of(Node) -> ?STORAGE:push_of(Node).
put_key(Node, Key, Owner, Push) -> ?STORAGE:put_key(Node, Key, Owner, Push).
delete_key(Node) -> ?STORAGE:delete_key(Node).
marks(Node) -> ?STORAGE:marks(Node).
mark(Node, Device) -> ?STORAGE:mark(Node, Device).
made(Node, Account) -> ?STORAGE:made(Node, Account).
unmade(Node) -> ?STORAGE:unmade(Node).
counted(Who) -> ?STORAGE:counted(Who).
numbers(Shard) -> ?STORAGE:numbers(Shard).
write(Publications, Numbers) -> ?STORAGE:write(Publications, Numbers).
must_sync(Change) -> ?STORAGE:must_sync(Change).
complete(Change) -> ?STORAGE:complete(Change).
keep_last(Node, Device, Number, ItemId, Item) -> ?STORAGE:keep_last(Node, Device, Number, ItemId, Item).
last_item(Node) -> ?STORAGE:last_item(Node).
forget_node(Node, Id) -> ?STORAGE:forget_node(Node, Id).
acknowledged(Node, Device, Number, Done) -> ?STORAGE:acknowledged(Node, Device, Number, Done).
drop(Node, Device, Number) -> ?STORAGE:drop(Node, Device, Number).
waits(Node, Number, ItemId) -> ?STORAGE:waits(Node, Number, ItemId).
take_back(Node, Number, ItemId) -> ?STORAGE:take_back(Node, Number, ItemId).
next(Node, Device, Above) -> next(Node, Device, Above, 1).
next(Node, Device, Above, Least) -> ?STORAGE:next(Node, Device, Above, Least).
newest(Node, Device) -> ?STORAGE:newest(Node, Device).
nodes_for(Device) -> ?STORAGE:nodes_for(Device).
each_queue(Fun) -> ?STORAGE:each_queue(Fun).
count(Node, Device) -> ?STORAGE:count(Node, Device).
counts(Nodes, Device) -> ?STORAGE:counts(Nodes, Device).
oldest(Device) -> ?STORAGE:oldest(Device).
load(Who) -> ?STORAGE:load(Who).
total() -> ?STORAGE:total().
totals() -> [{sessions, ets:info(pubsub_device_session, size)} | ?STORAGE:totals()].
next_device(Device) -> ?STORAGE:next_device(Device).
relieve(Room) -> ?STORAGE:relieve(Room).
