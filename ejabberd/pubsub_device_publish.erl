%% SPDX-License-Identifier: GPL-3.0-only
%% From the engine to the writer. While an item is being published, the publisher's process holds a context: the
%% engine's notifications are collected in it instead of being sent, and the engine's hook passes them to the node's
%% writer. The context lasts for one request; the process dictionary is all that the engine's calls have in common.
%%
%% A session publishes ahead: instead of the session a waiter process waits for the writer, and sends the engine's
%% answer when the item is on disk. The session's requests reach the writer in their order.
-module(pubsub_device_publish).

-export([begin_publish/1, end_publish/0, is_publishing/0, found/1, catch_message/1, hand_over/1, on_publish/6]).
-export([by_key/3]).

-include_lib("kernel/include/logger.hrl").
-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").

-define(CONTEXT, '$pubsub_device_publish').
-define(TIMEOUT, 60000).

%% How: `ahead`, or `waiting` for the result.
begin_publish(How) -> put(?CONTEXT, #{how => How, messages => [], ids => #{}}), ok.
is_publishing() -> get(?CONTEXT) /= undefined.

%% A waiter without an answer to send has nothing to wait for.
end_publish() ->
    case erase(?CONTEXT) of
        #{waiter := Waiter} -> exit(Waiter, kill);
        _ -> ok
    end,
    ok.

%% The engine looks up the node when it stores the item; the node's id distinguishes it from a later one of the same
%% name.
found(#pubsub_node{nodeid = Node, id = Id} = Record) ->
    case get(?CONTEXT) of
        #{ids := Ids} = Context -> put(?CONTEXT, Context#{ids := Ids#{Node => Id}});
        undefined -> ok
    end,
    Record;
found(Other) ->
    Other.

%% Whether the notification belongs to the item that is being published.
catch_message(Message) ->
    case get(?CONTEXT) of
        #{messages := Messages} = Context -> put(?CONTEXT, Context#{messages := [Message | Messages]}), true;
        undefined -> false
    end.

%% Passes the engine's answer to the waiter, if there is one.
hand_over(IQ) ->
    case get(?CONTEXT) of
        #{waiter := Waiter} = Context ->
            Waiter ! {answer, IQ},
            put(?CONTEXT, maps:remove(waiter, Context)),
            true;
        _ -> false
    end.

on_publish(_Host, NodeId, _Publisher, #jid{luser = <<>>, lserver = Service}, ItemId, Payload) ->
    case mod_pubsub_device:is_service(Service) of
        true ->
            Messages = [Message || #message{} = Message <- caught(), has_id(Message, ItemId)],
            Item = case Messages of
                       [First | _] -> pubsub_device_stanza:item_of(First);
                       [] -> #ps_item{id = ItemId, sub_els = Payload}
                   end,
            written(get(?CONTEXT), {Service, NodeId}, {ItemId, Item, Messages, id({Service, NodeId})}),
            nodetree_device:keep_last_item({Service, NodeId});
        false -> ok
    end;
on_publish(_, _, _, _, _, _) ->
    ok.

%% Without a context another part of the server publishes: the item is numbered and kept, and nobody waits for the
%% result.
written(undefined, Node, Publication) ->
    case pubsub_device_writer:call(Node, {publish, Node, Publication}) of
        {ok, _} -> pubsub_device_metrics:count({published, server});
        {error, _} -> pubsub_device_metrics:count({refused, engine})
    end;
written(#{how := ahead} = Context, Node, Publication) ->
    Waiter = spawn(fun() -> wait(Node, Publication) end),
    pubsub_device_writer:publish_ahead(Node, Publication, Waiter),
    pubsub_device_session:began(Waiter),
    put(?CONTEXT, Context#{messages := [], waiter => Waiter}),
    ok;
written(#{how := waiting} = Context, Node, Publication) ->
    Outcome = pubsub_device_writer:call(Node, {publish, Node, Publication}),
    put(?CONTEXT, Context#{messages := [], outcome => Outcome}),
    ok.

wait(Node, Publication) ->
    Monitor = pubsub_device_writer:watch(Node),
    receive
        {answer, IQ} -> ejabberd_router:route(judged(IQ, pubsub_device_writer:await(Node, Publication, Monitor)))
    after ?TIMEOUT -> ok  % the session is gone, and with it the receiver of the answer
    end.

judged(IQ, {ok, _}) ->
    pubsub_device_metrics:count({published, xmpp}),
    IQ;
judged(IQ, {error, Error}) ->
    pubsub_device_metrics:count({refused, engine}),
    IQ#iq{type = error, sub_els = [Error]}.

id(Node) ->
    case get(?CONTEXT) of
        #{ids := #{Node := Id}} -> Id;
        _ -> any
    end.

caught() ->
    case get(?CONTEXT) of
        #{messages := Messages} -> lists:reverse(Messages);
        undefined -> []
    end.

has_id(Message, ItemId) ->
    (pubsub_device_stanza:item_of(Message))#ps_item.id == ItemId.

%% Publishes as the owner of the key's node. The key must not be logged: failures are reported without it.
by_key(Key, ItemId, Payload) ->
    case pubsub_device_store:node_of(Key) of
        none -> {error, xmpp:err_item_not_found()};
        {{Service, NodeId}, Owner} ->
            begin_publish(waiting),
            try publish(Service, NodeId, Owner, ItemId, Payload)
            catch Class:Reason:Stack ->
                    ?LOG_ERROR("Publishing to node ~ts with its key failed: ~p:~p ~p", [NodeId, Class, Reason, Stack]),
                    {error, xmpp:err_internal_server_error()}
            after end_publish()
            end
    end.

publish(Service, NodeId, Owner, ItemId, Payload) ->
    ServerHost = ejabberd_router:host_of_route(Service),
    case mod_pubsub:publish_item(Service, ServerHost, NodeId, jid:make(Owner), ItemId, Payload) of
        {result, #pubsub{publish = #ps_publish{items = [#ps_item{id = Published}]}}} ->
            case get(?CONTEXT) of
                #{outcome := {ok, Number}} -> {ok, Published, Number};
                #{outcome := {error, Error}} -> {error, Error}
            end;
        {error, Error} -> {error, Error}
    end.
