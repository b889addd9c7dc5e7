%% SPDX-License-Identifier: GPL-3.0-only
%% What a sender over HTTP asks for one message (RFC 8030): for how long it is kept, its topic and its urgency. They
%% become attributes of the item, which is stored and sent with them; the topic stays at the server, as the first
%% attribute. Keeps no state.
-module(pubsub_device_push).

-export([asked/1, field/2, terms/2, on_terms/2, payload/1]).
-export([topic/1, expires/1, urgency/1, is_late/1, without_topic/1, level/1, normal/0]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

-define(MAX_TOPIC, 32).

%% A mark becomes the item's id, so it is long enough to be used once.
-define(MIN_TRACE, 16).

%% A number of more digits than this is longer than anything is kept.
-define(MAX_DIGITS, 12).

%% "Now" of a message that is not to be kept: as long as the way to a device that is connected may take.
-define(NOW_SECONDS, 10).

%%% requests

%% {ok, #{ttl, topic, urgency, trace}}, each a value or `none`, or the name of the refusal.
asked(Headers) ->
    try {ok, maps:from_list([{Name, value(Name, field(atom_to_binary(Name), Headers))}
                             || Name <- [ttl, topic, urgency, trace]])}
    catch throw:{malformed, Name} -> Name
    end.

%% The values of a header field, whose name is an atom under the server's own listener.
field(Name, Headers) ->
    [Value || {Each, Value} <- Headers, string:lowercase(text(Each)) == Name].

text(Name) when is_atom(Name) -> atom_to_binary(Name);
text(Name) -> Name.

value(_, []) -> none;
value(Name, [Value]) ->
    case is_valid(Name, Value) of
        true when Name == ttl -> seconds(Value);
        true -> Value;
        false -> throw({malformed, Name})
    end;
value(Name, _) -> throw({malformed, Name}).

is_valid(ttl, Value) -> Value /= <<>> andalso all(fun(Char) -> Char >= $0 andalso Char =< $9 end, Value);
is_valid(topic, Value) -> Value /= <<>> andalso byte_size(Value) =< ?MAX_TOPIC andalso all(fun is_base64url/1, Value);
is_valid(trace, Value) -> byte_size(Value) >= ?MIN_TRACE andalso is_valid(topic, Value);
is_valid(urgency, Value) -> level(Value) /= none.

all(Fits, Value) -> lists:all(Fits, binary_to_list(Value)).

is_base64url(Char) ->
    Char >= $a andalso Char =< $z orelse Char >= $A andalso Char =< $Z orelse Char >= $0 andalso Char =< $9
        orelse Char == $- orelse Char == $_.

seconds(<<"0", Rest/binary>>) when Rest /= <<>> -> seconds(Rest);
seconds(Digits) when byte_size(Digits) > ?MAX_DIGITS -> infinity;  % an atom is greater than every number
seconds(Digits) -> binary_to_integer(Digits).

%% What the service grants: `keep` says whether an absent device gets the message too, `attributes` are those of the
%% item. A message for an endpoint of web push always has a time; others have one if the sender gave it.
terms(#{ttl := TTL, topic := Topic, urgency := Urgency}, IsWebPush) ->
    MaxAge = mod_pubsub_device:option(max_age) div 1000,
    Granted = case TTL of
                  none -> MaxAge;
                  _ -> min(TTL, MaxAge)
              end,
    #{granted => Granted, keep => Granted > 0,
      topic => [{<<"topic">>, Topic} || Topic /= none],
      attributes => [Time || TTL /= none orelse IsWebPush, Time <- times(Granted)]
          ++ [{<<"urgency">>, Urgency} || Urgency /= none]}.

times(0) ->
    times(?NOW_SECONDS);
times(Seconds) ->
    Now = erlang:system_time(second),
    [{<<"expires">>, integer_to_binary(Now + Seconds)}, {<<"published">>, integer_to_binary(Now)}].

%% The publication on these terms.
on_terms(none, Publication) ->
    Publication;
on_terms(#{keep := Keep, topic := Topic, attributes := More},
         #publication{node = Node, item = #xmlel{attrs = Attributes} = Item, keep = Devices} = Publication) ->
    Publication#publication{item = Item#xmlel{attrs = Topic ++ Attributes ++ More},
                            keep = [Each || {Device, Via} = Each <- Devices, Keep orelse takes_now(Node, Device, Via)]}.

%% Whether the device is connected and wants the node's items.
takes_now(Node, Device, Via) ->
    case pubsub_device_store:session(Device) of
        none -> false;
        Pid ->
            case pubsub_device_store:activation(Node, Device, Pid) of
                closed -> false;
                none -> Via == subscription;
                _ -> true
            end
    end.

%% The element of the body: its text, or if XML 1.0 does not carry it, its bytes in base64.
payload(Body) ->
    case is_xml_text(Body) of
        true -> #xmlel{name = <<"payload">>, children = [{xmlcdata, Body}]};
        false -> #xmlel{name = <<"payload">>, attrs = [{<<"encoding">>, <<"base64">>}],
                        children = [{xmlcdata, base64:encode(Body)}]}
    end.

is_xml_text(<<Char/utf8, Rest/binary>>)
  when Char >= 16#20, Char =< 16#FFFD; Char == $\t; Char == $\n; Char == $\r; Char >= 16#10000 ->
    is_xml_text(Rest);
is_xml_text(Rest) ->
    Rest == <<>>.

%%% items

topic(#xmlel{attrs = [{<<"topic">>, Topic} | _]}) -> Topic;
topic(_) -> none.

without_topic(#xmlel{attrs = [{<<"topic">>, _} | Attributes]} = Item) -> Item#xmlel{attrs = Attributes};
without_topic(Item) -> Item.

%% In seconds, or an atom, which is greater than every number.
expires(Item) ->
    case fxml:get_tag_attr(<<"expires">>, Item) of
        {value, Seconds} -> binary_to_integer(Seconds);
        false -> never
    end.

urgency(Item) ->
    case fxml:get_tag_attr(<<"urgency">>, Item) of
        {value, Urgency} -> level(Urgency);
        false -> normal()
    end.

is_late(Item) ->
    expires(Item) < erlang:system_time(second).

%% Urgencies as numbers, the least first.
level(<<"very-low">>) -> 1;
level(<<"low">>) -> 2;
level(<<"normal">>) -> 3;
level(<<"high">>) -> 4;
level(_) -> none.

normal() -> 3.
