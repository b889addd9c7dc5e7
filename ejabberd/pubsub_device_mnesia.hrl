%% SPDX-License-Identifier: GPL-3.0-only
%% The tables in mnesia of devices, key nodes and creators of nodes, and the sums. Those on disk survive a restart,
%% those in memory are made again.

%% On disk: devices, when each was last seen (seconds), and the serial numbers of the device and of its account, which
%% are never used again.
-record(pubsub_device, {jid, seen, id, account}).

%% On disk: what = serial; the last serial number.
-record(pubsub_device_serial, {what, last}).

%% On disk: key nodes. `key` is indexed; `owner` is the bare {User, Server, <<>>} that created the node.
-record(pubsub_device_key, {node, key, owner}).

%% On disk: what a key node was made for, if it is not the usual: web push, and the key of the only application server that
%% may publish, or `none`.
-record(pubsub_device_push, {node, web_push, vapid}).

%% On disk: id = {Node, Device}; the device created or activated the key node, so its items are kept for it. {Node,
%% none} means that such devices were once recorded; without any record nothing is known about the node's devices.
-record(pubsub_device_mark, {id, since}).

%% On disk: which account created a node, whoever owns it later.
-record(pubsub_device_node, {node, account}).

%% In memory: how much something has. who = the serial number of a device or an account, for the copies kept for it:
%% their number in the high bits, their bytes in the low ?BYTES_BITS; `total`, for the bytes of all; {nodes | keys,
%% Account}, for how many.
-record(pubsub_device_load, {who, load}).

-define(BYTES_BITS, 40).
