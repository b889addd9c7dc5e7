%% SPDX-License-Identifier: GPL-3.0-only
%% Publishing with a key over HTTP (RFC 8030): POST /push/KEY with the message as the body, and the messages themselves,
%% /push/KEY/MESSAGE. Keeps no state.
-module(pubsub_device_http).

-export([process/2, publish/5]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/ejabberd_http.hrl").

%% The largest body of an endpoint of web push: no service of web push may take less (RFC 8030, section 7.2), and what
%% senders encrypt has this size at most.
-define(WEB_PUSH_BYTES, 4096).

-define(CORS_SECONDS, <<"86400">>).

%% A listener that knows from `length` that the body is too large does not have to read it.
process(Path, #request{method = Method} = Request) ->
    case methods(Path) of
        none -> pubsub_device_refusal:answer(nothing, []);
        Methods ->
            case lists:member(method(Method), Methods) of
                true -> handle(method(Method), Path, Request, Methods);
                false when Method == 'POST' -> pubsub_device_refusal:answer(nothing, []);
                false -> pubsub_device_refusal:answer(method, [], [{<<"Allow">>, names(Methods)}])
            end
    end.

%% The address of all endpoints only says what they are.
methods([]) -> ['GET', 'HEAD', 'OPTIONS'];
methods([_]) -> ['GET', 'HEAD', 'OPTIONS', 'POST'];
methods([_, _]) -> ['DELETE', 'GET', 'HEAD', 'OPTIONS'];
methods(_) -> none.

method(<<"OPTIONS">>) -> 'OPTIONS';
method(<<"DELETE">>) -> 'DELETE';
method(Other) -> Other.

names(Methods) -> iolist_to_binary(lists:join(", ", [atom_to_binary(Each) || Each <- Methods])).

handle('OPTIONS', _, _, Methods) ->
    pubsub_device_refusal:empty(204, [{<<"Allow">>, names(Methods)},
                                      {<<"Access-Control-Allow-Methods">>, names(Methods)},
                                      {<<"Access-Control-Allow-Headers">>,
                                       <<"Authorization, Content-Encoding, Content-Type, TTL, Topic, Trace, Urgency">>},
                                      {<<"Access-Control-Max-Age">>, ?CORS_SECONDS}]);
handle('POST', [Key], #request{data = Body, length = Length, path = Path, headers = Headers}, _) ->
    case pubsub_device_push:asked(Headers) of
        {ok, Asked} -> posted(publish(Key, Body, max(Length, byte_size(Body)), Headers, Asked), Path);
        Malformed ->
            pubsub_device_metrics:with_key(http, Malformed),
            pubsub_device_refusal:answer(Malformed, [])
    end;
handle('DELETE', [Key, Message], #request{headers = Headers}, _) ->
    with_message(Key, Message, Headers, fun take_back/3);
handle(_, [Key, Message], #request{headers = Headers}, _) ->
    with_message(Key, Message, Headers, fun state/3);
handle(_, _, _, _) ->
    %% Whether a key is in use is not said to those who only try.
    About = <<"Publishes to the endpoint of this key: POST the message as the body">>,
    pubsub_device_refusal:json(200, [], {[{unifiedpush, {[{version, 1}]}}, {about, About}]}).

%%% publishing

%% {ok, ItemId, Number, Granted}, or the reason of the refusal, which is counted.
publish(Key, Body, Length, Headers, Asked) ->
    pubsub_device_metrics:with_key(http, reached(fun() -> outcome(Key, Body, Length, Headers, Asked) end)).

%% What Fun returns, unless the database does not answer.
reached(Fun) ->
    Away = fun() -> {error, pubsub_device_database:unavailable()} end,
    case pubsub_device_database:is_away() of
        true -> Away();
        false -> pubsub_device_database:attempt(Fun, Away)
    end.

%% The rate of a key is for those who may publish with it.
outcome(Key, Body, Length, Headers, Asked) ->
    Limit = mod_pubsub_device:option(max_payload),
    case pubsub_device_store:node_of(Key) of
        none when Length > Limit -> {size, Limit};
        none when Length == 0 -> empty;
        none -> {error, xmpp:err_item_not_found()};
        {Node, _} = Found ->
            {WebPush, Vapid} = pubsub_device_store:push_of(Node),
            case acceptable(WebPush, Length, Limit, Asked) of
                ok ->
                    case permitted(Vapid, Headers) of
                        ok -> admitted(Key, Found, item_id(Asked), Body, pubsub_device_push:terms(Asked, WebPush));
                        Refused -> Refused
                    end;
                Refused -> Refused
            end
    end.

%% A message of web push without content says that there is something to fetch.
acceptable(true, Length, _, _) when Length > ?WEB_PUSH_BYTES -> {size, ?WEB_PUSH_BYTES};
acceptable(true, _, _, #{ttl := none}) ->
    case mod_pubsub_device:option(require_ttl) of
        true -> no_ttl;
        false -> ok
    end;
acceptable(false, Length, Limit, _) when Length > Limit -> {size, Limit};
acceptable(false, 0, _, _) -> empty;
acceptable(_, _, _, _) -> ok.

permitted(none, _) -> ok;
permitted(Vapid, Headers) ->
    pubsub_device_vapid:verdict(pubsub_device_push:field(<<"authorization">>, Headers), Vapid,
                                [pubsub_device_vapid:origin(mod_pubsub_device:option(push_url))]).

item_id(#{trace := none}) -> <<>>;
item_id(#{trace := Mark}) -> pubsub_device_trace:id(Mark).

admitted(Key, Found, ItemId, Body, #{granted := Granted} = Terms) ->
    case pubsub_device_bounds:admits(Key) of
        ok ->
            case pubsub_device_publish:to_key_node(Found, ItemId, [pubsub_device_push:payload(Body)], Terms) of
                {ok, Published, Number} -> {ok, Published, Number, Granted};
                Error -> Error
            end;
        Refused -> Refused
    end.

posted({ok, ItemId, Number, Granted}, Path) ->
    Message = iolist_to_binary([integer_to_binary(Number), $-, ItemId]),
    Location = iolist_to_binary([[$/, uri_string:quote(Part)] || Part <- Path ++ [Message]]),
    pubsub_device_refusal:json(201, [{<<"Location">>, Location}, {<<"TTL">>, integer_to_binary(Granted)}],
                               {[{id, ItemId}, {seqNo, integer_to_binary(Number)}]});
posted(Refused, _) ->
    refused(Refused).

refused({error, #stanza_error{reason = 'item-not-found'}}) -> pubsub_device_refusal:answer(endpoint, []);
refused({error, #stanza_error{reason = 'not-acceptable'}}) -> pubsub_device_refusal:answer(too_large, []);
refused({error, #stanza_error{reason = 'resource-constraint'}}) -> pubsub_device_refusal:answer(busy, []);
refused({error, #stanza_error{reason = Reason}}) -> pubsub_device_refusal:answer(engine, [Reason]);
refused({size, Limit}) -> pubsub_device_refusal:answer(size, [Limit]);
refused({wait, Seconds}) -> pubsub_device_refusal:answer(rate, [Seconds]);
refused({Name, Arguments}) when Name == vapid_missing; Name == vapid_malformed ->
    pubsub_device_refusal:answer(Name, Arguments, [{<<"WWW-Authenticate">>, <<"vapid">>}]);
refused({Name, Arguments}) -> pubsub_device_refusal:answer(Name, Arguments);
refused(Name) -> pubsub_device_refusal:answer(Name, []).

%%% messages

%% An endpoint of one application server answers to that server alone here too.
with_message(Key, Message, Headers, Answer) ->
    Outcome = fun() ->
                      case {numbered(Message), pubsub_device_store:node_of(Key)} of
                          {_, none} -> {error, xmpp:err_item_not_found()};
                          {none, _} -> message;
                          {{Number, ItemId}, {Node, _}} ->
                              case permitted(element(2, pubsub_device_store:push_of(Node)), Headers) of
                                  ok ->
                                      case pubsub_device_bounds:admits(Key) of
                                          {wait, _} = Wait -> Wait;
                                          _ -> {found, Node, Number, ItemId}
                                      end;
                                  Refused -> Refused
                              end
                      end
              end,
    case reached(Outcome) of
        {found, Node, Number, ItemId} -> Answer(Node, Number, ItemId);
        Refused -> refused(Refused)
    end.

numbered(Message) ->
    case binary:split(Message, <<"-">>) of
        [Digits, ItemId] ->
            case pubsub_device_stanza:number(Digits) of
                {ok, Number} when Number > 0 -> {Number, ItemId};
                _ -> none
            end;
        _ -> none
    end.

%% The change is on disk when it is confirmed.
take_back(Node, Number, ItemId) ->
    case reached(fun() -> pubsub_device_store:take_back(Node, Number, ItemId) end) of
        true -> pubsub_device_commit:sync(), pubsub_device_refusal:empty(204, []);
        false -> pubsub_device_refusal:answer(gone, []);
        Refused -> refused(Refused)
    end.

state(Node, Number, ItemId) ->
    case reached(fun() -> pubsub_device_store:waits(Node, Number, ItemId) end) of
        Waits when is_boolean(Waits) ->
            State = case Waits of
                        true -> waiting;
                        false -> taken
                    end,
            pubsub_device_refusal:json(200, [], {[{id, ItemId}, {seqNo, integer_to_binary(Number)}, {state, State}]});
        Refused -> refused(Refused)
    end.
