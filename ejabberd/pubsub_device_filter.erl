%% SPDX-License-Identifier: GPL-3.0-only
%% The filter between the server's router and the service, run for every stanza in the process that sends it. Inwards
%% it handles presences and acknowledgements and marks requests; outwards it catches the notifications of an item that
%% is being published, and routes messages to an account to its devices. All other stanzas pass unchanged.
%%
%% What a session sends most, publications and acknowledgements, is handled before it reaches the router.
-module(pubsub_device_filter).

-export([filter_packet/1, on_send/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

-define(CHANGE, '$pubsub_device_change').

%% Runs in the session's process.
on_send({#message{to = #jid{luser = <<>>, lresource = <<>>}, sub_els = [#xmlel{name = <<"ack">>} | _]} = Message,
         State}) ->
    sent(filter_packet(Message), Message, State);
on_send({#iq{type = set, to = #jid{luser = <<>>, lserver = Service, lresource = <<>>},
             sub_els = [#xmlel{name = <<"pubsub">>, children = Children}]} = IQ, State}) ->
    case mod_pubsub_device:is_service(Service) andalso [Name || #xmlel{name = Name} <- Children] of
        [<<"publish">>] -> sent(filter_packet(IQ), IQ, State);
        _ -> {IQ, State}
    end;
on_send(Unchanged) ->
    Unchanged.

%% What is not handled here takes the usual way.
sent(drop, _, State) -> {stop, {drop, State}};
sent(_, Stanza, State) -> {Stanza, State}.

filter_packet(#message{from = #jid{luser = <<>>, lserver = Service}} = Message) ->
    case mod_pubsub_device:is_service(Service) andalso not pubsub_device_stanza:is_signed(Message) of
        true -> outgoing(Service, Message);
        false -> Message
    end;
filter_packet(#iq{type = Type, from = #jid{luser = <<>>, lserver = Service}} = IQ)
  when Type == result; Type == error ->
    case mod_pubsub_device:is_service(Service) of
        true -> answer(Service, pubsub_device_engine:told(IQ));
        false -> IQ
    end;
filter_packet(Stanza) ->
    case xmpp:get_to(Stanza) of
        #jid{luser = <<>>, lserver = Service, lresource = <<>>} ->
            case mod_pubsub_device:is_service(Service) of
                true ->
                    pubsub_device_database:attempt(fun() -> judged(Service, Stanza) end,
                                                   fun() -> refused(pubsub_device_database:unavailable(), Stanza) end);
                false -> Stanza
            end;
        _ ->
            case pubsub_device_guard:spare(Stanza) of
                ok -> Stanza;
                {error, Error} -> refused(Error, Stanza)
            end
    end.

judged(Service, Stanza) ->
    case pubsub_device_guard:judge(Service, Stanza) of
        ok -> incoming(Service, Stanza);
        {error, Error} -> refused(Error, Stanza)
    end.

%% A refusal does not repeat the stanza: it may be refused for its content.
refused(Error, Stanza) ->
    pubsub_device_metrics:count({refused, reason(Error)}),
    ejabberd_router:route_error(xmpp:set_els(Stanza, []), Error),
    drop.

reason(#stanza_error{reason = 'not-acceptable'}) -> stream_element;
reason(#stanza_error{reason = 'resource-constraint'}) -> database;
reason(_) -> foreign.

%%% inwards

%% The engine would return an error; here it says whether the device is present.
incoming(_, #presence{type = available, from = From} = Presence) ->
    case pubsub_device_presence:announce(From) of
        {error, Refused} -> ejabberd_router:route_error(Presence, Refused);
        _ -> ok
    end,
    drop;
incoming(_, #presence{type = unavailable, from = From}) ->
    pubsub_device_presence:goodbye(From),
    drop;
incoming(_, #presence{}) ->
    drop;
incoming(Service, #message{from = From, sub_els = Elements} = Message) ->
    case [Element || #xmlel{name = <<"ack">>} = Element <- Elements,
                     fxml:get_tag_attr_s(<<"xmlns">>, Element) == ?NS_DEVICE] of
        [] -> Message;
        Acks -> [acknowledge(Service, jid:tolower(From), Ack) || Ack <- Acks], drop
    end;
incoming(Service, #iq{type = set, sub_els = [#xmlel{name = <<"pubsub">>, children = Children}]} = IQ) ->
    pubsub_device_publish:end_publish(),
    Asked = [Child || #xmlel{name = Name} = Child <- Children,
                      lists:member(Name, [<<"publish">>, <<"create">>, <<"delete">>])],
    case Asked of
        [#xmlel{name = <<"publish">>} | _] -> changing(publish(Service, IQ));
        [Named | _] -> changing(named({Service, fxml:get_tag_attr_s(<<"node">>, Named)}, IQ));
        [] -> changing(IQ)
    end;
incoming(_, Stanza) ->
    Stanza.

%% The engine answers the request when it has made the change.
changing(drop) -> drop;
changing(IQ) -> put(?CHANGE, true), IQ.

publish(Service, IQ) ->
    case pubsub_device_bounds:is_full() of
        true ->
            pubsub_device_metrics:count({refused, full}),
            Text = <<"The service is full; try again later">>,
            ejabberd_router:route_error(IQ, xmpp:err_resource_constraint(Text, <<"en">>)),
            drop;
        false -> pubsub_device_publish:publish(Service, IQ)
    end.

%% The engine creates or deletes the node while this session holds the name's lock.
named({_, <<>>}, IQ) ->
    IQ;
named(Node, IQ) ->
    case pubsub_device_lock:acquire(Node) of
        ok -> IQ;
        {error, Error} -> ejabberd_router:route_error(IQ, Error), drop
    end.

%% An acknowledgement has no answer.
acknowledge(Service, Device, Ack) ->
    Node = {Service, fxml:get_tag_attr_s(<<"node">>, Ack)},
    pubsub_device_session:acknowledge(Node, Device, fxml:get_tag_attr_s(<<"id">>, Ack),
                                      wanted(fxml:get_tag_attr_s(<<"seqNo">>, Ack))).

wanted(<<>>) -> any;
wanted(Text) ->
    case pubsub_device_stanza:number(Text) of
        {ok, Number} -> Number;
        error -> none
    end.

%%% outwards

%% A change that the service confirms is on disk first, as an item is. The session does not wait for that: it
%% continues with the next request, and the answer follows.
answer(Service, #iq{type = Type} = IQ) ->
    pubsub_device_lock:release(),
    Published = pubsub_device_publish:hand_over(IQ),
    Type == error andalso pubsub_device_publish:is_publishing() andalso pubsub_device_metrics:count({refused, engine}),
    pubsub_device_publish:end_publish(),
    case {erase(?CHANGE), IQ} of
        _ when Published -> drop;
        {true, #iq{type = result}} -> pubsub_device_session:answer(pubsub_device_forms:complete(Service, IQ)), drop;
        _ -> IQ
    end.

outgoing(Service, #message{sub_els = [#ps_event{items = #ps_items{node = NodeId, items = [_]}} | Rest]} = Message) ->
    case Rest == [] andalso pubsub_device_publish:catch_message(Message) of
        true -> drop;
        false -> stored({Service, NodeId}, Message)
    end;
outgoing(Service, #message{sub_els = [#xdata{type = form} | _]} = Message) ->
    reach(pubsub_device_forms:authorisation(Service, Message));
outgoing(_, #message{type = error} = Message) ->
    Message;
outgoing(_, Message) ->
    reach(Message).

%% An item that the engine sends from its own store, on subscription: the node's newest, which goes to devices in
%% order with all others. When newer ones were retracted, its number is no longer known; zero is below all numbers.
stored(Node, #message{to = To} = Message) ->
    #ps_item{id = ItemId} = Item = pubsub_device_stanza:item_of(Message),
    case pubsub_device_store:last_item(Node) of
        {Last, ItemId} ->
            {Keep, Live} = pubsub_device_targets:find(Node, Item, [Message]),
            [pubsub_device_session:tell_writer(Node, {keep_last, Node, Device, Last, ItemId,
                                                      pubsub_device_stanza:item(Item)})
             || {Device, _} <- Keep, pubsub_device_targets:is_meant(Device, To)],
            [pubsub_device_targets:send_live(Last, Each) || Each <- Live],
            drop;
        _ -> reach(pubsub_device_stanza:stamp(Message, 0))
    end.

%% Routes it to every session that should get it, or unchanged when there is none.
reach(#message{to = To} = Message) ->
    LJID = jid:tolower(To),
    case pubsub_device_targets:reached(LJID) of
        [LJID] -> pubsub_device_stanza:sign(Message);
        Sessions ->
            [ejabberd_router:route(pubsub_device_stanza:sign(Message#message{to = jid:make(Session)}))
             || Session <- Sessions],
            drop
    end.
