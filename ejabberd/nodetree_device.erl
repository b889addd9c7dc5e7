%% SPDX-License-Identifier: GPL-3.0-only
%% The node tree of the pub-sub service: ejabberd's own tree, with collections that deliver. A node's parents are
%% those in its own option `pubsub#collection`, read at every delivery, so nothing else is stored and nothing becomes
%% outdated. Deleting a node reads only that node (ejabberd's own tree reads every node), and publishing never creates
%% one. The id of a deleted node is never reused.
-module(nodetree_device).
-behaviour(gen_pubsub_nodetree).

-export([init/3, terminate/2, options/0, set_node/1, get_node/3, get_node/2, get_node/1, get_nodes/2, get_nodes/1,
         get_all_nodes/1, get_parentnodes/3, get_parentnodes_tree/3, get_subnodes/3, get_subnodes_tree/3,
         create_node/6, delete_node/2, is_node/1, is_node/2]).
-export([keep_last_item/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").

init(Host, ServerHost, Opts) -> nodetree_tree:init(Host, ServerHost, Opts).
terminate(Host, ServerHost) -> nodetree_tree:terminate(Host, ServerHost).
options() -> nodetree_tree:options().
get_node(Host, Node, From) -> pubsub_device_publish:found(nodetree_tree:get_node(Host, Node, From)).
get_node(Host, Node) -> pubsub_device_publish:found(last_item_alone(nodetree_tree:get_node(Host, Node))).
get_node(Nidx) -> nodetree_tree:get_node(Nidx).
get_nodes(Host, Limit) -> nodetree_tree:get_nodes(Host, Limit).
get_nodes(Host) -> nodetree_tree:get_nodes(Host).
get_all_nodes(Host) -> nodetree_tree:get_all_nodes(Host).
get_parentnodes(Host, Node, From) -> nodetree_tree:get_parentnodes(Host, Node, From).
get_subnodes(Host, Node, Limit) -> nodetree_tree:get_subnodes(Host, Node, Limit).

get_subnodes_tree(Host, Node, _From) ->
    read(Host, Node).

set_node(#pubsub_node{nodeid = {Host, Node}, options = Options, owners = Owners} = Record) ->
    Before = case read(Host, Node) of
                 [#pubsub_node{options = Old}] -> collections(Old);
                 [] -> []
             end,
    case refused(Host, collections(Options) -- Before, Owners) of
        false -> nodetree_tree:set_node(Record);
        Error -> Error
    end.

create_node(Host, Node, Type, Owner, Options, Parents) ->
    Account = jid:tolower(jid:remove_resource(Owner)),
    case {pubsub_device_publish:is_publishing(), pubsub_device_names:refused(Host, Node, Account)} of
        {true, _} -> {error, xmpp:err_item_not_found()};
        {false, false} ->
            Verdicts = [refused(Host, collections(Options), [Account]), pubsub_device_bounds:node_refused(Account)],
            case [Error || {error, _} = Error <- Verdicts] of
                [] -> made(nodetree_tree:create_node(Host, Node, Type, Owner, Options, Parents), {Host, Node}, Account);
                [Error | _] -> Error
            end;
        {false, Error} -> {error, Error}
    end.

made({ok, _} = Made, Node, Account) -> pubsub_device_store:made(Node, Account), Made;
made(Error, _, _) -> Error.

delete_node(Host, Node) ->
    Records = read(Host, Node),
    [begin
         mnesia:delete({pubsub_node, {Host, Node}}),
         pubsub_device_store:unmade({Host, Node})
     end || _ <- Records],
    Records.

%% Whether there is such a node, and whether it has the engine's id. Another member of a cluster may be creating it:
%% "no" is answered only after a read in a transaction, which waits for that.
is_node(Node) -> known_id(Node) /= none orelse certain_id(Node) /= none.
is_node(Node, Id) -> known_id(Node) == Id orelse certain_id(Node) == Id.

known_id(Node) -> id(mnesia:dirty_read(pubsub_node, Node)).

certain_id(Node) ->
    {atomic, Records} = mnesia:transaction(fun() -> mnesia:read({pubsub_node, Node}) end),
    id(Records).

id([#pubsub_node{id = Nidx}]) -> Nidx;
id([]) -> none.

%% Whatever a node's options say, the engine keeps one item when it publishes, and sends no notification that another
%% was removed.
last_item_alone(#pubsub_node{options = Options} = Node) ->
    case pubsub_device_publish:is_publishing() of
        true ->
            Kept = case proplists:get_value(max_items, Options) of
                       0 -> 0;
                       _ -> 1
                   end,
            Alone = [{max_items, Kept}, {notify_retract, false}],
            Node#pubsub_node{options = lists:ukeymerge(1, Alone, lists:ukeysort(1, Options))};
        false -> Node
    end;
last_item_alone(Error) ->
    Error.

%% The engine keeps only the last item of a node. Concurrent publications leave more, which nothing else would remove.
keep_last_item({Service, NodeId}) ->
    [mnesia:dirty_delete(pubsub_item, ItemId)
     || #pubsub_node{id = Nidx} <- mnesia:dirty_read(pubsub_node, {Service, NodeId}),
        #pubsub_item{itemid = ItemId} <- older(mnesia:dirty_index_read(pubsub_item, Nidx, #pubsub_item.nodeidx))],
    ok.

%% Others publish at the same time, so the list may be empty.
older([]) -> [];
older(Items) -> tl(lists:reverse(lists:keysort(#pubsub_item.modification, Items))).

%% The node itself at depth 0, the collections that hold it at 1, those that hold them at 2 and so on.
get_parentnodes_tree(Host, Node, _From) ->
    case read(Host, Node) of
        [Record] -> [{0, [Record]} | above(Host, [Record], 1, [Node])];
        [] -> []
    end.

above(Host, Records, Depth, Seen) ->
    Found = lists:usort([Parent || Record <- Records, Name <- collections(Record#pubsub_node.options),
                                   not lists:member(Name, Seen), Parent <- read(Host, Name),
                                   may_hold(Parent, Record#pubsub_node.owners)]),
    Names = [Name || #pubsub_node{nodeid = {_, Name}} <- Found],
    case Found of
        [] -> [];
        _ -> [{Depth, Found} | above(Host, Found, Depth + 1, Names ++ Seen)]
    end.

%% A collection accepts nodes that one of its own owners created, and any node when its owner opened it with the
%% association policy. The creator of a node is the last of its owners; the others do not count here, since anybody
%% can be named an owner without being asked. This is checked again at delivery: a collection that was deleted and
%% created again by another account delivers nothing.
may_hold(#pubsub_node{options = Options, owners = Owners}, ChildOwners) ->
    proplists:get_value(node_type, Options) == collection
        andalso (lists:member(maker(ChildOwners), Owners)
                 orelse proplists:get_value(children_association_policy, Options) == all).

maker([]) -> none;
maker(Owners) -> lists:last(Owners).

refused(Host, Names, Owners) ->
    case [Verdict || Name <- Names, Verdict <- [verdict(Host, Name, Owners)], Verdict /= false] of
        [First | _] -> First;
        [] -> false
    end.

%% A collection under another account's name is forbidden whether it exists or not, unless its owner opened it.
verdict(Host, Name, Owners) ->
    {IsCollection, Holds} = case read(Host, Name) of
                                [#pubsub_node{options = Options} = Parent] ->
                                    {proplists:get_value(node_type, Options) == collection, may_hold(Parent, Owners)};
                                [] -> {false, false}
                            end,
    case Holds orelse IsCollection orelse pubsub_device_names:is_foreign(Host, Name, maker(Owners)) of
        _ when Holds -> false;
        true -> {error, xmpp:err_forbidden()};
        false -> {error, xmpp:err_item_not_found()}
    end.

collections(Options) ->
    case proplists:get_value(collection, Options) of
        Names when is_list(Names) -> [Name || Name <- Names, Name /= <<>>];
        Name when is_binary(Name), Name /= <<>> -> [Name];
        _ -> []
    end.

read(Host, Node) ->
    mnesia:read({pubsub_node, {Host, Node}}).
