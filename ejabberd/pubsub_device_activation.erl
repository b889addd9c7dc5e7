%% SPDX-License-Identifier: GPL-3.0-only
%% Which items a device wants to be sent: the activation of one node or of many, and its end. Runs in the process of the
%% session that asks. The sender answers the activation of one node, so that the answer goes before the items.
%%
%% A limit is set before the device announces itself, so that nothing is sent past it: activating with a limit does not
%% announce the device, while activating without one does.
-module(pubsub_device_activation).

-export([activate/4, activate_nodes/2, deactivate/2]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").

-import(pubsub_device_iq, [answer/2, account/1, unnamed/4]).

%% `Since` is the last number of the node that the device has.
activate(Node, Since, Limit, #iq{from = From} = IQ) ->
    case may_receive(Node, From) of
        ok ->
            pubsub_device_session:spare(4),
            case pubsub_device_presence:admit(From) of
                {error, _} = Refused -> answer(IQ, Refused);
                Session -> activate(Limit, Session, Node, jid:tolower(From), Since, IQ)
            end;
        Error -> answer(IQ, Error)
    end.

activate(unlimited, Session, Node, Device, Since, IQ) ->
    mark([Node], Device),
    attach(Session, Device),
    ask(Node, Device, {activate, Node, Device, Since, xmpp:make_iq_result(IQ)}, IQ);
activate({limited, Least}, {ok, Pid}, Node, Device, Since, IQ) when Pid == self() ->
    case pubsub_device_limits:refused([Node], Device) of
        [] ->
            mark([Node], Device),
            case pubsub_device_store:attached(Device) of
                Pid -> ask(Node, Device, {limit, Node, Device, Pid, Least, Since, xmpp:make_iq_result(IQ)}, IQ);
                _ -> pubsub_device_limits:set(Node, Device, Since, Least), xmpp:make_iq_result(IQ)
            end;
        _ ->
            Text = <<"The session has as many limits as it may; activate further nodes without one, or ask the "
                     "server's operator to raise max_nodes">>,
            answer(IQ, {error, xmpp:err_resource_constraint(Text, <<"en">>)})
    end;
activate({limited, _}, _, _, _, _, IQ) ->
    xmpp:make_iq_result(IQ).

ask(Node, Device, Request, IQ) ->
    case pubsub_device_sender:call(Node, Device, Request) of
        ok -> ignore;
        Error -> answer(IQ, Error)
    end.

attach({ok, Pid}, Device) -> pubsub_device_presence:attach(Device, Pid);
attach(stranger, _) -> ok.

%% Of [{NodeId, unlimited | {limited, Least} | invalid}]. Limits come first: what is attached then is sent according to them.
activate_nodes(Asked, #iq{from = From} = IQ) ->
    case pubsub_device_presence:admit(From) of
        {error, _} = Refused -> answer(IQ, Refused);
        Session -> activate_nodes(Session, Asked, IQ)
    end.

activate_nodes(Session, Asked, #iq{from = From, to = #jid{lserver = Service}} = IQ) ->
    Device = jid:tolower(From),
    Verdicts = [{NodeId, Limit, verdict({Service, NodeId}, Limit, From)} || {NodeId, Limit} <- Asked],
    Unlimited = [{Service, NodeId} || {NodeId, unlimited, ok} <- Verdicts],
    {Limited, Refused} = admitted(Session, [{Service, NodeId} || {NodeId, {limited, _}, ok} <- Verdicts], Device),
    Least = maps:from_list([{{Service, NodeId}, Each} || {NodeId, {limited, Each}} <- Asked]),
    mark(Unlimited ++ Limited, Device),
    Changed = limit(pubsub_device_store:attached(Device), [{Node, maps:get(Node, Least)} || Node <- Limited], Device),
    Asked /= [] andalso lists:all(fun({_, Limit}) -> is_tuple(Limit) end, Asked) orelse attach(Session, Device),
    Failed = lists:sort([{NodeId, Reason} || {NodeId, _, {error, #stanza_error{reason = Reason}}} <- Verdicts]
                        ++ [{NodeId, 'resource-constraint'} || {_, NodeId} <- Refused]),
    ejabberd_router:route(xmpp:make_iq_result(IQ, pubsub_device_stanza:nodes(<<"activate-nodes">>, Failed))),
    News = [{limit, Node, Device, self(), Each} || {Node, Each} <- Changed, pubsub_device_store:attached(Device) == self()]
        ++ [{activate, Node, Device} || Node <- Unlimited, pubsub_device_session:may_wait(Node, Device)],
    [pubsub_device_session:tell(element(2, Request), Device, Request) || Request <- News],
    News == [] andalso pubsub_device_session:spare(1 + length(Verdicts)),
    ignore.

verdict(_, invalid, _) -> {error, xmpp:err_bad_request()};
verdict(Node, _, From) -> may_receive(Node, From).

%% The nodes on which the session may set a limit, and those for which it has set too many.
admitted({ok, Pid}, Nodes, Device) when Pid == self() ->
    Refused = pubsub_device_limits:refused(Nodes, Device),
    {Nodes -- Refused, Refused};
admitted(_, _, _) ->
    {[], []}.

%% Of [{Node, Least}], returns those that change, of which the senders have to be told when the device has announced
%% itself.
limit(Pid, Limits, Device) when Pid == self() ->
    [Each || {Node, Least} = Each <- Limits, pubsub_device_store:activation(Node, Device, Pid) /= limited
                                                 orelse pubsub_device_store:least(Node, Device, Pid) /= Least];
limit(_, Limits, Device) ->
    [pubsub_device_limits:set(Node, Device, 0, Least) || {Node, Least} <- Limits],
    Limits.

deactivate(Node, #iq{from = From} = IQ) ->
    Device = jid:tolower(From),
    case pubsub_device_sender:call(Node, Device, {deactivate, Node, Device}) of
        ok -> xmpp:make_iq_result(IQ);
        Error -> answer(IQ, Error)
    end.

%% The activation is on disk before it is answered: an item that is published after a restart is kept for the device,
%% also while it is absent.
mark(Nodes, Device) ->
    New = [Node || Node <- Nodes, pubsub_device_targets:mark(Node, Device)],
    New == [] orelse pubsub_device_commit:sync().

%% A key node is for its owner's devices and its subscribers; an ordinary node needs no activation, so activating it
%% only requests the kept items.
may_receive({Service, NodeId} = Node, From) ->
    Account = account(From),
    case {mod_pubsub:tree_action(Service, get_node, [Service, NodeId]), pubsub_device_store:key_of(Node)} of
        {#pubsub_node{}, none} -> ok;
        {#pubsub_node{}, {_, Account}} -> ok;
        {#pubsub_node{id = Nidx, type = Type}, _} ->
            case mod_pubsub:node_action(Service, Type, get_subscriptions, [Nidx, Account]) of
                {result, Subscriptions} ->
                    case lists:keymember(subscribed, 1, Subscriptions) orelse subscribed(Service, Type, Nidx, From) of
                        true -> ok;
                        false -> {error, xmpp:err_forbidden()}
                    end;
                _ -> {error, xmpp:err_forbidden()}
            end;
        _ -> {error, unnamed(Service, element(2, Node), From, xmpp:err_item_not_found())}
    end.

subscribed(Service, Type, Nidx, From) ->
    case mod_pubsub:node_action(Service, Type, get_subscriptions, [Nidx, jid:tolower(From)]) of
        {result, Subscriptions} -> lists:keymember(subscribed, 1, Subscriptions);
        _ -> false
    end.
