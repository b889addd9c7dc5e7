%% SPDX-License-Identifier: GPL-3.0-only
%% The commands of ejabberdctl and of the server's API: the metrics, and what is kept for the devices of an account.
%% They only read. No command prints a key. Keeps no state. An empty text is a binary: ejabberdctl prints an empty list
%% as such.
-module(pubsub_device_commands).

-export([register/0, unregister/0, commands/0]).
-export([metrics/0, list/2, show/3, top/0]).

-include_lib("ejabberd/include/ejabberd_commands.hrl").
-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").
-include("pubsub_device_metrics.hrl").

register() -> ejabberd_commands:register_commands(?MODULE, commands()).
unregister() -> ejabberd_commands:unregister_commands([Each#ejabberd_commands{definer = ?MODULE} || Each <- commands()]).

commands() ->
    [#ejabberd_commands{
        name = pubsub_device_metrics, tags = [pubsub],
        desc = "What the device extension counts",
        longdesc = "The samples of GET /metrics. In a cluster each member prints its own counters, and the first one "
                   "also what all have in common.",
        module = ?MODULE, function = metrics,
        result = {metrics, {list, {metric, {tuple, [{name, string}, {labels, string}, {value, string}]}}}},
        result_desc = "Name, labels as label=value, and value",
        result_example = [{"pubsub_device_publications_total", "way=http", "12"}]},
     #ejabberd_commands{
        name = pubsub_device_list, tags = [pubsub],
        desc = "List the devices of an account, with what is kept for each",
        module = ?MODULE, function = list,
        args = [{user, binary}, {host, binary}],
        args_desc = ["Local part of the account", "Host of the account"],
        args_example = [<<"owner">>, <<"localhost">>],
        result = {devices, {list, {device, {tuple, [{resource, string}, {state, string}, {seen, string},
                                                    {items, integer}, {bytes, integer}, {oldest, string}]}}}},
        result_desc = "Resource, connected or absent, when it was last seen, items and bytes that are kept for it, and "
                      "when the oldest of them was kept; times are in UTC",
        result_example = [{<<"dev42">>, "absent", "2026-11-20T08:00:00Z", 3, 3420, "2026-11-20T09:12:40Z"}]},
     #ejabberd_commands{
        name = pubsub_device_show, tags = [pubsub],
        desc = "Show the nodes of which items are kept for a device",
        module = ?MODULE, function = show,
        args = [{user, binary}, {host, binary}, {resource, binary}],
        args_desc = ["Local part of the account", "Host of the account", "Resource of the device"],
        args_example = [<<"owner">>, <<"localhost">>, <<"dev42">>],
        result = {nodes, {list, {node, {tuple, [{service, string}, {node, string}, {items, integer},
                                                {oldest, string}]}}}},
        result_desc = "Service and node, with control characters as \\xNN, how many of its items are kept, and when the "
                      "oldest of them was kept, in UTC",
        result_example = [{<<"pubsub.localhost">>, <<"/news">>, 3, "2026-11-20T09:12:40Z"}]},
     #ejabberd_commands{
        name = pubsub_device_top, tags = [pubsub],
        desc = "List the devices for which most bytes are kept",
        longdesc = "At most 20 devices, the most first. The list is made anew every second; with more than 2,000 devices "
                   "it takes a second for each 2,000.",
        module = ?MODULE, function = top,
        result = {devices, {list, {device, {tuple, [{jid, string}, {state, string}, {items, integer},
                                                    {bytes, integer}]}}}},
        result_desc = "Full JID, connected or absent, and items and bytes that are kept for it",
        result_example = [{<<"owner@localhost/dev42">>, "absent", 3, 3420}]}].

metrics() ->
    [{Name, iolist_to_binary(lists:join(",", [[Label, $=, Value] || {Label, Value} <- Labels])), Number}
     || {_, Samples} <- pubsub_device_exposition:samples(), {Name, Labels, Number} <- Samples].

list(User, Host) ->
    [begin
         {Items, Bytes} = pubsub_device_store:load(Device),
         {Resource, state(Device), time(pubsub_device_store:seen(Device)), Items, Bytes, oldest(Device)}
     end || {_, _, Resource} = Device <- pubsub_device_store:devices(device(User, Host, <<>>))].

show(User, Host, Resource) ->
    Device = device(User, Host, Resource),
    pubsub_device_store:is_device(Device) orelse throw({error, "There is no such device"}),
    [{Service, visible(NodeId), pubsub_device_store:count(Node, Device),
      kept_at(pubsub_device_store:next(Node, Device, 0))}
     || {Service, NodeId} = Node <- lists:sort(pubsub_device_store:nodes_for(Device))].

top() ->
    [{jid:encode(Device), state(Device), Items, Bytes} || {Device, Items, Bytes} <- pubsub_device_gauges:top()].

%% As the tables have it. An unknown account has no devices; an unknown host is a mistake.
device(User, Host, Resource) ->
    case jid:make(User, Host, Resource) of
        #jid{luser = LUser, lserver = LServer} = JID when LUser /= <<>> ->
            ejabberd_router:is_my_host(LServer) orelse throw({error, "The server does not serve this host"}),
            jid:tolower(JID);
        _ -> throw({error, "This is no account"})
    end.

state(Device) ->
    case pubsub_device_store:session(Device) of
        none -> "absent";
        _ -> "connected"
    end.

%% Otherwise a name could look like further columns and lines, or move the cursor of the terminal.
visible(Name) ->
    << <<(shown(Char))/binary>> || <<Char/utf8>> <= Name >>.

shown(Char) when Char < 16#20; Char >= 16#7f, Char < 16#a0 -> iolist_to_binary(io_lib:format("\\x~2.16.0b", [Char]));
shown(Char) -> <<Char/utf8>>.

oldest(Device) ->
    case pubsub_device_store:oldest(Device) of
        {Node, Number} -> kept_at(pubsub_device_store:next(Node, Device, Number - 1));
        none -> <<>>
    end.

kept_at(#pubsub_device_copy{at = At}) -> time([At]);
kept_at(none) -> <<>>.

time([Seconds]) -> calendar:system_time_to_rfc3339(Seconds, [{offset, "Z"}]);
time([]) -> <<>>.
