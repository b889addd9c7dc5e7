%% SPDX-License-Identifier: GPL-3.0-only
%% Publishing, up to the node's writer. What needs nothing of the engine takes the fast path (pubsub_device_fastpath).
%% For all others the publisher's process holds a context while the engine publishes: the engine's notifications are
%% collected in it instead of being sent, and the engine's hook passes them to the writer. The context lasts for one
%% request; the process dictionary is all that the engine's calls have in common. On the fast path the same hook is
%% run, for other modules that use it.
%%
%% A session publishes ahead: instead of the session a waiter process waits for the writer, and sends the answer when
%% the item is on disk. The session's requests reach the writer in their order.
-module(pubsub_device_publish).

-export([publish/2, end_publish/0, is_publishing/0, found/1, catch_message/1, hand_over/1, on_publish/6]).
-export([to_key_node/4]).

-include_lib("kernel/include/logger.hrl").
-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").
-include("pubsub_device.hrl").

-import(pubsub_device_stanza, [prepared/1]).

-define(CONTEXT, '$pubsub_device_publish').
-define(TIMEOUT, 60000).

%% A session's request to the service with the child element <publish/>: `drop` if it was published, or the request for
%% the engine.
publish(Service, #iq{from = From, sub_els = [#xmlel{children = Children}]} = IQ) ->
    case [Child || #xmlel{} = Child <- Children] of
        [#xmlel{name = <<"publish">>, children = Items} = Publish] ->
            [pubsub_device_trace:mark(jid:tolower(From), fxml:get_tag_attr_s(<<"id">>, Item), accepted)
             || #xmlel{} = Item <- Items],
            Node = {Service, fxml:get_tag_attr_s(<<"node">>, Publish)},
            case fast(Node, From, [Item || #xmlel{} = Item <- Items]) of
                {ok, #publication{item_id = ItemId} = Publication, Payload} ->
                    through_hook(ahead, none, Publication, From, Payload),
                    hand_over(xmpp:make_iq_result(IQ, pubsub_device_stanza:done(element(2, Node), ItemId))),
                    end_publish(),
                    drop;
                engine -> begin_publish(ahead), IQ
            end;
        _ -> begin_publish(ahead), IQ
    end.

fast(Node, Publisher, [#xmlel{name = <<"item">>, children = Children} = Item]) ->
    fast(Node, Publisher, fxml:get_tag_attr_s(<<"id">>, Item), [Child || #xmlel{} = Child <- Children]);
fast(_, _, _) ->
    engine.

fast(Node, Publisher, <<>>, Payload) ->
    fast(Node, Publisher, pubsub_device_fastpath:item_id(), Payload);
fast(Node, Publisher, ItemId, Payload) ->
    case pubsub_device_fastpath:publication(Node, Publisher, ItemId, Payload) of
        {ok, Publication} -> {ok, Publication, Payload};
        engine -> engine
    end.

%% The handler among the hook's that passes it to the writer is on_publish/6.
through_hook(How, Terms, #publication{node = {Service, NodeId}, item_id = ItemId} = Publication, Publisher, Payload) ->
    begin_publish(How, Terms),
    put(?CONTEXT, (get(?CONTEXT))#{ready => Publication}),
    Host = ejabberd_router:host_of_route(Service),
    ejabberd_hooks:run(pubsub_publish_item, Host, [Host, NodeId, Publisher, prepared(Service), ItemId, Payload]).

%% How: `ahead`, or `waiting` for the result.
begin_publish(How) -> begin_publish(How, none).

%% On the terms of pubsub_device_push.
begin_publish(How, Terms) -> put(?CONTEXT, #{how => How, terms => Terms, messages => [], ids => #{}}), ok.
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
    case {mod_pubsub_device:is_service(Service), get(?CONTEXT)} of
        {true, #{ready := Publication} = Context} -> written(Context, Publication);
        {true, Context} ->
            Node = {Service, NodeId},
            written(Context, publication(Node, ItemId, Payload)),
            pubsub_device_tree:keep_last_item(Node);
        {false, _} -> ok
    end;
on_publish(_, _, _, _, _, _) ->
    ok.

%% What the engine publishes.
publication(Node, ItemId, Payload) ->
    Messages = [Message || #message{} = Message <- caught(), has_id(Message, ItemId)],
    Item = case Messages of
               [First | _] -> pubsub_device_stanza:item_of(First);
               [] -> #ps_item{id = ItemId, sub_els = Payload}
           end,
    {Keep, Live} = pubsub_device_targets:find(Node, Item, Messages),
    #publication{node = Node, id = id(Node), item_id = ItemId, item = pubsub_device_stanza:item(Item), keep = Keep,
                 live = Live, engine = true}.

%% Without a context another part of the server publishes: the item is numbered and kept, and nobody waits for the
%% result.
written(undefined, #publication{node = Node} = Publication) ->
    case pubsub_device_writer:call(Node, {publish, Node, Publication}) of
        {ok, _} -> pubsub_device_metrics:count({published, server});
        {error, _} -> pubsub_device_metrics:count({refused, engine})
    end;
written(#{how := ahead} = Context, #publication{node = Node} = Publication) ->
    Session = self(),
    Waiter = spawn(fun() -> wait(Node, Publication, Session) end),
    pubsub_device_writer:publish_ahead(Node, Publication, Waiter),
    pubsub_device_session:began(Waiter),
    put(?CONTEXT, Context#{messages := [], waiter => Waiter}),
    ok;
written(#{how := waiting, terms := Terms} = Context, #publication{node = Node} = Publication) ->
    Outcome = pubsub_device_writer:call(Node, {publish, Node, pubsub_device_push:on_terms(Terms, Publication)}),
    put(?CONTEXT, Context#{messages := [], outcome => Outcome}),
    ok.

wait(Node, Publication, Session) ->
    Monitor = pubsub_device_writer:watch(Node),
    receive
        {answer, IQ} ->
            Answer = judged(IQ, Publication, pubsub_device_writer:await(Node, Publication, Monitor)),
            %% The session itself published, unless the request came from elsewhere.
            case xmpp:get_meta(IQ, ip, none) of
                none -> ejabberd_router:route(Answer);
                _ -> ejabberd_c2s:route(Session, {route, Answer})
            end
    after ?TIMEOUT -> ok  % the session is gone, and with it the receiver of the answer
    end.

judged(#iq{to = Publisher} = IQ, #publication{item_id = ItemId}, {ok, _}) ->
    pubsub_device_trace:mark(jid:tolower(Publisher), ItemId, committed),
    pubsub_device_metrics:count({published, xmpp}),
    IQ;
judged(IQ, _, {error, Error}) ->
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

%% Publishes as the owner of the key node, {Node, Owner}, for somebody who has its key.
to_key_node({{_, NodeId} = Node, Owner}, ItemId, Payload, Terms) ->
    try by_owner(Node, Owner, ItemId, Payload, Terms)
    catch
        error:{database, _} -> {error, pubsub_device_database:unavailable()};
        Class:Reason:Stack ->
            ?LOG_ERROR("Publishing to node ~ts with its key failed: ~p",
                       [NodeId, pubsub_device_fault:told(Class, Reason, Stack)]),
            {error, xmpp:err_internal_server_error()}
    after end_publish()
    end.

by_owner({Service, NodeId} = Node, Owner, ItemId, Payload, Terms) ->
    pubsub_device_trace:mark(Owner, ItemId, accepted),
    case fast(Node, prepared(Owner), ItemId, Payload) of
        {ok, #publication{item_id = Id} = Publication, _} ->
            through_hook(waiting, Terms, Publication, prepared(Owner), Payload),
            outcome(Owner, Id);
        engine ->
            begin_publish(waiting, Terms),
            through_engine(Service, NodeId, Owner, ItemId, Payload)
    end.

through_engine(Service, NodeId, Owner, ItemId, Payload) ->
    ServerHost = ejabberd_router:host_of_route(Service),
    Publish = fun() -> mod_pubsub:publish_item(Service, ServerHost, NodeId, prepared(Owner), ItemId, Payload) end,
    case pubsub_device_engine:run(Service, Publish) of
        {result, #pubsub{publish = #ps_publish{items = [#ps_item{id = Published}]}}} -> outcome(Owner, Published);
        {error, Error} -> {error, pubsub_device_engine:told(Error)}
    end.

outcome(Owner, ItemId) ->
    case get(?CONTEXT) of
        #{outcome := {ok, Number}} -> pubsub_device_trace:mark(Owner, ItemId, committed), {ok, ItemId, Number};
        #{outcome := {error, Error}} -> {error, Error}
    end.
