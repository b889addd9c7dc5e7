%% SPDX-License-Identifier: GPL-3.0-only
%% Service discovery of the service and its nodes: the engine's answers with our feature, and without the key nodes of
%% other accounts. Keeps no state.
-module(pubsub_device_disco).

-export([process_info/1, process_items/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

-define(AUTO_CREATE, <<"http://jabber.org/protocol/pubsub#auto-create">>).

%% The engine gives one page of names; up to this many pages are read to replace names that are hidden.
-define(PAGES, 20).

%% Adds our feature, and removes the one that the node tree does not have.
process_info(#iq{sub_els = [#disco_info{node = NodeId}]} = IQ) ->
    case parts(NodeId) of
        [] when NodeId /= <<>> -> not_found(IQ);
        [Name | _] -> info(is_hidden(Name, IQ), IQ);
        [] -> info(false, IQ)
    end.

info(true, IQ) ->
    not_found(IQ);
info(false, IQ) ->
    case mod_pubsub:process_disco_info(IQ) of
        #iq{type = result, sub_els = [#disco_info{node = <<>>, features = Features} = Info]} = Result ->
            Result#iq{sub_els = [Info#disco_info{features = [?NS_DEVICE | Features -- [?AUTO_CREATE]]}]};
        Result -> Result
    end.

process_items(#iq{type = get, from = From, to = #jid{lserver = Service},
                  sub_els = [#disco_items{node = <<>>}]} = IQ) ->
    xmpp:make_iq_result(IQ, #disco_items{items = [item(Service, Node) || Node <- visible(Service, From)]});
process_items(#iq{sub_els = [#disco_items{node = NodeId}]} = IQ) ->
    Known = case parts(NodeId) of
                [Name] -> not is_hidden(Name, IQ);
                Parts -> length(Parts) == 2  % the engine's answer does not tell whether an item exists
            end,
    case Known of
        true -> mod_pubsub:process_disco_items(IQ);
        false -> not_found(IQ)
    end.

%% As in the engine: the part after an exclamation mark names an item. The engine does not answer other forms.
parts(NodeId) ->
    binary:split(NodeId, <<"!">>, [global, trim_all]).

is_hidden(NodeId, #iq{from = From, to = #jid{lserver = Service}}) ->
    pubsub_device_guard:is_hidden(Service, NodeId, From).

is_foreign_key_node(Service, NodeId, From) ->
    case pubsub_device_store:key_of({Service, NodeId}) of
        none -> false;
        {_, Owner} -> jid:remove_resource(jid:tolower(From)) /= Owner
    end.

not_found(IQ) ->
    xmpp:make_error(IQ, xmpp:err_item_not_found(<<"Node not found">>, <<"en">>)).

%% Read page by page: hidden nodes must not reduce the number of listed ones.
visible(Service, From) ->
    Limit = mod_pubsub_opt:max_nodes_discoitems(ejabberd_router:host_of_route(Service)),
    Passes = fun(NodeId) -> not is_foreign_key_node(Service, NodeId, From) end,
    first(Limit, pubsub_device_tree:listed(Service, page(Limit), ?PAGES, Passes)).

page(infinity) -> 100;
page(Limit) -> Limit.

first(infinity, Nodes) -> Nodes;
first(Limit, Nodes) -> lists:sublist(Nodes, Limit).

item(Service, {NodeId, none}) -> #disco_item{jid = jid:make(Service), node = NodeId};
item(Service, {NodeId, Title}) -> #disco_item{jid = jid:make(Service), node = NodeId, name = Title}.
