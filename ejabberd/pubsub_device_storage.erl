%% SPDX-License-Identifier: GPL-3.0-only
%% The interface of the storage: everything of the device extension that survives a restart, and what is counted of
%% it. pubsub_device_store selects the implementation and is what the other modules call.
%%
%% Functions without a stated result return `ok` when the change was made. What a caller confirms to a client must be
%% on disk: pubsub_device_commit:sync/0 waits for that after such a function returned.
-module(pubsub_device_storage).

-include("pubsub_device.hrl").

-type node_name() :: {Service :: binary(), NodeId :: binary()}.
-type device() :: {binary(), binary(), binary()}.
-type account() :: {binary(), binary(), <<>>}.
-type via() :: subscription | owner.
-type number_of_item() :: non_neg_integer().
-type copy() :: #pubsub_device_copy{}.
-type numbers() :: term().
-type outcome() :: {ok, number_of_item()} | gone | {error, term()}.
-type change() :: term().
-export_type([node_name/0, device/0, account/0, via/0, number_of_item/0, copy/0, numbers/0, outcome/0, change/0]).

%%% start

%% Creates what is missing, takes over data of earlier versions, and counts what is kept.
-callback init() -> ok.
%% The modules of further processes.
-callback workers() -> [module()].
%% Waits until what was changed is on disk.
-callback sync() -> ok.
%% Before an orderly stop: writes what is written later otherwise.
-callback flush() -> ok.

%%% devices

%% Records that the device exists and was seen now, accurate to a minute.
-callback saw_device(device()) -> ok.
-callback is_device(device()) -> boolean().
-callback devices(account() | device()) -> [device()].
-callback all_devices() -> [device()].
%% When the device was last seen (seconds): a list of one, or none.
-callback seen(device()) -> [integer()].
%% Forgets the device, its marks, and all that is kept for it.
-callback forget_device(device()) -> ok.

%%% key nodes, and the creators of nodes

-callback key_of(node_name()) -> {Key :: binary(), account()} | none.
-callback node_of(Key :: binary()) -> {node_name(), account()} | none.
%% What the key node was made for: web push, and the key of the only application server that may publish.
-callback push_of(node_name()) -> {boolean(), binary() | none}.
-callback put_key(node_name(), Key :: binary(), account(), {boolean(), binary() | none}) -> ok.
%% Deletes the key and the marks of the node.
-callback delete_key(node_name()) -> ok.
%% The devices that created or activated the key node, and `none` when one of them was forgotten.
-callback marks(node_name()) -> [device() | none].
-callback mark(node_name(), device()) -> ok.
%% Both run in the engine's transaction that creates or deletes the node.
-callback made(node_name(), account()) -> ok.
-callback unmade(node_name()) -> ok.
%% How many nodes or keys an account has. In a transaction the count cannot change until the transaction ends.
-callback counted({nodes | keys, account()}) -> non_neg_integer().

%%% publishing: only a node's writer calls these

%% What the writer needs to number items; a value of the implementation, which write/2 returns changed.
-callback numbers(Shard :: non_neg_integer()) -> numbers().
%% Numbers the items and writes them, in their order. A number is above all earlier ones of the node, also of former
%% writers and of deleted nodes of the name. Until complete/1 the items may be invisible to all other functions. `gone`
%% is the outcome for an item whose node was deleted.
-callback write([#publication{}], numbers()) -> {[outcome()], change(), numbers()}.
%% Which of the steps that follow have to wait until the written items are on disk: `all`, `answers` to the publishers
%% only, or `none`.
-callback must_sync(change()) -> all | answers | none.
%% The items wait for their devices. Drops the oldest ones where a bound would be exceeded.
-callback complete(change()) -> ok.
%% Keeps the node's last item for one more device. `false` if it is not the last one any more, or the device has a
%% newer one.
-callback keep_last(node_name(), device(), number_of_item(), ItemId :: binary(), Item :: term()) -> boolean().
%% The last item of a node whose items the engine stores.
-callback last_item(node_name()) -> {number_of_item(), ItemId :: binary()} | none.
%% Removes all that belongs to the node, whose engine's id is given if it is known.
-callback forget_node(node_name(), Id :: term() | unknown) -> ok.

%%% waiting items

%% The session acknowledged the item. Calls Done(More) when it is dropped: whether others of the node wait for the device.
-callback acknowledged(node_name(), device(), number_of_item(), Done :: fun((boolean()) -> term())) -> term().
%% Drops the copy: whether it was there.
-callback drop(node_name(), device(), number_of_item()) -> boolean().
%% Whether the item of this number and id waits for a device.
-callback waits(node_name(), number_of_item(), ItemId :: binary()) -> boolean().
%% Drops the item for all devices: whether it waited for one.
-callback take_back(node_name(), number_of_item(), ItemId :: binary()) -> boolean().
%% The oldest copy above the number that is at least so urgent, as pubsub_device_push has it: 1 for all.
-callback next(node_name(), device(), number_of_item(), Least :: 1..4) -> copy() | none.
%% The newest copy.
-callback newest(node_name(), device()) -> {number_of_item(), via()} | none.
%% The nodes of which items wait for the device.
-callback nodes_for(device()) -> [node_name()].
%% Calls the function for every device with waiting items, once for each node of them.
-callback each_queue(fun((device(), node_name()) -> term())) -> ok.
%% How many items of the node wait for the device.
-callback count(node_name(), device()) -> non_neg_integer().
%% The same for many nodes, in their order.
-callback counts([node_name()], device()) -> [non_neg_integer()].
%% The oldest of all copies of the device.
-callback oldest(device()) -> {node_name(), number_of_item()} | none.
%% Number and bytes of the copies kept for a device or an account.
-callback load(device() | account()) -> {non_neg_integer(), non_neg_integer()}.
%% The bytes that are kept for all.
-callback total() -> non_neg_integer().
%% The numbers of nodes, key_nodes, devices and kept_items, without counting them.
-callback totals() -> [{atom(), non_neg_integer()}].
%% The device after the given one, or the first, in some order, and the number of its oldest copy.
-callback next_device(device() | none) -> {device(), number_of_item() | infinity} | none.
%% Drops the oldest copies of the accounts that have most, until no more than Bytes are kept for all. Returns the level
%% to which these accounts were reduced, and their number.
-callback relieve(Bytes :: non_neg_integer()) -> {Level :: non_neg_integer(), Accounts :: non_neg_integer()}.
%% Regular work, every second and every sweep_interval.
-callback tick() -> ok.
-callback sweep() -> ok.
