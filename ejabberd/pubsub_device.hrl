%% SPDX-License-Identifier: GPL-3.0-only
%% The tables of the device extension. A node is {Service, NodeId}, a device is {User, Server, Resource}, a number is
%% what items carry as seqNo. Tables on disk survive a restart; those in memory are rebuilt or end with the sessions.

-define(NS_DEVICE, <<"urn:zelt:pubsub:device:0">>).

%% On disk: devices, and when each was last seen (seconds).
-record(pubsub_device, {jid, seen}).

%% In memory: the session in which a device last announced itself.
-record(pubsub_device_session, {jid, pid}).

%% In memory: id = {Node, Device}; the session in which the device activated the node.
-record(pubsub_device_active, {id, pid}).

%% On disk: key nodes. `key` is indexed; `owner` is the bare {User, Server, <<>>} that created the node.
-record(pubsub_device_key, {node, key, owner}).

%% On disk: the highest number of a node and the item that has it. The record of a deleted node is merged into a floor
%% (node = {floor, Shard, Member}), above which every new node of that shard starts.
-record(pubsub_device_number, {node, last, item}).

%% On disk: the copies kept for a device. id = {Node, Device, Number}; `via` says whether a subscription or the
%% ownership of a key node brought it, `item` is the whole stamped element, `at` is when it was kept (seconds).
-record(pubsub_device_copy, {id, item_id, via, item, at}).

%% In memory, from the table above: id = {Device, Node}; how many copies of the node are kept for the device.
-record(pubsub_device_pair, {id, count}).

%% In memory, from the same table: id = {Who, Number, Node, Device}, twice for each copy, with the device and with its
%% account as `Who`. The first entry of each is the oldest. The device's entry is the copy's token: the process that
%% removes it drops the copy.
-record(pubsub_device_age, {id, bytes}).

%% In memory: how much an account or a device has. who = a device, an account {User, Server, <<>>}, or {nodes | keys,
%% Account}. Copies are counted in one integer, so that number and bytes change together: the number in the high bits,
%% the bytes in the low ?BYTES_BITS.
-record(pubsub_device_load, {who, load}).

-define(BYTES_BITS, 40).

%% On disk: which account created a node, whoever owns it later.
-record(pubsub_device_node, {node, account}).

%% On disk: id = {Node, Device}; the device created or activated the key node, so its items are kept for it. {Node,
%% none} means that such devices were once recorded; without any record nothing is known about the node's devices.
-record(pubsub_device_mark, {id, since}).
