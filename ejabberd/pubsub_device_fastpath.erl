%% SPDX-License-Identifier: GPL-3.0-only
%% Publications that need nothing of the engine: one item with a payload, for a leaf of which the engine stores no items
%% and which delivers to all subscribers alike, or for a key node. The rules are the engine's; what is not plainly
%% permitted is left to the engine, which refuses it.
-module(pubsub_device_fastpath).

-export([publication/4, item_id/0]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").
-include("pubsub_device.hrl").

-import(pubsub_device_stanza, [prepared/1]).

%% {ok, Publication}, or `engine`.
publication(Node, Publisher, ItemId, [#xmlel{}] = Payload) ->
    case pubsub_device_tree:found(Node) of
        {#pubsub_node{type = <<"flat">>} = Found, States} ->
            case is_plain(Found) andalso fits(Payload, Found) andalso may_publish(Publisher, Found, States)
                andalso subscribers(States(all), []) of
                Subscribers when is_list(Subscribers) ->
                    {ok, publication(Found, Publisher, ItemId, Payload, Subscribers)};
                _ -> engine
            end;
        _ -> engine
    end;
publication(_, _, _, _) ->
    engine.

publication(#pubsub_node{nodeid = {Service, NodeId} = Node, id = Id, options = Options}, Publisher, ItemId, Payload,
            Subscribers) ->
    Named = case option(itemreply, Options) of
                publisher -> jid:encode(Publisher);
                _ -> <<>>
            end,
    Item = #ps_item{id = ItemId, publisher = Named, sub_els = Payload},
    Message = #message{type = proplists:get_value(notification_type, Options, headline), from = prepared(Service),
                       sub_els = [#ps_event{items = #ps_items{node = NodeId, items = [Item]}}]},
    {Keep, Live} = pubsub_device_targets:find(Node, Item, [Message#message{to = prepared(To)} || To <- Subscribers]),
    #publication{node = Node, id = Id, item_id = ItemId, item = pubsub_device_stanza:item(Item), keep = Keep,
                 live = Live}.

%% As the engine's ids: unique, and later ones are greater.
item_id() ->
    <<(integer_to_binary(erlang:system_time(microsecond), 16))/binary,
      (integer_to_binary(erlang:unique_integer([positive]), 16))/binary>>.

is_plain(#pubsub_node{nodeid = Node, options = Options}) ->
    option(deliver_notifications, Options) == true andalso option(deliver_payloads, Options) == true
        andalso option(node_type, Options) /= collection
        andalso pubsub_device_tree:collections(Options) == []
        andalso option(presence_based_delivery, Options) == false
        andalso option(broadcast_all_resources, Options) == false
        andalso (is_unstored(Options) orelse pubsub_device_store:key_of(Node) /= none).

is_unstored(Options) ->
    option(persist_items, Options) == false andalso option(send_last_published_item, Options) == never.

option(Name, Options) ->
    case lists:keyfind(Name, 1, Options) of
        {_, Value} -> Value;
        false -> false
    end.

fits(Payload, #pubsub_node{options = Options}) ->
    byte_size(term_to_binary(Payload)) - 2 =< option(max_payload_size, Options).

may_publish(Publisher, #pubsub_node{options = Options}, States) ->
    case option(publish_model, Options) of
        open -> true;
        publishers ->
            case States(jid:remove_resource(jid:tolower(Publisher))) of
                [#pubsub_state{affiliation = Affiliation}] ->
                    lists:member(Affiliation, [owner, publisher, publish_only]);
                [] -> false
            end;
        _ -> false
    end.

%% False if one has two subscriptions, since the notification names both. Subscriptions of this type have no options.
subscribers([#pubsub_state{stateid = {Subscriber, _}, subscriptions = Subscriptions} | States], Found) ->
    case [SubId || {subscribed, SubId} <- Subscriptions] of
        [] -> subscribers(States, Found);
        [_] -> subscribers(States, [Subscriber | Found]);
        _ -> false
    end;
subscribers([], Found) ->
    Found.
