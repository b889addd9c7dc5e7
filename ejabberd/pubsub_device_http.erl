%% SPDX-License-Identifier: GPL-3.0-only
%% Publishing with a key over HTTP: POST /push/KEY with the item's text as the body. Keeps no state.
-module(pubsub_device_http).

-export([process/2, refuse/2, crowded/0]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/ejabberd_http.hrl").

-define(RETRY_SECONDS, 5).

%% A listener that knows from `length` that the body is too large does not have to read it.
process([Key], #request{method = 'POST', data = Body, length = Length, path = Path}) ->
    Limit = mod_pubsub_device:option(max_payload),
    case check(Body, max(Length, byte_size(Body)), Limit) of
        ok -> publish(Key, Body, Path);
        Fault ->
            pubsub_device_metrics:with_key(http, Fault),
            refused(Fault, Limit)
    end;
process([_], #request{method = Method}) when Method == 'GET'; Method == 'HEAD' ->
    answer(200, [], {[{about, <<"Publishes to the endpoint of this key: POST the item's text as the body">>}]});
process([_], _) ->
    answer(405, [{<<"Allow">>, <<"GET, HEAD, POST">>}], {[{error, <<"POST the item's text, or GET">>}]});
process(_, _) ->
    refuse(404, <<"There is nothing here; an endpoint is /push/KEY">>).

refused(empty, _) -> refuse(400, <<"The body is empty; it is the text of the item">>);
refused(text, _) -> refuse(400, <<"The body is no UTF-8 text, or has characters that XML 1.0 does not carry">>);
refused(size, Limit) -> refuse(413, iolist_to_binary(io_lib:format("The body has more than ~b bytes", [Limit]))).

check(_, Length, Limit) when Length > Limit -> size;
check(<<>>, _, _) -> empty;
check(Body, _, _) ->
    case is_xml_text(Body) of
        true -> ok;
        false -> text
    end.

is_xml_text(<<Char/utf8, Rest/binary>>)
  when Char >= 16#20, Char =< 16#FFFD; Char == $\t; Char == $\n; Char == $\r; Char >= 16#10000 ->
    is_xml_text(Rest);
is_xml_text(Rest) ->
    Rest == <<>>.

publish(Key, Body, Path) ->
    Away = fun() -> {error, pubsub_device_database:unavailable()} end,
    Outcome = case pubsub_device_database:is_away() of
                  true -> Away();
                  false -> pubsub_device_database:attempt(fun() -> outcome(Key, Body) end, Away)
              end,
    published(pubsub_device_metrics:with_key(http, Outcome), Path).

outcome(Key, Body) ->
    case pubsub_device_bounds:admits(Key) of
        ok ->
            Payload = #xmlel{name = <<"payload">>, children = [{xmlcdata, Body}]},
            pubsub_device_publish:by_key(Key, <<>>, [Payload]);
        Refused -> Refused
    end.

published({ok, ItemId, Number}, Path) ->
    Location = iolist_to_binary([[$/, uri_string:quote(Part)] || Part <- Path ++ [ItemId]]),
    answer(201, [{<<"Location">>, Location}], {[{id, ItemId}, {seqNo, integer_to_binary(Number)}]});
published({error, #stanza_error{reason = 'item-not-found'}}, _) ->
    refuse(404, <<"No endpoint has this key; its owner may have deleted it">>);
published({error, #stanza_error{reason = 'not-acceptable'}}, _) ->
    refuse(413, <<"The body is larger than the endpoint takes">>);
published({error, #stanza_error{reason = 'resource-constraint'}}, _) ->
    retry(503, ?RETRY_SECONDS, <<"The service is busy; try again later">>);
published({error, #stanza_error{reason = Reason}}, _) ->
    refuse(500, misc:atom_to_binary(Reason));
published({wait, Seconds}, _) ->
    retry(429, Seconds, <<"Too many items for this key">>);
published(full, _) ->
    retry(503, ?RETRY_SECONDS, <<"The service is full; try again later">>).

retry(Code, Seconds, Text) ->
    answer(Code, [{<<"Retry-After">>, integer_to_binary(Seconds)}], {[{error, Text}]}).

%% The answer to a connection above a bound.
crowded() ->
    retry(503, ?RETRY_SECONDS, <<"Too many connections; close some, or try again later">>).

%% The form of every refusal, also those of the listener.
refuse(Code, Text) ->
    answer(Code, [], {[{error, Text}]}).

%% The server does not have a reason phrase for every status.
answer(Code, Headers, Object) ->
    {Code, phrase(Code), [{<<"Content-Type">>, <<"application/json">>} | Headers],
     iolist_to_binary(jiffy:encode(Object))}.

phrase(200) -> <<"OK">>;
phrase(201) -> <<"Created">>;
phrase(400) -> <<"Bad Request">>;
phrase(404) -> <<"Not Found">>;
phrase(405) -> <<"Method Not Allowed">>;
phrase(408) -> <<"Request Timeout">>;
phrase(411) -> <<"Length Required">>;
phrase(413) -> <<"Content Too Large">>;
phrase(429) -> <<"Too Many Requests">>;
phrase(431) -> <<"Request Header Fields Too Large">>;
phrase(500) -> <<"Internal Server Error">>;
phrase(503) -> <<"Service Unavailable">>;
phrase(505) -> <<"HTTP Version Not Supported">>.
