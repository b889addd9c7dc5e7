%% SPDX-License-Identifier: GPL-3.0-only
%% The requests of the namespace urn:zelt:pubsub:device:0. Keeps no state. A request runs in the process of the
%% session that sent it. Which items a device is sent is in pubsub_device_activation.
-module(pubsub_device_iq).

-export([process/1, decode_iq_subel/1, answer/2, account/1, unnamed/4]).

-include_lib("kernel/include/logger.hrl").
-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

%% The codec does not know the namespace; without this the request would be refused before it gets here.
decode_iq_subel(Element) -> Element.

%% A failure is logged here, without the stanza: it may hold a key.
process(#iq{type = Type, sub_els = [#xmlel{name = Name} = Element]} = IQ) ->
    try request({Type, Name}, Element, IQ)
    catch
        error:{database, _} ->
            xmpp:make_error(IQ, pubsub_device_database:unavailable());
        error:{xmpp_codec, Why} ->
            xmpp:make_error(IQ, xmpp:err_bad_request(xmpp:io_format_error(Why), IQ#iq.lang));
        Class:Reason:Stack ->
            ?LOG_ERROR("The request ~ts failed: ~p", [Name, pubsub_device_fault:told(Class, Reason, Stack)]),
            xmpp:make_error(IQ, xmpp:err_internal_server_error())
    end.

request({set, <<"create-key-node">>}, Element, IQ) -> create_key_node(node_of(Element, IQ), Element, IQ);
request({get, <<"key">>}, Element, #iq{from = From} = IQ) ->
    {Service, NodeId} = Node = node_of(Element, IQ),
    answer(IQ, case pubsub_device_keys:get(Node, account(From)) of
                   {ok, Key} -> {ok, pubsub_device_stanza:key(NodeId, Key, pubsub_device_keys:url(Key), <<>>)};
                   {error, Error} -> {error, unnamed(Service, NodeId, From, Error)}
               end);
request({set, <<"activate">>}, Element, IQ) ->
    case {pubsub_device_stanza:number(fxml:get_tag_attr_s(<<"seqNo">>, Element)), pubsub_device_stanza:limit(Element)} of
        {error, _} -> answer(IQ, {error, xmpp:err_bad_request(<<"seqNo is a number of at most 20 digits">>, <<"en">>)});
        {_, invalid} -> answer(IQ, {error, xmpp:err_bad_request(<<"limit is 1 or absent, and urgency, with it, very-low, low, normal or high">>, <<"en">>)});
        {{ok, Since}, Limit} ->
            %% With an urgency items come in another order, so the number does not stand for all before it.
            Had = case fxml:get_tag_attr(<<"urgency">>, Element) of
                      false -> Since;
                      _ -> {only, Since}
                  end,
            pubsub_device_activation:activate(node_of(Element, IQ), Had, Limit, IQ)
    end;
request({set, <<"activate-nodes">>}, Element, IQ) ->
    pubsub_device_activation:activate_nodes(pubsub_device_stanza:activations(Element), IQ);
request({set, <<"deactivate">>}, Element, IQ) -> pubsub_device_activation:deactivate(node_of(Element, IQ), IQ);
request({get, <<"waiting">>}, Element, #iq{from = From, to = #jid{lserver = Service}} = IQ) ->
    NodeIds = pubsub_device_stanza:named(Element),
    Counts = pubsub_device_store:counts([{Service, NodeId} || NodeId <- NodeIds], jid:tolower(From)),
    pubsub_device_session:spare(1 + length(NodeIds) div 16),
    answer(IQ, {ok, pubsub_device_stanza:waiting(lists:zip(NodeIds, Counts))});
request({set, <<"delete-nodes">>}, Element, #iq{from = From, to = #jid{lserver = Service}} = IQ) ->
    Failed = [{NodeId, Reason} || NodeId <- pubsub_device_stanza:node_ids(Element),
                                  {error, #stanza_error{reason = Reason}}
                                      <- [delete_node(Service, NodeId, From)],
                                  Reason /= 'item-not-found'],
    pubsub_device_session:answer(answer(IQ, {ok, pubsub_device_stanza:nodes(<<"delete-nodes">>, Failed)})),
    ignore;
request({get, <<"trace">>}, Element, #iq{from = From} = IQ) ->
    ItemId = fxml:get_tag_attr_s(<<"id">>, Element),
    pubsub_device_session:spare(4),
    answer(IQ, {ok, pubsub_device_stanza:trace(ItemId, pubsub_device_trace:stations(account(From), ItemId))});
request({set, <<"publish">>}, Element, IQ) -> publish(Element, IQ);
request(_, _, IQ) ->
    answer(IQ, {error, xmpp:err_bad_request(<<"No such request in this namespace">>, <<"en">>)}).

answer(IQ, {ok, Element}) -> xmpp:make_iq_result(IQ, Element);
answer(IQ, {error, Error}) -> xmpp:make_error(IQ, Error).

node_of(Element, #iq{to = #jid{lserver = Service}}) ->
    {Service, fxml:get_tag_attr_s(<<"node">>, Element)}.

account(JID) -> jid:remove_resource(jid:tolower(JID)).

%% A request must not reveal whether another account's name is in use: it is forbidden in both cases.
unnamed(Service, NodeId, From, Error) ->
    case pubsub_device_names:is_foreign(Service, NodeId, account(From)) of
        true -> xmpp:err_forbidden();
        false -> Error
    end.

delete_node(Service, NodeId, From) ->
    case pubsub_device_guard:is_hidden(Service, NodeId, From) of
        true -> {error, xmpp:err_item_not_found()};
        false -> pubsub_device_lock:with({Service, NodeId}, fun() -> mod_pubsub:delete_node(Service, NodeId, From) end)
    end.

%%% key nodes

create_key_node({Service, NodeId} = Node, Element, #iq{from = From} = IQ) ->
    Configure = case fxml:get_subtag_with_xmlns(Element, <<"x">>, ?NS_XDATA) of
                    false -> undefined;
                    Form -> {<<>>, xmpp:decode(Form)}
                end,
    Create = fun() ->
                     Request = IQ#iq{sub_els = [#pubsub{create = NodeId, configure = Configure}]},
                     case mod_pubsub:process_pubsub(Request) of
                         #iq{type = result} -> ok;
                         #iq{type = error} = Refused -> {error, xmpp:get_error(Refused)}
                     end
             end,
    case {NodeId, pubsub_device_keys:push(Element)} of
        {<<>>, _} -> answer(IQ, {error, xmpp:err_bad_request(<<"A key node has a name">>, <<"en">>)});
        {_, {error, _} = Error} -> answer(IQ, Error);
        {_, Push} ->
            Room = pubsub_device_presence:attach(From),
            case is_tuple(Room)
                orelse created(may_create(Service, NodeId, account(From)), Node, account(From), Push, Create) of
                true -> answer(IQ, Room);
                {ok, Key, Status} ->
                    pubsub_device_presence:announce(From),
                    pubsub_device_targets:mark(Node, jid:tolower(From)),
                    pubsub_device_session:answer(answer(IQ, {ok, pubsub_device_stanza:key(NodeId, Key, pubsub_device_keys:url(Key),
                                                                                           Status)})),
                    ignore;
                Error -> answer(IQ, Error)
            end
    end.

created(true, Node, Account, Push, Create) ->
    pubsub_device_lock:with(Node, fun() -> pubsub_device_keys:create(Node, Account, Push, Create) end);
created(Refused, _, _, _, _) ->
    Refused.

%% The name is checked first, so that the refusal is the same whether it is in use or not. A key node of the account
%% itself that existed under such a name before this rule is still found.
may_create(Service, NodeId, Account) ->
    case {pubsub_device_names:refused(Service, NodeId, Account), pubsub_device_store:key_of({Service, NodeId})} of
        {false, _} -> true;
        {_, {_, Account}} -> true;
        {Error, _} -> {error, Error}
    end.

publish(Element, IQ) ->
    Key = fxml:get_tag_attr_s(<<"key">>, Element),
    case fxml:get_subtag(Element, <<"item">>) of
        #xmlel{children = Children} = Item ->
            Payload = [Child || #xmlel{} = Child <- Children],
            answer(IQ, publish(Key, fxml:get_tag_attr_s(<<"id">>, Item), Payload));
        false -> answer(IQ, {error, xmpp:err_bad_request(<<"No item to publish">>, <<"en">>)})
    end.

publish(Key, ItemId, Payload) ->
    Outcome = pubsub_device_stanza:has_payload(Payload) andalso by_key(Key, ItemId, Payload),
    published(pubsub_device_metrics:with_key(key, Outcome)).

%% An application server shows by the signature of its request who it is, which a stanza does not have.
by_key(Key, ItemId, Payload) ->
    case pubsub_device_store:node_of(Key) of
        none -> {error, xmpp:err_item_not_found()};
        {Node, _} = Found ->
            case pubsub_device_store:push_of(Node) of
                {_, none} -> admitted(pubsub_device_bounds:admits(Key), Found, ItemId, Payload);
                _ -> {error, xmpp:err_forbidden(<<"One application server alone publishes here, over HTTP">>, <<"en">>)}
            end
    end.

admitted(ok, Found, ItemId, Payload) -> pubsub_device_publish:to_key_node(Found, ItemId, Payload, none);
admitted(Refused, _, _, _) -> Refused.

published({ok, Published, Number}) ->
    {ok, pubsub_device_stanza:published(Published, Number)};
published({error, _} = Error) ->
    Error;
published(false) ->
    {error, xmpp:err_bad_request(<<"The item has no payload">>, <<"en">>)};
published({wait, Seconds}) ->
    Text = iolist_to_binary(io_lib:format("Too many items for this key; wait ~b s", [Seconds])),
    {error, xmpp:err_resource_constraint(Text, <<"en">>)};
published(full) ->
    {error, xmpp:err_resource_constraint(<<"The service is full; try again later">>, <<"en">>)}.
