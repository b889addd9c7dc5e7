%% SPDX-License-Identifier: GPL-3.0-only
%% Carriage returns on the wire. The server's encoder writes them literally in text, and a parser reads a literal one
%% as a line feed: a stanza of the service that contains one is encoded here, with a character reference in its place.
%% Keeps no state.
%%
%% Otherwise the stanza is sent like all others: through the session's socket with its encryption and compression, and
%% through the hook that counts stanzas, so that stream management stores, counts and resends it. The encoder writes
%% no carriage return of its own, and those in attributes are references already.
-module(pubsub_device_wire).

-export([on_send/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").

on_send({Stanza, #{socket := Socket, stream_state := established, stream_header_sent := true, xmlns := Space} = State}
        = Unchanged) when is_record(Stanza, message); is_record(Stanza, iq) ->
    case is_ours(xmpp:get_from(Stanza)) andalso has_return(Stanza) andalso is_stream(Socket) of
        true ->
            Encoded = fxml:element_to_binary(xmpp:encode(Stanza, Space)),
            Result = xmpp_socket:send(Socket, binary:replace(Encoded, <<"\r">>, <<"&#13;">>, [global])),
            Result == ok orelse (self() ! {'$gen_event', closed}),
            {drop, ejabberd_c2s:handle_send(Stanza, Result, State)};
        false -> Unchanged
    end;
on_send(Unchanged) ->
    Unchanged.

is_ours(#jid{luser = <<>>, lserver = Service}) -> mod_pubsub_device:is_service(Service);
is_ours(_) -> false.

has_return(#message{subject = Subject, body = Body, sub_els = Elements}) ->
    is_in(Elements) orelse is_in(Subject) orelse is_in(Body);
has_return(#iq{sub_els = Elements}) ->
    is_in(Elements).

%% A text is a binary in records and in encoded elements.
is_in([]) -> false;
is_in([Head | Tail]) -> is_in(Head) orelse is_in(Tail);
is_in({xmlcdata, Text}) -> is_in(Text);
is_in(#xmlel{children = Children}) -> is_in(Children);
is_in(Text) when is_binary(Text) -> binary:match(Text, <<"\r">>) /= nomatch;
is_in(Tuple) when is_tuple(Tuple) -> is_in(tuple_to_list(Tuple));
is_in(_) -> false.

%% BOSH and WebSocket sessions have encoders of their own, which cannot be replaced here.
is_stream(Socket) ->
    lists:member(xmpp_socket:get_sockmod(Socket), [gen_tcp, fast_tls, ezlib]).
