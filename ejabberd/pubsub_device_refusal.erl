%% SPDX-License-Identifier: GPL-3.0-only
%% The refusals of publishing over HTTP: status, number, cause, remedy, and after how many seconds it may help to try
%% again. docs/push-errors.md has a section for each number, and the numbers never change their meaning. Keeps no state.
-module(pubsub_device_refusal).

-export([answer/2, answer/3, unreadable/2, json/3, empty/2]).

-define(BUSY_SECONDS, 5).

%% {Status, Phrase, Headers, Body}
answer(Name, Arguments) -> answer(Name, Arguments, []).

answer(Name, Arguments, Headers) ->
    {Status, Number, Cause, Remedy} = refusal(Name),
    told(Status, Number, io_lib:format(Cause, Arguments), Remedy, later(Name, Arguments) ++ Headers).

%% Of a request whose end may be unknown: the texts are those of the reader.
unreadable(Status, Cause) ->
    {Number, Remedy} = reading(Status),
    told(Status, Number, Cause, Remedy, []).

told(Status, Number, Cause, Remedy, Headers) ->
    json(Status, Headers, {[{errno, Number}, {error, iolist_to_binary(Cause)}, {remedy, Remedy}]}).

later(rate, [Seconds]) -> [{<<"Retry-After">>, integer_to_binary(Seconds)}];
later(Name, _) when Name == busy; Name == full; Name == crowded; Name == failed ->
    [{<<"Retry-After">>, integer_to_binary(?BUSY_SECONDS)}];
later(_, _) -> [].

reading(408) -> {104, <<"Send the head and the body of a request each within the time that the server gives">>};
reading(411) -> {105, <<"Send the length of the body in a Content-Length field">>};
reading(431) -> {102, <<"Send fewer and shorter header fields">>};
reading(505) -> {103, <<"Speak HTTP/1.1 or HTTP/1.0">>};
reading(_) -> {101, <<"Send a request as RFC 9112 describes it">>}.

refusal(address) ->
    {400, 106, "The address is malformed", <<"Percent-encode what is no letter or digit, in UTF-8">>};
refusal(crowded) ->
    {503, 107, "Too many connections; close some, or try again later", <<"Use one connection for many requests">>};
refusal(nothing) ->
    {404, 108, "There is nothing here; an endpoint is /push/KEY", <<"Use the address that the application gave">>};
refusal(method) ->
    {405, 109, "POST the body of a message, or GET", <<"Use a method of those in Allow">>};
refusal(empty) ->
    {400, 110, "The body is empty; it is the text of the item", <<"Send a body of at least one byte">>};
refusal(size) ->
    {413, 111, "The body has more than ~b bytes", <<"Send less, or where the whole can be fetched">>};
refusal(ttl) ->
    {400, 112, "TTL is no number of seconds", <<"Send one TTL field of digits alone">>};
refusal(no_ttl) ->
    {400, 113, "The request has no TTL", <<"Send a TTL field: for how many seconds the message is worth keeping">>};
refusal(topic) ->
    {400, 114, "Topic is not 1 to 32 characters of the base64url alphabet", <<"Send one Topic field of such a text">>};
refusal(urgency) ->
    {400, 115, "Urgency is none of very-low, low, normal and high", <<"Send one Urgency field with one of these">>};
refusal(trace) ->
    {400, 131, "Trace is not 16 to 32 characters of the base64url alphabet", <<"Send one Trace field of such a text">>};
refusal(endpoint) ->
    {404, 116, "No endpoint has this key; its owner may have deleted it", <<"Forget this address">>};
refusal(gone) ->
    {410, 117, "The message does not wait any more", <<"Nothing can be done: it was taken, replaced, or expired">>};
refusal(message) ->
    {404, 118, "There is no such message", <<"Use the address from the field Location of the answer to the message">>};
refusal(vapid_missing) ->
    {401, 119, "The endpoint takes messages of one application server alone, and the request names none",
     <<"Send the field Authorization with the scheme vapid, as in RFC 8292">>};
refusal(vapid_malformed) ->
    {401, 120, "The field Authorization is malformed: ~ts", <<"Send vapid t=TOKEN, k=KEY, as in RFC 8292">>};
refusal(vapid_key) ->
    {403, 121, "The endpoint was made for the key of another application server",
     <<"Sign with the key that the application was given, or have it register again with yours">>};
refusal(vapid_refused) ->
    {403, 122, "The token is refused: ~ts", <<"Sign a new token with ES256, for the origin of this address">>};
refusal(rate) ->
    {429, 123, "Too many requests for this key; wait ~b s", <<"Try again after the time in Retry-After, and send fewer">>};
refusal(full) ->
    {503, 124, "The service is full; try again later", <<"Try again after the time in Retry-After">>};
refusal(busy) ->
    {503, 125, "The service is busy; try again later", <<"Try again after the time in Retry-After">>};
refusal(failed) ->
    {500, 126, "The service failed; try again later", <<"Try again after the time in Retry-After">>};
refusal(engine) ->
    {500, 127, "The node of the endpoint refuses the item: ~ts", <<"Tell the owner of the endpoint">>};
refusal(too_large) ->
    {413, 128, "The body is larger than the endpoint takes", <<"Send less, or where the whole can be fetched">>};
refusal(notification) ->
    {400, 129, "The body is no notification of Matrix: ~ts", <<"Send a notification of the Matrix push gateway API">>};
refusal(pushkeys) ->
    {413, 130, "The notification names more than ~b devices", <<"Send it in parts">>}.

%%% answers

json(Status, Headers, Object) ->
    {Status, phrase(Status), [{<<"Content-Type">>, <<"application/json">>} | open(Headers)],
     iolist_to_binary(jiffy:encode(Object))}.

empty(Status, Headers) ->
    {Status, phrase(Status), open(Headers), <<>>}.

%% Pages of any origin may use the endpoint: whoever knows the key is permitted to, and no cookie is.
open(Headers) ->
    [{<<"Access-Control-Allow-Origin">>, <<"*">>},
     {<<"Access-Control-Expose-Headers">>, <<"Location, Retry-After, TTL, WWW-Authenticate">>} | Headers].

%% The server does not have a reason phrase for every status.
phrase(200) -> <<"OK">>;
phrase(201) -> <<"Created">>;
phrase(204) -> <<"No Content">>;
phrase(400) -> <<"Bad Request">>;
phrase(401) -> <<"Unauthorized">>;
phrase(403) -> <<"Forbidden">>;
phrase(404) -> <<"Not Found">>;
phrase(405) -> <<"Method Not Allowed">>;
phrase(408) -> <<"Request Timeout">>;
phrase(410) -> <<"Gone">>;
phrase(411) -> <<"Length Required">>;
phrase(413) -> <<"Content Too Large">>;
phrase(429) -> <<"Too Many Requests">>;
phrase(431) -> <<"Request Header Fields Too Large">>;
phrase(500) -> <<"Internal Server Error">>;
phrase(503) -> <<"Service Unavailable">>;
phrase(505) -> <<"HTTP Version Not Supported">>.
