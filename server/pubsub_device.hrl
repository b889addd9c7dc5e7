%% SPDX-License-Identifier: GPL-3.0-only
%% The tables of the device extension. A node is {Service, NodeId}, a device is {User, Server, Resource}, a
%% number is what items carry as seqNo. Tables on disk survive a restart; those in memory are rebuilt or die
%% with the sessions.

-define(NS_DEVICE, <<"urn:zelt:pubsub:device:0">>).

%% On disk: devices, and when each was last seen (seconds).
-record(pubsub_device, {jid, seen}).

%% In memory: the session in which a device last announced itself.
-record(pubsub_device_session, {jid, pid}).

%% In memory: id = {Node, Device}; the session in which the device activated the node.
-record(pubsub_device_active, {id, pid}).

%% On disk: key nodes. `key` is indexed; `owner` is the bare {User, Server, <<>>} that created the node.
-record(pubsub_device_key, {node, key, owner}).

%% On disk: the highest number of a node and the item that has it. The record of a deleted node is folded into
%% a floor (node = {floor, Shard, Member}), above which every new node of that shard starts.
-record(pubsub_device_number, {node, last, item}).

%% On disk: what is kept for a device. id = {Node, Device, Number}; `via` says whether a subscription or the
%% ownership of a key node brought it, `item` is the whole stamped element, `at` is when it was kept
%% (seconds).
-record(pubsub_device_copy, {id, item_id, via, item, at}).

%% In memory, from the table above: id = {Device, Node}; how many copies of the node are kept for the device.
-record(pubsub_device_pair, {id, count}).
