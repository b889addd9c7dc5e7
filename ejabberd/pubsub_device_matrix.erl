%% SPDX-License-Identifier: GPL-3.0-only
%% The push gateway of Matrix at the root of the origin: a home server posts a notification with the devices that it is
%% for, whose pushkeys are addresses of endpoints, and each endpoint gets it without them. Nothing is requested from
%% other servers: of an address only the key counts. Keeps no state.
-module(pubsub_device_matrix).

-export([notify/2]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/ejabberd_http.hrl").

%% Home servers name one device in a request.
-define(MAX_DEVICES, 100).

notify(Prefix, #request{method = 'POST', data = Body, length = Length}) ->
    case max(Length, byte_size(Body)) > mod_pubsub_device:option(max_payload) of
        true -> pubsub_device_refusal:answer(size, [mod_pubsub_device:option(max_payload)]);
        false -> parsed(Prefix, Body)
    end;
notify(_, #request{method = Method}) when Method == 'GET'; Method == 'HEAD' ->
    pubsub_device_refusal:json(200, [], {[{unifiedpush, {[{gateway, matrix}]}}]});
notify(_, _) ->
    pubsub_device_refusal:answer(method, [], [{<<"Allow">>, <<"GET, HEAD, POST">>}]).

parsed(Prefix, Body) ->
    try jiffy:decode(Body) of
        {[_ | _] = Members} ->
            case proplists:get_value(<<"notification">>, Members) of
                {Notification} -> for_devices(Prefix, Notification);
                _ -> malformed("it has no object notification")
            end;
        _ -> malformed("it has no object notification")
    catch _:_ -> malformed("it is not JSON")
    end.

malformed(Why) -> pubsub_device_refusal:answer(notification, [Why]).

for_devices(Prefix, Notification) ->
    Devices = case proplists:get_value(<<"devices">>, Notification) of
                  List when is_list(List) -> List;
                  _ -> []
              end,
    Keys = [case Device of
                {Members} -> proplists:get_value(<<"pushkey">>, Members);
                _ -> none
            end || Device <- Devices],
    case {length(Keys), lists:all(fun is_binary/1, Keys)} of
        {0, _} -> malformed("it has no devices");
        {_, false} -> malformed("a device has no pushkey");
        {Count, _} when Count > ?MAX_DEVICES -> pubsub_device_refusal:answer(pushkeys, [?MAX_DEVICES]);
        _ ->
            Rest = lists:keydelete(<<"devices">>, 1, Notification),
            answer([{Key, publish(key(Key, Prefix), Rest)} || Key <- lists:usort(Keys)])
    end.

%% A pushkey that may never work is rejected: the home server forgets it. What may work later fails the whole request,
%% which the home server sends again.
answer(Outcomes) ->
    case [Name || {_, {later, Name}} <- Outcomes] of
        [{wait, Seconds} | _] -> pubsub_device_refusal:answer(rate, [Seconds]);
        [full | _] -> pubsub_device_refusal:answer(full, []);
        [_ | _] -> pubsub_device_refusal:answer(busy, []);
        [] -> pubsub_device_refusal:json(200, [], {[{rejected, [Key || {Key, rejected} <- Outcomes]}]})
    end.

publish(none, _) ->
    rejected;
publish(Key, Notification) ->
    Asked = #{ttl => none, topic => none, urgency => urgency(Notification), trace => none},
    case published(Key, Notification, Asked) of
        {size, _} -> judged(published(Key, essential(Notification), Asked));
        Outcome -> judged(Outcome)
    end.

published(Key, Notification, Asked) ->
    Text = iolist_to_binary(jiffy:encode({[{notification, {Notification}}]})),
    pubsub_device_http:publish(Key, Text, byte_size(Text), [], Asked).

%% An endpoint of one application server, whose tokens no home server has, cannot be reached in this way.
judged({ok, _, _, _}) -> ok;
judged({error, #stanza_error{reason = 'resource-constraint'}}) -> {later, busy};
judged({error, #stanza_error{reason = 'internal-server-error'}}) -> {later, busy};
judged({wait, _} = Wait) -> {later, Wait};
judged(full) -> {later, full};
judged(_) -> rejected.

%% What a client needs to fetch the rest.
essential(Notification) ->
    [Each || {Name, _} = Each <- Notification,
             lists:member(Name, [<<"event_id">>, <<"room_id">>, <<"counts">>, <<"prio">>])].

urgency(Notification) ->
    case proplists:get_value(<<"prio">>, Notification) of
        <<"low">> -> <<"low">>;
        <<"high">> -> <<"high">>;
        _ -> none
    end.

%% The key in the address of an endpoint.
key(Address, Prefix) ->
    try
        #{scheme := Scheme, path := Path} = uri_string:parse(Address),
        true = lists:member(string:lowercase(Scheme), [<<"https">>, <<"http">>]),
        Segments = [uri_string:percent_decode(Each) || Each <- binary:split(Path, <<"/">>, [global, trim_all])],
        true = lists:prefix(Prefix, Segments),
        [Key] = lists:nthtail(length(Prefix), Segments),
        Key
    catch _:_ -> none
    end.
