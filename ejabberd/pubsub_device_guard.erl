%% SPDX-License-Identifier: GPL-3.0-only
%% What other accounts may not do: subscribe somebody else, read or change the options of a subscription, learn of key
%% nodes, or send what a device's parser cannot handle. Checked before the engine sees the request, in the process
%% that sends it. Keeps no state.
-module(pubsub_device_guard).

-export([judge/2, spare/1, is_hidden/3, on_receive/3]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").
-include("pubsub_device.hrl").

%% No client needs a stanza of this depth, and the server's own encoder recurses on a small stack.
-define(MAX_DEPTH, 256).

%% Whether the service accepts the stanza: ok or {error, Error}.
judge(Service, Stanza) ->
    case {has_stream_element(xmpp:get_els(Stanza)), Stanza} of
        {true, _} -> {error, stream_element()};
        {false, #iq{type = Type}} when Type == get; Type == set ->
            case pubsub_device_database:is_away() of
                true -> {error, pubsub_device_database:unavailable()};
                false -> judge_request(Service, Stanza)
            end;
        {false, #message{type = Type, sub_els = Elements}} when Type /= error ->
            judge_nodes(Service, xmpp:get_from(Stanza), form_nodes(Elements));
        _ -> ok
    end.

%% The same for a stanza to another receiver: accounts with devices do not get what would end their streams.
spare(Stanza) ->
    case has_stream_element(xmpp:get_els(Stanza))
        andalso pubsub_device_store:devices(jid:tolower(xmpp:get_to(Stanza))) of
        [_ | _] -> {error, stream_element()};
        _ -> ok
    end.

%%% elements that parsers treat specially

%% A parser that compares prefixes as text takes such an element for one of the stream itself, and never ends it.
has_stream_element(Elements) ->
    lists:any(fun(#xmlel{name = <<"stream:", _/binary>>}) -> true;
                 (#xmlel{children = Children}) -> has_stream_element(Children);
                 (_) -> false
              end, Elements).

stream_element() ->
    xmpp:err_not_acceptable(<<"An element with the prefix of the stream cannot be sent to a device">>, <<"en">>).

%% A stanza nested too deep ends the stream that sends it, before it is answered or routed.
on_receive(State, Element, _) ->
    case is_deeper(Element, ?MAX_DEPTH) of
        true ->
            pubsub_device_metrics:count({refused, depth}),
            xmpp_stream_in:send(State, xmpp:serr_policy_violation(<<"XML stanza is nested too deep">>, <<"en">>));
        false -> State
    end.

is_deeper(#xmlel{}, 0) -> true;
is_deeper(#xmlel{children = Children}, Left) -> lists:any(fun(Child) -> is_deeper(Child, Left - 1) end, Children);
is_deeper(_, _) -> false.

%%% requests

judge_request(Service, #iq{from = From, sub_els = [#xmlel{name = <<"pubsub">>, children = Children} = Element]} = IQ) ->
    Nodes = [fxml:get_tag_attr_s(<<"node">>, Child) || #xmlel{name = Name} = Child <- Children, Name /= <<"create">>],
    case judge_nodes(Service, From, Nodes) of
        ok ->
            case [Name || #xmlel{name = Name} <- Children, lists:member(Name, [<<"subscriptions">>, <<"affiliations">>,
                                                                               <<"options">>])] of
                [] -> ok;
                _ -> judge_others(Service, IQ, decode(Element))
            end;
        Error -> Error
    end;
judge_request(Service, #iq{from = From, sub_els = [#xmlel{name = <<"command">>, children = Children}]}) ->
    judge_nodes(Service, From, form_nodes(Children));
judge_request(_, _) ->
    ok.

%% What the codec cannot decode, the engine refuses.
decode(Element) ->
    try xmpp:decode(Element)
    catch error:{xmpp_codec, _} -> invalid
    end.

judge_others(Service, #iq{type = set, from = From}, #pubsub_owner{subscriptions = {NodeId, [_ | _] = Entities}}) ->
    judge_owner(Service, NodeId, From, fun(Node) -> [set_subscription(Node, From, Each) || Each <- Entities] end);
judge_others(Service, #iq{type = set, from = From}, #pubsub_owner{affiliations = {NodeId, [_ | _] = Entities}}) ->
    judge_owner(Service, NodeId, From, fun(Node) -> [set_affiliation(Node, From, Each) || Each <- Entities] end);
judge_others(_, #iq{from = From}, #pubsub{subscribe = undefined, options = #ps_options{jid = #jid{} = JID}}) ->
    case account(JID) == account(From) of
        true -> ok;
        false -> {error, xmpp:err_forbidden(<<"The options are another account's">>, <<"en">>)}
    end;
judge_others(_, _, _) ->
    ok.

%% All or nothing: everything is checked before anything is changed. The engine refuses requests of others than
%% owners.
judge_owner(Service, NodeId, From, Judge) ->
    case mod_pubsub:tree_action(Service, get_node, [Service, NodeId]) of
        #pubsub_node{owners = Owners} = Node ->
            case lists:member(account(From), Owners) andalso [Refused || {error, _} = Refused <- Judge(Node)] of
                [First | _] -> First;
                _ -> ok
            end;
        _ -> ok
    end.

set_subscription(_, _, #ps_subscription{type = none}) ->
    ok;
set_subscription(Node, From, #ps_subscription{jid = JID, subid = SubId}) ->
    case {subscriptions(Node, JID), account(JID) == account(From)} of
        {[], true} -> ok;
        {[], false} ->
            {error, xmpp:err_forbidden(<<"Only who asked for a subscription is given one">>, <<"en">>)};
        {Known, _} ->
            case SubId == <<>> orelse lists:keymember(SubId, 2, Known) of
                true -> ok;
                false -> {error, mod_pubsub:extended_error(xmpp:err_not_acceptable(), mod_pubsub:err_invalid_subid())}
            end
    end.

%% Owners receive the authorisation forms, so nobody becomes one without having subscribed.
set_affiliation(#pubsub_node{owners = Owners} = Node, From, #ps_affiliation{type = owner, jid = JID}) ->
    Account = account(JID),
    case Account == account(From) orelse lists:member(Account, Owners) orelse has_asked(Node, Account) of
        true -> ok;
        false -> {error, xmpp:err_forbidden(<<"Only a subscriber of the node is made its owner">>, <<"en">>)}
    end;
set_affiliation(_, _, _) ->
    ok.

subscriptions(#pubsub_node{nodeid = {Service, _}, type = Type, id = Nidx}, JID) ->
    case mod_pubsub:node_action(Service, Type, get_subscriptions, [Nidx, jid:tolower(JID)]) of
        {result, Known} -> Known;
        _ -> []
    end.

has_asked(#pubsub_node{nodeid = {Service, _}, type = Type, id = Nidx}, Account) ->
    case mod_pubsub:node_action(Service, Type, get_node_subscriptions, [Nidx]) of
        {result, Known} -> lists:any(fun(Each) -> account(element(1, Each)) == Account end, Known);
        _ -> false
    end.

account(#jid{} = JID) -> account(jid:tolower(JID));
account(LJID) -> jid:remove_resource(LJID).

%%% key nodes of others

%% A request for a closed key node of another account is answered as for a node that does not exist.
judge_nodes(Service, From, Nodes) ->
    case [NodeId || NodeId <- Nodes, NodeId /= <<>>, is_hidden(Service, NodeId, From)] of
        [] -> ok;
        _ -> {error, xmpp:err_item_not_found(<<"Node not found">>, <<"en">>)}
    end.

%% A closed key node is hidden from accounts that neither own it nor have an affiliation or subscription. Under a name
%% that is free to all it cannot be hidden: whoever tries to create a node of that name learns that it exists.
is_hidden(Service, NodeId, From) ->
    case pubsub_device_store:key_of({Service, NodeId}) of
        none -> false;
        {_, Owner} ->
            account(From) /= Owner andalso pubsub_device_names:is_foreign(Service, NodeId, account(From))
                andalso is_closed(Service, NodeId, From)
    end.

is_closed(Service, NodeId, From) ->
    case mod_pubsub:tree_action(Service, get_node, [Service, NodeId]) of
        #pubsub_node{options = Options, owners = Owners, type = Type, id = Nidx} = Node ->
            proplists:get_value(access_model, Options) == whitelist
                andalso not lists:member(account(From), Owners)
                andalso mod_pubsub:node_action(Service, Type, get_affiliation, [Nidx, From]) == {result, none}
                andalso subscriptions(Node, From) == []
                andalso subscriptions(Node, jid:remove_resource(From)) == [];
        _ -> false
    end.

form_nodes(Elements) ->
    [fxml:get_subtag_cdata(Field, <<"value">>)
     || #xmlel{name = <<"x">>, children = Fields} <- Elements, #xmlel{name = <<"field">>} = Field <- Fields,
        fxml:get_tag_attr_s(<<"var">>, Field) == <<"pubsub#node">>].
