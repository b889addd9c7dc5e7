%% SPDX-License-Identifier: GPL-3.0-only
%% Looks up the waiting items in PostgreSQL.
-module(pubsub_device_sql_reading).

-export([next/4, newest/2, nodes_for/1, each_queue/1, count/2, counts/2, oldest/1]).

-include_lib("ejabberd/include/ejabberd_sql_pt.hrl").
-include("pubsub_device.hrl").

-import(pubsub_device_database, [ask/1, rows/1, text/1, list/1]).
-import(pubsub_device_sql, [jid/1, device/2]).

%% Read at once by each_queue/1.
-define(PORTION, 1000).

%% Without what was acknowledged a moment ago.
next(Node, Device, Above, Least) ->
    case stored(Node, Device, Above, Least) of
        #pubsub_device_copy{id = {_, _, Number} = Copy} = Found ->
            case pubsub_device_sql_acks:is_taken(Copy) of
                true -> next(Node, Device, Number, Least);
                false -> Found
            end;
        none -> none
    end.

stored({Service, NodeId} = Node, {_, _, Resource} = Device, Above, Least) ->
    JID = jid(Device),
    case ask(?SQL("select @(c.number)d, @(b.item_id)s, @(b.item)s, @(b.at)d from pubsub_node n "
                  "join pubsub_device_account a on a.jid=%(JID)s "
                  "join pubsub_device d on d.account=a.id and d.resource=%(Resource)s "
                  "join pubsub_device_copy c on c.device=d.id and c.node=n.nodeid "
                  "join pubsub_device_body b on b.node=c.node and b.number=c.number "
                  "where n.host=%(Service)s and n.node=%(NodeId)s and c.number>%(Above)d "
                  "and b.urgency>=%(Least)d "
                  "order by c.number limit 1")) of
        {selected, [{Number, ItemId, Text, At}]} ->
            #pubsub_device_copy{id = {Node, Device, Number}, item_id = ItemId, at = At,
                                item = pubsub_device_stanza:numbered(fxml_stream:parse_element(Text), Number)};
        {selected, []} -> none
    end.

newest({Service, NodeId}, {_, _, Resource} = Device) ->
    JID = jid(Device),
    case ask(?SQL("select @(c.number)d, @(c.via)s from pubsub_node n join pubsub_device_account a on a.jid=%(JID)s "
                  "join pubsub_device d on d.account=a.id and d.resource=%(Resource)s "
                  "join pubsub_device_copy c on c.device=d.id and c.node=n.nodeid "
                  "where n.host=%(Service)s and n.node=%(NodeId)s order by c.number desc limit 1")) of
        {selected, [{Number, <<"s">>}]} -> {Number, subscription};
        {selected, [{Number, _}]} -> {Number, owner};
        {selected, []} -> none
    end.

nodes_for({_, _, Resource} = Device) ->
    JID = jid(Device),
    {selected, Nodes} = ask(?SQL("select @(n.host)s, @(n.node)s from pubsub_device_account a "
                                 "join pubsub_device d on d.account=a.id and d.resource=%(Resource)s "
                                 "join pubsub_device_queue q on q.device=d.id and q.kept>0 "
                                 "join pubsub_node n on n.nodeid=q.node where a.jid=%(JID)s")),
    Nodes.

each_queue(Fun) -> each_queue(Fun, 0, 0).

each_queue(Fun, Device, Node) ->
    Portion = ?PORTION,
    {selected, Rows} = ask(?SQL("select @(q.device)d, @(q.node)d, @(a.jid)s, @(d.resource)s, @(n.host)s, @(n.node)s "
                                "from pubsub_device_queue q join pubsub_device d on d.id=q.device "
                                "join pubsub_device_account a on a.id=d.account join pubsub_node n on n.nodeid=q.node "
                                "where (q.device, q.node)>(%(Device)d, %(Node)d) and q.kept>0 "
                                "order by q.device, q.node limit %(Portion)d")),
    [Fun(device(JID, Resource), {Service, NodeId}) || {_, _, JID, Resource, Service, NodeId} <- Rows],
    case Rows of
        [] -> ok;
        _ ->
            {LastDevice, LastNode, _, _, _, _} = lists:last(Rows),
            each_queue(Fun, LastDevice, LastNode)
    end.

count({Service, NodeId}, {_, _, Resource} = Device) ->
    JID = jid(Device),
    {selected, Found} = ask(?SQL("select @(q.kept)d from pubsub_device_account a join pubsub_device d on d.account=a.id "
                                 "and d.resource=%(Resource)s join pubsub_node n on n.host=%(Service)s "
                                 "and n.node=%(NodeId)s join pubsub_device_queue q on q.device=d.id and q.node=n.nodeid "
                                 "where a.jid=%(JID)s")),
    lists:sum([Count || {Count} <- Found]).

counts([], _) ->
    [];
counts(Nodes, {_, _, Resource} = Device) ->
    Names = [[$(, text(Service), $,, text(NodeId), $)] || {Service, NodeId} <- lists:usort(Nodes)],
    Found = maps:from_list([{{Service, NodeId}, binary_to_integer(Count)}
                            || [Service, NodeId, Count]
                                   <- rows(["SELECT n.host, n.node, q.kept FROM (VALUES ", list(Names), ") AS v(host, node) "
                                            "JOIN pubsub_node n ON n.host=v.host AND n.node=v.node "
                                            "JOIN pubsub_device_account a ON a.jid=", text(jid(Device)),
                                            " JOIN pubsub_device d ON d.account=a.id AND d.resource=", text(Resource),
                                            " JOIN pubsub_device_queue q ON q.device=d.id AND q.node=n.nodeid"])]),
    [maps:get(Node, Found, 0) || Node <- Nodes].

oldest({_, _, Resource} = Device) ->
    JID = jid(Device),
    case ask(?SQL("select @(n.host)s, @(n.node)s, @(c.number)d from pubsub_device_account a "
                  "join pubsub_device d on d.account=a.id and d.resource=%(Resource)s "
                  "join pubsub_device_copy c on c.device=d.id join pubsub_node n on n.nodeid=c.node "
                  "where a.jid=%(JID)s order by c.number limit 1")) of
        {selected, [{Service, NodeId, Number}]} -> {{Service, NodeId}, Number};
        {selected, []} -> none
    end.
