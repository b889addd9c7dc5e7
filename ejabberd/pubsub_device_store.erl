%% SPDX-License-Identifier: GPL-3.0-only
%% What the extension knows: the sessions and activations of devices, which are in memory and end with the sessions,
%% and everything that survives a restart, from the storage that is configured (pubsub_device_storage).
-module(pubsub_device_store).

-export([init/1, workers/0, sync/0, flush/0, tick/0, sweep/0]).
-export([attach/2, detach/2, session/1, attached/1, sessions/0, forget_session/1]).
-export([activate/3, deactivate/2, is_active/3, stale_activations/0]).
-export([saw_device/1, is_device/1, devices/1, all_devices/0, seen/1, forget_device/1]).
-export([key_of/1, node_of/1, put_key/3, delete_key/1, marks/1, mark/2, made/2, unmade/1, counted/1]).
-export([numbers/1, write/2, must_sync/1, complete/1, keep_last/5, last_item/1, forget_node/2]).
-export([acknowledged/4, drop/3, next/3, newest/2, nodes_for/1, each_queue/1]).
-export([count/2, oldest/1, load/1, total/0, totals/0, next_device/1, relieve/1]).

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

activate(Node, Device, Pid) ->
    case is_active(Node, Device, Pid) of
        true -> ok;
        false -> pubsub_device_tables:write(#pubsub_device_active{id = {Node, Device}, pid = Pid})
    end.

deactivate(Node, Device) ->
    pubsub_device_tables:delete(pubsub_device_active, {Node, Device}).

is_active(Node, Device, Pid) ->
    case ets:lookup(pubsub_device_active, {Node, Device}) of
        [#pubsub_device_active{pid = Pid}] -> true;
        _ -> false
    end.

stale_activations() ->
    [Id || {_, Device} = Id <- mnesia:dirty_all_keys(pubsub_device_active),
           #pubsub_device_active{pid = Pid} <- ets:lookup(pubsub_device_active, Id), session(Device) /= Pid].

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
put_key(Node, Key, Owner) -> ?STORAGE:put_key(Node, Key, Owner).
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
next(Node, Device, Above) -> ?STORAGE:next(Node, Device, Above).
newest(Node, Device) -> ?STORAGE:newest(Node, Device).
nodes_for(Device) -> ?STORAGE:nodes_for(Device).
each_queue(Fun) -> ?STORAGE:each_queue(Fun).
count(Node, Device) -> ?STORAGE:count(Node, Device).
oldest(Device) -> ?STORAGE:oldest(Device).
load(Who) -> ?STORAGE:load(Who).
total() -> ?STORAGE:total().
totals() -> [{sessions, ets:info(pubsub_device_session, size)} | ?STORAGE:totals()].
next_device(Device) -> ?STORAGE:next_device(Device).
relieve(Room) -> ?STORAGE:relieve(Room).
