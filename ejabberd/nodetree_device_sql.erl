%% SPDX-License-Identifier: GPL-3.0-only
%% The node tree of a service whose nodes are in a database (db_type: sql of mod_pubsub): ejabberd's own tables with the
%% rules of pubsub_device_tree. The id of a deleted node is never reused: it comes from a sequence.
-module(nodetree_device_sql).
-behaviour(gen_pubsub_nodetree).
-behaviour(pubsub_device_tree).

-export([init/3, terminate/2, options/0, set_node/1, get_node/3, get_node/2, get_node/1, get_nodes/2, get_nodes/1,
         get_all_nodes/1, get_parentnodes/3, get_parentnodes_tree/3, get_subnodes/3, get_subnodes_tree/3,
         create_node/6, delete_node/2]).
-export([read/2, write/1, make/6, remove/1, id/2, found/1, keep_last/1, forget_items/1, by_id/1, list/4]).
-export([pending/2, keep_returns/3]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").
-include_lib("ejabberd/include/ejabberd_sql_pt.hrl").

-import(pubsub_device_database, [ask/1]).

init(Host, ServerHost, Opts) ->
    pubsub_device_tree:use(Host, ?MODULE),
    nodetree_tree_sql:init(Host, ServerHost, Opts).

terminate(Host, ServerHost) -> nodetree_tree_sql:terminate(Host, ServerHost).
options() -> nodetree_tree_sql:options().
get_node(Host, Node, _From) -> get_node(Host, Node).
get_node(Host, Node) -> pubsub_device_tree:get_node(?MODULE, Host, Node).
get_node(Nidx) -> nodetree_tree_sql:get_node(Nidx).
get_nodes(Host, Limit) -> nodetree_tree_sql:get_nodes(Host, Limit).
get_nodes(Host) -> nodetree_tree_sql:get_nodes(Host).
get_all_nodes(Host) -> nodetree_tree_sql:get_all_nodes(Host).
get_parentnodes(Host, Node, From) -> nodetree_tree_sql:get_parentnodes(Host, Node, From).
get_parentnodes_tree(Host, Node, _From) -> pubsub_device_tree:get_parentnodes_tree(?MODULE, Host, Node).
get_subnodes(Host, Node, Limit) -> nodetree_tree_sql:get_subnodes(Host, Node, Limit).
get_subnodes_tree(Host, Node, _From) -> pubsub_device_tree:get_subnodes_tree(?MODULE, Host, Node).
set_node(Record) -> pubsub_device_tree:set_node(?MODULE, Record).
delete_node(Host, Node) -> pubsub_device_tree:delete_node(?MODULE, Host, Node).

create_node(Host, Node, Type, Owner, Options, Parents) ->
    pubsub_device_tree:create_node(?MODULE, Host, Node, Type, Owner, Options, Parents).

%%% the nodes: the engine calls these in the process of a database connection

%% The engine's rows of a node's affiliations are made in the order in which accounts got them, the creator's first.
read(Host, Node) ->
    case nodetree_tree_sql:get_node(Host, Node) of
        #pubsub_node{id = Nidx} = Record ->
            {selected, Owners} = ejabberd_sql:sql_query_t(
                                   ?SQL("select @(jid)s from pubsub_state where nodeid=%(Nidx)d and affiliation='o' "
                                        "order by stateid desc")),
            [Record#pubsub_node{owners = [jid:tolower(jid:decode(Owner)) || {Owner} <- Owners]}];
        {error, #stanza_error{reason = 'item-not-found'}} -> [];
        {error, Error} -> ejabberd_sql:restart(Error)
    end.

write(Record) -> nodetree_tree_sql:set_node(Record).

make(Host, Node, Type, Owner, Options, Parents) ->
    nodetree_tree_sql:create_node(Host, Node, Type, Owner, Options, Parents).

%% The rows that refer to the node go with it.
remove(#pubsub_node{id = Nidx}) -> ejabberd_sql:sql_query_t(?SQL("delete from pubsub_node where nodeid=%(Nidx)d")).

id({Service, NodeId}, _) ->
    case ask(?SQL("select @(nodeid)d from pubsub_node where host=%(Service)s and node=%(NodeId)s")) of
        {selected, [{Nidx}]} -> Nidx;
        {selected, []} -> none
    end.

%% One statement: options and states come as texts, whose parts no XML character separates.
found({Service, NodeId} = Node) ->
    case ask(?SQL("select @(n.nodeid)d, @(n.plugin)s, @(coalesce((select string_agg(o.name || chr(1) || o.val, chr(2) "
                  "order by o.name) from pubsub_node_option o where o.nodeid=n.nodeid), ''))s, "
                  "@(coalesce((select string_agg(s.jid || chr(1) || s.affiliation || chr(1) || s.subscriptions, chr(2)) "
                  "from pubsub_state s where s.nodeid=n.nodeid), ''))s from pubsub_node n "
                  "where n.host=%(Service)s and n.node=%(NodeId)s")) of
        {selected, [{Id, Type, Options, States}]} ->
            {#pubsub_node{nodeid = Node, id = Id, type = Type,
                          options = pubsub_device_database:cached(Options, fun options/1)},
             fun(all) -> [state(Each) || Each <- parts(States, <<2>>)];
                (Account) ->
                     Name = jid:encode(Account),
                     [state(Each) || Each <- parts(States, <<2>>), hd(parts(Each, <<1>>)) == Name]
             end};
        {selected, []} -> none
    end.

parts(<<>>, _) -> [];
parts(Text, Separator) -> binary:split(Text, Separator, [global]).

%% As the engine reads them.
options(Text) ->
    Stored = [begin
                  [Name, Value] = parts(Each, <<1>>),
                  {binary_to_existing_atom(Name), ejabberd_sql:decode_term(Value)}
              end || Each <- parts(Text, <<2>>)],
    lists:foldl(fun({Name, _} = Each, Options) -> lists:keystore(Name, 1, Options, Each) end, node_flat_sql:options(),
                Stored).

state(Text) ->
    [JID, Affiliation, Subscriptions] = parts(Text, <<1>>),
    #pubsub_state{stateid = {jid:tolower(jid:decode(JID)), none},
                  affiliation = proplists:get_value(Affiliation, [{<<"o">>, owner}, {<<"p">>, publisher},
                                                                  {<<"u">>, publish_only}], none),
                  subscriptions = [{subscribed, SubId} || <<"s:", SubId/binary>> <- parts(Subscriptions, <<",">>)]}.

keep_last({Service, NodeId}) ->
    ask(?SQL("delete from pubsub_item using pubsub_node n where n.host=%(Service)s and n.node=%(NodeId)s "
                        "and pubsub_item.nodeid=n.nodeid and itemid<>(select itemid from pubsub_item i where "
                        "i.nodeid=n.nodeid order by modification desc limit 1)")).

%% Its rows refer to the node.
forget_items(_) -> ok.

by_id(Service) ->
    {selected, Nodes} = ask(?SQL("select @(nodeid)d, @(node)s from pubsub_node where host=%(Service)s")),
    maps:from_list([{Nidx, {Service, NodeId}} || {Nidx, NodeId} <- Nodes]).

%% The nodes of the owner for which somebody waits to be approved.
pending(Service, Owner) ->
    Account = jid:encode(jid:remove_resource(jid:tolower(Owner))),
    {selected, Nodes} = ask(?SQL("select @(n.node)s from pubsub_state o "
                                            "join pubsub_node n on n.nodeid=o.nodeid where o.jid=%(Account)s "
                                            "and o.affiliation='o' and n.host=%(Service)s and exists (select 1 "
                                            "from pubsub_state p where p.nodeid=o.nodeid "
                                            "and p.subscriptions ~ '(^|,)p:')")),
    [NodeId || {NodeId} <- Nodes].

%% Stores the payload of the engine's item again when it has carriage returns.
keep_returns({Service, NodeId}, ItemId, Payload) ->
    Text = iolist_to_binary([fxml:element_to_binary(Element) || Element <- Payload]),
    case binary:match(Text, <<"\r">>) of
        nomatch -> ok;
        _ ->
            Escaped = binary:replace(Text, <<"\r">>, <<"&#13;">>, [global]),
            ask(?SQL("update pubsub_item set payload=%(Escaped)s from pubsub_node n "
                                "where n.host=%(Service)s and n.node=%(NodeId)s and pubsub_item.nodeid=n.nodeid "
                                "and itemid=%(ItemId)s"))
    end.

%% Sorted by name, page after page.
list(Service, Size, Pages, Passes) -> list(Service, Size, Pages, Passes, <<>>).

list(_, _, 0, _, _) ->
    [];
list(Service, Size, Pages, Passes, After) ->
    {selected, Rows} = ask(?SQL("select @(n.node)s, @(coalesce(o.val, ''))s from pubsub_node n "
                                           "left join pubsub_node_option o on o.nodeid=n.nodeid and o.name='title' "
                                           "where n.host=%(Service)s and n.parent='' and n.node>%(After)s "
                                           "order by n.node limit %(Size)d")),
    Listed = [{NodeId, title(Title)} || {NodeId, Title} <- Rows, Passes(NodeId)],
    case length(Rows) of
        Size -> Listed ++ list(Service, Size, Pages - 1, Passes, element(1, lists:last(Rows)));
        _ -> Listed
    end.

title(<<>>) -> none;
title(Value) -> ejabberd_sql:decode_term(Value).

