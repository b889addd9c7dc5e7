%% SPDX-License-Identifier: GPL-3.0-only
%% Whether a request comes from the application server for which an endpoint was made (RFC 8292). Everybody may send
%% requests, so what is cheap is checked first, the signature last, nothing is remembered, and the sizes are bounded.
%% Keeps no state.
-module(pubsub_device_vapid).

-export([is_key/1, verdict/3, origin/1]).

%% A token as senders make them has 200 to 400 bytes.
-define(MAX_TOKEN, 2048).
-define(KEY_BYTES, 65).
-define(SIGNATURE_BYTES, 64).
-define(MAX_SECONDS, 86400).

%% A point of P-256, uncompressed, in base64url without padding.
is_key(Text) ->
    case decoded(Text) of
        {ok, <<4, _/binary>> = Point} when byte_size(Point) == ?KEY_BYTES ->
            {_, Private} = crypto:generate_key(ecdh, secp256r1),
            try is_binary(crypto:compute_key(ecdh, Point, Private, secp256r1))
            catch error:_ -> false
            end;
        _ -> false
    end.

%% `ok`, or the refusal: {Name, Arguments}. `Fields` are the values of the field Authorization, `Wanted` is the key of
%% the endpoint, `Origins` what the token may be for.
verdict(Fields, Wanted, Origins) ->
    try check(Fields, Wanted, Origins)
    catch throw:{refused, Name, Arguments} -> {Name, Arguments}
    end.

check([], _, _) ->
    refuse(vapid_missing, []);
check([Field], Wanted, Origins) ->
    lists:all(fun(Char) -> Char < 128 end, binary_to_list(Field)) orelse malformed("it is no ASCII"),
    {Token, Key} = credentials(Field),
    Key == Wanted orelse refuse(vapid_key, []),
    [Header, Claims, Signature] = parts(binary:split(Token, <<".">>, [global])),
    is_signed_with_es256(object(Header)) orelse refuse(vapid_refused, ["its algorithm is not ES256"]),
    byte_size(Signature) == ?SIGNATURE_BYTES orelse refuse(vapid_refused, ["its signature is none of ES256"]),
    claims(object(Claims), Origins),
    is_signature(Token, Wanted) orelse refuse(vapid_refused, ["its signature is not that of the key"]),
    ok;
check(_, _, _) ->
    malformed("there is more than one").

refuse(Name, Arguments) -> throw({refused, Name, Arguments}).
malformed(Why) -> refuse(vapid_malformed, [Why]).

%%% the header field

credentials(Field) ->
    case binary:split(Field, <<" ">>) of
        [Scheme, Rest] when byte_size(Rest) =< 2 * ?MAX_TOKEN ->
            string:lowercase(Scheme) == <<"vapid">> orelse refuse(vapid_missing, []),
            Parameters = [parameter(Each) || Each <- binary:split(Rest, <<",">>, [global])],
            {one(<<"t">>, Parameters), one(<<"k">>, Parameters)};
        [_, _] -> malformed("it is too long");
        _ -> malformed("it has no parameters")
    end.

parameter(Text) ->
    case binary:split(string:trim(Text, both, " \t"), <<"=">>) of
        [Name, Value] -> {string:lowercase(Name), unquoted(Value)};
        _ -> malformed("a parameter has no value")
    end.

unquoted(<<$", Rest/binary>>) when Rest /= <<>> ->
    Length = byte_size(Rest) - 1,
    case Rest of
        <<Value:Length/binary, $">> -> Value;
        _ -> malformed("a quoted value does not end")
    end;
unquoted(Value) ->
    Value.

one(Name, Parameters) ->
    case [Value || {Each, Value} <- Parameters, Each == Name] of
        [Value] when Value /= <<>>, byte_size(Value) =< ?MAX_TOKEN -> Value;
        [] -> malformed(["it has no ", Name]);
        _ -> malformed(["it has no single ", Name, " of a usable length"])
    end.

%%% the token

parts([_, _, _] = Encoded) ->
    [case decoded(Each) of
         {ok, Bytes} -> Bytes;
         error -> malformed("a part of the token is not base64url")
     end || Each <- Encoded];
parts(_) ->
    malformed("a token has three parts").

%% A text has one form only: without padding, and without bits behind the last byte.
decoded(Text) ->
    try base64url:decode(Text) of
        Bytes ->
            case base64url:encode(Bytes) of
                Text -> {ok, Bytes};
                _ -> error
            end
    catch _:_ -> error
    end.

object(Text) ->
    try jiffy:decode(Text, [return_maps]) of
        Map when is_map(Map) -> Map;
        _ -> malformed("a part of the token is no JSON object")
    catch _:_ -> malformed("a part of the token is not JSON")
    end.

%% What changes the meaning of the signature is refused, whatever it says.
is_signed_with_es256(#{<<"alg">> := <<"ES256">>} = Header) ->
    not lists:any(fun(Name) -> is_map_key(Name, Header) end, [<<"crit">>, <<"b64">>, <<"zip">>]);
is_signed_with_es256(_) ->
    false.

claims(Claims, Origins) ->
    Audience = case Claims of
                   #{<<"aud">> := List} when is_list(List) -> List;
                   #{<<"aud">> := One} -> [One];
                   _ -> []
               end,
    %% Without a known origin of the service no token is for it.
    lists:any(fun(Each) -> is_binary(Each) andalso origin(Each) /= none andalso lists:member(origin(Each), Origins) end, Audience)
        orelse refuse(vapid_refused, [["aud is not ", lists:join(" or ", Origins)]]),
    Now = erlang:system_time(second),
    case Claims of
        #{<<"exp">> := Expires} when is_number(Expires), Expires > Now, Expires =< Now + ?MAX_SECONDS -> ok;
        #{<<"exp">> := Expires} when is_number(Expires), Expires =< Now -> refuse(vapid_refused, ["it has expired"]);
        #{<<"exp">> := Expires} when is_number(Expires) ->
            refuse(vapid_refused, ["it is valid for more than 24 hours"]);
        _ -> refuse(vapid_refused, ["it has no exp"])
    end.

%% An origin in one form: lower case, with a port if it is not that of the scheme. Anything else is `none`.
origin(Text) ->
    try uri_string:parse(Text) of
        #{scheme := Scheme, host := Host, path := <<>>} = Parts
          when Host /= <<>>, not is_map_key(query, Parts), not is_map_key(fragment, Parts),
               not is_map_key(userinfo, Parts) ->
            Kind = string:lowercase(Scheme),
            Port = case {Kind, maps:get(port, Parts, undefined)} of
                       {_, undefined} -> <<>>;
                       {<<"https">>, 443} -> <<>>;
                       {<<"http">>, 80} -> <<>>;
                       {_, Number} -> <<":", (integer_to_binary(Number))/binary>>
                   end,
            <<Kind/binary, "://", (bracketed(string:lowercase(Host)))/binary, Port/binary>>;
        _ -> none
    catch _:_ -> none
    end.

bracketed(Host) ->
    case binary:match(Host, <<":">>) of
        nomatch -> Host;
        _ -> <<"[", Host/binary, "]">>
    end.

is_signature(Token, Key) ->
    {ok, <<4, X:32/binary, Y:32/binary>>} = decoded(Key),
    JWK = jose_jwk:from_map(#{<<"kty">> => <<"EC">>, <<"crv">> => <<"P-256">>, <<"x">> => base64url:encode(X),
                              <<"y">> => base64url:encode(Y)}),
    try jose_jws:verify_strict(JWK, [<<"ES256">>], Token) of
        {true, _, _} -> true;
        _ -> false
    catch _:_ -> false
    end.
