%% SPDX-License-Identifier: GPL-3.0-only
%% The rules of the service's node tree, whatever stores the nodes: collections that deliver, the owners of names, and
%% the bounds of an account. A node's parents are those in its own option `pubsub#collection`, read at every delivery,
%% so nothing else is stored and nothing becomes outdated. Deleting a node reads only that node, and publishing never
%% creates one. Keeps no state.
%%
%% A tree module (nodetree_device, nodetree_device_sql) stores the nodes: it has the functions below and passes the
%% engine's calls on to this one. The owners of a node that it reads are in order, the creator last.
-module(pubsub_device_tree).

-export([set_node/2, create_node/7, delete_node/3, get_node/3, get_subnodes_tree/3, get_parentnodes_tree/3]).
-export([is_sql/1, found/1, is_node/1, is_node/2, keep_last_item/1, forget_items/2, listed/4, collections/1]).
-export([use/2, id/1, known/1, by_id/0]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").

-callback read(binary(), binary()) -> [#pubsub_node{}].
-callback write(#pubsub_node{}) -> any().
-callback make(binary(), binary(), binary(), jid:jid(), list(), list()) -> {ok, any()} | {error, any()}.
-callback remove(#pubsub_node{}) -> any().
%% The engine's id of the node. Another member may be creating it: `certain` waits for that.
-callback id({binary(), binary()}, known | certain) -> any() | none.
-callback found({binary(), binary()}) -> {#pubsub_node{}, fun((all | jid:ljid()) -> [#pubsub_state{}])} | none.
%% Deletes the engine's items of the node but the last.
-callback keep_last({binary(), binary()}) -> any().
%% #{Id => Node} of the service's nodes; there may be others in it.
-callback by_id(binary()) -> #{any() => {binary(), binary()}}.
%% Deletes all of the engine's items of the deleted node.
-callback forget_items(Id :: any()) -> any().
%% Names and titles of nodes, from at most `Pages` pages of `Size` nodes, of those whose name passes the test.
-callback list(binary(), pos_integer(), pos_integer(), fun((binary()) -> boolean())) -> [{binary(), binary() | none}].

%%% what the engine calls, with the tree module

set_node(Tree, #pubsub_node{nodeid = {Host, Node}, options = Options, owners = Owners} = Record) ->
    Before = case Tree:read(Host, Node) of
                 [#pubsub_node{options = Old}] -> collections(Old);
                 [] -> []
             end,
    case refused(Tree, Host, collections(Options) -- Before, Owners) of
        false -> Tree:write(Record);
        Error -> Error
    end.

create_node(Tree, Host, Node, Type, Owner, Options, Parents) ->
    Account = jid:tolower(jid:remove_resource(Owner)),
    case {pubsub_device_publish:is_publishing(), pubsub_device_names:refused(Host, Node, Account)} of
        {true, _} -> {error, xmpp:err_item_not_found()};
        {false, false} ->
            Verdicts = [refused(Tree, Host, collections(Options), [Account]), pubsub_device_bounds:node_refused(Account)],
            case [Error || {error, _} = Error <- Verdicts] of
                [] -> made(Tree:make(Host, Node, Type, Owner, Options, Parents), {Host, Node}, Account);
                [Error | _] -> Error
            end;
        {false, Error} -> {error, Error}
    end.

made({ok, _} = Made, Node, Account) -> pubsub_device_store:made(Node, Account), Made;
made(Error, _, _) -> Error.

delete_node(Tree, Host, Node) ->
    Records = Tree:read(Host, Node),
    [begin
         Tree:remove(Record),
         pubsub_device_store:unmade({Host, Node})
     end || Record <- Records],
    Records.

get_node(Tree, Host, Node) ->
    case Tree:read(Host, Node) of
        [Record] -> pubsub_device_publish:found(last_item_alone(Record));
        [] -> {error, xmpp:err_item_not_found(<<"Node not found">>, ejabberd_option:language())}
    end.

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
    end.

get_subnodes_tree(Tree, Host, Node) ->
    Tree:read(Host, Node).

%% The node itself at depth 0, the collections that hold it at 1, those that hold them at 2 and so on.
get_parentnodes_tree(Tree, Host, Node) ->
    case Tree:read(Host, Node) of
        [Record] -> [{0, [Record]} | above(Tree, Host, [Record], 1, [Node])];
        [] -> []
    end.

above(Tree, Host, Records, Depth, Seen) ->
    Found = lists:usort([Parent || Record <- Records, Name <- collections(Record#pubsub_node.options),
                                   not lists:member(Name, Seen), Parent <- Tree:read(Host, Name),
                                   may_hold(Parent, Record#pubsub_node.owners)]),
    Names = [Name || #pubsub_node{nodeid = {_, Name}} <- Found],
    case Found of
        [] -> [];
        _ -> [{Depth, Found} | above(Tree, Host, Found, Depth + 1, Names ++ Seen)]
    end.

%%% what the extension asks

%% Whether the nodes of the service are in a database.
is_sql(Service) -> tree(Service) == nodetree_device_sql.

%% Each service says at its start which module stores its nodes; it is asked for each item.
use(Service, Tree) -> persistent_term:put({?MODULE, Service}, Tree).
tree(Service) -> persistent_term:get({?MODULE, Service}, nodetree_device).

%% The engine's id of the node, or none.
id(Node) ->
    case known(Node) of
        none -> certain(Node);
        Id -> Id
    end.

%% #{Id => Node} of all nodes.
by_id() ->
    lists:foldl(fun(Service, Map) -> maps:merge(Map, (tree(Service)):by_id(Service)) end, #{},
                mod_pubsub_device:services()).

%% {Node, States} or `none`. States(Account) is the account's state as a list, States(all) all states of the node.
found({Service, _} = Node) -> (tree(Service)):found(Node).

%% Whether there is such a node, and whether it has the engine's id.
is_node(Node) -> id(Node) /= none.
is_node(Node, Id) -> known(Node) == Id orelse certain(Node) == Id.

%% The same, of what this member knows.
known({Service, _} = Node) -> (tree(Service)):id(Node, known).
certain({Service, _} = Node) -> (tree(Service)):id(Node, certain).

%% The engine keeps only the last item of a node. Concurrent publications leave more, which nothing else would remove.
keep_last_item({Service, _} = Node) -> (tree(Service)):keep_last(Node).

%% Removes what the engine stored of the deleted node with this id: it may have stored an item meanwhile.
forget_items(_, unknown) -> ok;
forget_items({Service, _}, Id) -> (tree(Service)):forget_items(Id).

listed(Service, Size, Pages, Passes) -> (tree(Service)):list(Service, Size, Pages, Passes).

%%% collections

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

refused(Tree, Host, Names, Owners) ->
    case [Verdict || Name <- Names, Verdict <- [verdict(Tree, Host, Name, Owners)], Verdict /= false] of
        [First | _] -> First;
        [] -> false
    end.

%% A collection under another account's name is forbidden whether it exists or not, unless its owner opened it.
verdict(Tree, Host, Name, Owners) ->
    {IsCollection, Holds} = case Tree:read(Host, Name) of
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
