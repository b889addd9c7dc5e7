%% SPDX-License-Identifier: GPL-3.0-only
%% The node tree of a service whose nodes are in mnesia: ejabberd's own tree with the rules of pubsub_device_tree. The
%% id of a deleted node is never reused.
-module(nodetree_device).
-behaviour(gen_pubsub_nodetree).
-behaviour(pubsub_device_tree).

-export([init/3, terminate/2, options/0, set_node/1, get_node/3, get_node/2, get_node/1, get_nodes/2, get_nodes/1,
         get_all_nodes/1, get_parentnodes/3, get_parentnodes_tree/3, get_subnodes/3, get_subnodes_tree/3,
         create_node/6, delete_node/2]).
-export([read/2, write/1, make/6, remove/1, id/2, found/1, keep_last/1, forget_items/1, by_id/1, list/4]).
-export([has_items/1, store_no_items/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").

init(Host, ServerHost, Opts) ->
    pubsub_device_tree:use(Host, ?MODULE),
    nodetree_tree:init(Host, ServerHost, Opts).

terminate(Host, ServerHost) -> nodetree_tree:terminate(Host, ServerHost).
options() -> nodetree_tree:options().
get_node(Host, Node, _From) -> get_node(Host, Node).
get_node(Host, Node) -> pubsub_device_tree:get_node(?MODULE, Host, Node).
get_node(Nidx) -> nodetree_tree:get_node(Nidx).
get_nodes(Host, Limit) -> nodetree_tree:get_nodes(Host, Limit).
get_nodes(Host) -> nodetree_tree:get_nodes(Host).
get_all_nodes(Host) -> nodetree_tree:get_all_nodes(Host).
get_parentnodes(Host, Node, From) -> nodetree_tree:get_parentnodes(Host, Node, From).
get_parentnodes_tree(Host, Node, _From) -> pubsub_device_tree:get_parentnodes_tree(?MODULE, Host, Node).
get_subnodes(Host, Node, Limit) -> nodetree_tree:get_subnodes(Host, Node, Limit).
get_subnodes_tree(Host, Node, _From) -> pubsub_device_tree:get_subnodes_tree(?MODULE, Host, Node).
set_node(Record) -> pubsub_device_tree:set_node(?MODULE, Record).
delete_node(Host, Node) -> pubsub_device_tree:delete_node(?MODULE, Host, Node).

create_node(Host, Node, Type, Owner, Options, Parents) ->
    pubsub_device_tree:create_node(?MODULE, Host, Node, Type, Owner, Options, Parents).

%%% the nodes

read(Host, Node) -> mnesia:read({pubsub_node, {Host, Node}}).
write(Record) -> nodetree_tree:set_node(Record).
make(Host, Node, Type, Owner, Options, Parents) ->
    nodetree_tree:create_node(Host, Node, Type, Owner, Options, Parents).
remove(#pubsub_node{nodeid = Node}) -> mnesia:delete({pubsub_node, Node}).

id(Node, known) ->
    try ets:lookup_element(pubsub_node, Node, #pubsub_node.id)
    catch error:badarg -> none
    end;
id(Node, certain) ->
    {atomic, Records} = mnesia:transaction(fun() -> mnesia:read({pubsub_node, Node}) end),
    id_of(Records).

id_of([#pubsub_node{id = Nidx}]) -> Nidx;
id_of([]) -> none.

found(Node) ->
    case ets:lookup(pubsub_node, Node) of
        [#pubsub_node{id = Id} = Found] ->
            {Found, fun(all) -> mnesia:dirty_index_read(pubsub_state, Id, #pubsub_state.nodeidx);
                       (Account) -> ets:lookup(pubsub_state, {Account, Id})
                    end};
        [] -> none
    end.

keep_last(Node) ->
    [mnesia:dirty_delete(pubsub_item, ItemId)
     || #pubsub_node{id = Nidx} <- mnesia:dirty_read(pubsub_node, Node),
        #pubsub_item{itemid = ItemId} <- older(mnesia:dirty_index_read(pubsub_item, Nidx, #pubsub_item.nodeidx))],
    ok.

forget_items(Id) ->
    [mnesia:dirty_delete(pubsub_item, ItemId)
     || #pubsub_item{itemid = ItemId} <- mnesia:dirty_index_read(pubsub_item, Id, #pubsub_item.nodeidx)],
    ok.

%% Whether there is such a node and the engine has stored items of it.
has_items(Node) ->
    case mnesia:dirty_read(pubsub_node, Node) of
        [#pubsub_node{id = Id}] -> mnesia:dirty_index_read(pubsub_item, Id, #pubsub_item.nodeidx) /= [];
        [] -> false
    end.

%% From now on the engine stores no items of the node, and those that it has are removed.
store_no_items(Node) ->
    Change = fun() ->
                     [mnesia:write(Record#pubsub_node{options = lists:keystore(persist_items, 1, Options,
                                                                               {persist_items, false})})
                      || #pubsub_node{options = Options} = Record <- mnesia:read(pubsub_node, Node, write)]
             end,
    {atomic, _} = mnesia:transaction(Change),
    [begin
         forget_items(Id),
         [mnesia:dirty_write(State#pubsub_state{items = []})
          || #pubsub_state{items = [_ | _]} = State <- mnesia:dirty_index_read(pubsub_state, Id, #pubsub_state.nodeidx)]
     end || #pubsub_node{id = Id} <- mnesia:dirty_read(pubsub_node, Node)],
    ok.

%% Others publish at the same time, so the list may be empty.
older([]) -> [];
older(Items) -> tl(lists:reverse(lists:keysort(#pubsub_item.modification, Items))).

by_id(_) ->
    Add = fun(#pubsub_node{nodeid = {Service, _} = Node, id = Id}, Map) when is_binary(Service) -> Map#{Id => Node};
             (_, Map) -> Map
          end,
    ets:foldl(Add, #{}, pubsub_node).

list(Service, Size, Pages, Passes) ->
    Pattern = [{#pubsub_node{nodeid = {Service, '_'}, parents = [], _ = '_'}, [], ['$_']}],
    mnesia:async_dirty(fun() -> pages(mnesia:select(pubsub_node, Pattern, Size, read), Passes, Pages) end).

pages('$end_of_table', _, _) ->
    [];
pages(_, _, 0) ->
    [];
pages({Nodes, Continuation}, Passes, Left) ->
    [{NodeId, proplists:get_value(title, Options, none)}
     || #pubsub_node{nodeid = {_, NodeId}, options = Options} <- Nodes, Passes(NodeId)]
        ++ pages(mnesia:select(Continuation), Passes, Left - 1).
