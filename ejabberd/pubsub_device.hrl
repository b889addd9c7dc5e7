%% SPDX-License-Identifier: GPL-3.0-only
%% The records that the modules of the device extension share. A node is {Service, NodeId}, a device is {User, Server,
%% Resource}, an account {User, Server, <<>>}; a number is what items carry as seqNo.

-define(NS_DEVICE, <<"urn:zelt:pubsub:device:0">>).

%% In memory: the session in which a device last announced itself.
-record(pubsub_device_session, {jid, pid}).

%% In memory: id = {Node, Device}; `pid` is the session in which the device activated the node, {limited, Pid} if it wants
%% one open item at a time, {{limited, Least}, Pid} if these have to be at least so urgent, or {closed, Pid} after it deactivated a node with a limit. The fields have their old names,
%% since members of different versions share the table.
-record(pubsub_device_active, {id, pid}).

%% An item on its way to the storage. `id` is the engine's id of the node, or `any`; `item` a #ps_item{}; `keep` the
%% devices for which it is kept, as {Device, Via}, where Via says whether a subscription or the ownership of a key
%% node brought it; `live` the messages for all other receivers. `engine` is true when the engine published the item
%% and may have stored it.
-record(publication, {node, id = any, item_id, item, keep = [], live = [], engine = false}).

%% An item that waits for a device. id = {Node, Device, Number}; `item` is the encoded element with its number, `at` is
%% when it was kept (seconds).
-record(pubsub_device_copy, {id, item_id, via, item, at}).
