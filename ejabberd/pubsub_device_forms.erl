%% SPDX-License-Identifier: GPL-3.0-only
%% Adds what the engine leaves out of authorisation forms and of answers to subscriptions. Keeps no state.
-module(pubsub_device_forms).

-export([authorisation/2, complete/2]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").

%% sic: the variable that clients read the subscriber from is misspelt, and is matched exactly.
-define(SUBSCRIBER, <<"pusub#subscriber_jid">>).

%% The form that asks an owner. Adds a message id, which the owner's answer uses, and the subscription's id.
authorisation(Service, #message{id = Id, sub_els = [#xdata{fields = Fields} = Form | Rest]} = Message) ->
    Subscriber = value(<<"pubsub#subscriber_jid">>, Fields),
    SubId = pending_id(Service, value(<<"pubsub#node">>, Fields), Subscriber),
    More = [#xdata_field{var = <<"pubsub#subid">>, type = 'text-single', values = [SubId]},
            #xdata_field{var = ?SUBSCRIBER, type = 'jid-single', values = [Subscriber]}],
    MessageId = case Id of
                    <<>> -> p1_rand:get_string();
                    _ -> Id
                end,
    Message#message{id = MessageId, sub_els = [Form#xdata{fields = Fields ++ More} | Rest]}.

%% The engine's answer to a subscription that waits for approval lacks the id.
complete(Service, #iq{sub_els = [#pubsub{subscription = #ps_subscription{type = pending, subid = <<>>} = Subscription}
                                 = PubSub]} = IQ) ->
    #ps_subscription{node = NodeId, jid = Subscriber} = Subscription,
    SubId = pending_id(Service, NodeId, jid:encode(Subscriber)),
    IQ#iq{sub_els = [PubSub#pubsub{subscription = Subscription#ps_subscription{subid = SubId}}]};
complete(_, IQ) ->
    IQ.

value(Var, Fields) ->
    case [Value || #xdata_field{var = Each, values = [Value | _]} <- Fields, Each == Var] of
        [Value | _] -> Value;
        [] -> <<>>
    end.

pending_id(Service, NodeId, Subscriber) ->
    case mod_pubsub:tree_action(Service, get_node, [Service, NodeId]) of
        #pubsub_node{id = Nidx, type = Type} ->
            LJID = jid:tolower(jid:decode(Subscriber)),
            {result, Subscriptions} = mod_pubsub:node_action(Service, Type, get_subscriptions, [Nidx, LJID]),
            case [Id || {pending, Id} <- Subscriptions] of
                [Id | _] -> Id;
                [] -> <<>>
            end;
        _ -> <<>>
    end.
