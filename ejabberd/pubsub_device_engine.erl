%% SPDX-License-Identifier: GPL-3.0-only
%% Calls of the engine over a database.
%%
%% What the node tree and the hooks learn while an item is published belongs to the publication's context, which is in
%% the process dictionary (pubsub_device_publish). Over a database the engine calls the tree in the process of a
%% connection: there the whole publication runs in that process, which has the context for so long. What the hook was
%% told is passed on afterwards in the publisher's process, since a connection must not wait for a writer.
%%
%% Two faults of the engine are made good: it stores payloads as text with plain carriage returns, which a parser reads
%% as line feeds, and it looks for pending requests among the owner's own subscriptions.
-module(pubsub_device_engine).

-export([process/1, process_commands/1, run/2, told/1, on_publish/6]).

-include_lib("p1_xmpp/include/xmpp.hrl").

-define(GET_PENDING, <<"http://jabber.org/protocol/pubsub#get-pending">>).
-define(PUBLISHED, '$pubsub_device_published').
-define(CONTEXT, '$pubsub_device_publish').

process(#iq{to = #jid{lserver = Service}} = IQ) ->
    case run(Service, fun() -> mod_pubsub:process_pubsub(IQ) end) of
        {error, Error} -> xmpp:make_error(IQ, Error);
        Answer -> Answer
    end.

process_commands(#iq{from = From, to = #jid{lserver = Service}, lang = Lang} = IQ) ->
    case {mod_pubsub:process_commands(IQ), pubsub_device_tree:is_sql(Service)} of
        {#iq{type = result, sub_els = [#adhoc_command{node = ?GET_PENDING, xdata = #xdata{} = Form} = Command]} = Answer,
         true} ->
            Nodes = nodetree_device_sql:pending(Service, From),
            Fields = pubsub_get_pending:encode([{node, <<>>, lists:zip(Nodes, Nodes)}], Lang),
            Answer#iq{sub_els = [Command#adhoc_command{xdata = Form#xdata{fields = Fields}}]};
        {Answer, _} -> Answer
    end.

%% What the call returns, or {error, Error} when the database could not be asked.
run(Service, Call) ->
    case pubsub_device_publish:is_publishing() andalso pubsub_device_tree:is_sql(Service) of
        true -> in_connection(ejabberd_router:host_of_route(Service), Call);
        false -> Call()
    end.

in_connection(Host, Call) ->
    Context = get(?CONTEXT),
    Run = fun() ->
                  put(?CONTEXT, Context),
                  put(?PUBLISHED, []),
                  try
                      Result = Call(),
                      {Result, get(?CONTEXT), get(?PUBLISHED)}
                  after
                      erase(?CONTEXT),
                      erase(?PUBLISHED)
                  end
          end,
    case ejabberd_sql:sql_bloc(Host, Run) of
        {atomic, {Result, After, Published}} ->
            put(?CONTEXT, After),
            [apply(pubsub_device_publish, on_publish, Told) || Told <- lists:reverse(Published)],
            Result;
        _ -> {error, pubsub_device_database:unavailable()}
    end.

%% The engine does not say that a failure of the database passes.
told(#iq{type = error} = IQ) ->
    case xmpp:get_error(IQ) of
        #stanza_error{reason = 'internal-server-error'} = Error -> IQ#iq{sub_els = [told(Error)]};
        _ -> IQ
    end;
told(#stanza_error{reason = 'internal-server-error', text = Text} = Error) ->
    case [Each || #text{data = <<"Database failure">>} = Each <- Text] of
        [] -> Error;
        _ -> pubsub_device_database:unavailable()
    end;
told(Other) ->
    Other.

on_publish(Host, NodeId, Publisher, #jid{lserver = Service} = From, ItemId, Payload) ->
    Told = [Host, NodeId, Publisher, From, ItemId, Payload],
    mod_pubsub_device:is_service(Service) andalso pubsub_device_tree:is_sql(Service)
        andalso nodetree_device_sql:keep_returns({Service, NodeId}, ItemId, Payload),
    case get(?PUBLISHED) of
        undefined -> apply(pubsub_device_publish, on_publish, Told);
        Published -> put(?PUBLISHED, [Told | Published])
    end,
    ok.
