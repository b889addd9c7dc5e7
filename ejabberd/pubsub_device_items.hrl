%% SPDX-License-Identifier: GPL-3.0-only
%% The tables in mnesia of the kept items. Nodes are identified by the engine's ids, which are never used again, devices
%% and accounts by serial numbers. What is looked up while publishing is in memory.

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

%% In memory: id = {NodeId, Number}; what the sender of an item asked: when it expires (seconds, or `never`), its urgency
%% as a number, and its topic or `none`. Only for items of which one of these is not as usual.
-record(pubsub_device_trait, {id, expires, urgency, topic}).

%% In memory: id = {NodeId, Topic}; the waiting item of the topic.
-record(pubsub_device_topic, {id, number}).

%% In memory: id = {Expires, NodeId, Number}, for each waiting item that expires by itself.
-record(pubsub_device_expiry, {id, none}).

%% In memory, each member its own: id = {NodeId, DeviceId}; the device has taken an item of the number `taken`, and its
%% cursor has not followed yet.
-record(pubsub_device_lagging, {id, taken}).
