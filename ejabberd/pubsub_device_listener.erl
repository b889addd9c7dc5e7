%% SPDX-License-Identifier: GPL-3.0-only
%% The HTTP listener of the push endpoint: one process for each connection, which reads requests one after the other
%% and has pubsub_device_http answer them. The server's own listener refuses an empty body and unknown methods before
%% any handler sees them, and takes a request that follows a body in the same packet for part of the body. Every wait
%% has a timeout, and at most a head and a body of the largest payload are read.
-module(pubsub_device_listener).
-behaviour(ejabberd_listener).

-export([start/3, start_link/3, init/2, accept/1, listen_opt_type/1, listen_options/0]).

-include_lib("kernel/include/logger.hrl").
-include_lib("ejabberd/include/ejabberd_http.hrl").

%% How long a connection waits for its next request. The head and the body must each arrive within the option
%% request_timeout.
-define(IDLE_MS, 300000).

%% A refused body of up to this many bytes is read and discarded, so that the connection stays open.
-define(MAX_SKIPPED, 1000000).

%% A body of up to this many bytes is read whatever the option max_payload says: endpoints of web push take it.
-define(MIN_BODY, 4096).

%% How long, and how many bytes, are still read from a connection that is being closed: otherwise a client that is
%% still sending would lose the answer.
-define(LINGER_MS, 2000).
-define(MAX_LINGERED, 1000000).

%% The most connections at a time, of one address and of a listener. The streams use the same ports of the server,
%% 32,000 as packaged.
-define(MAX_CONNECTIONS_ADDRESS, 256).
-define(MAX_CONNECTIONS, 8192).

%% Addresses whose connections belong to many clients by default: a proxy on this machine.
-define(PROXIES, [{{127, 0, 0, 0}, 8}, {{0, 0, 0, 0, 0, 0, 0, 1}, 128}]).

%% A connection: tcp is the socket, tls the TLS socket of fast_tls, or none.
-record(link, {tcp, tls = none, opts}).

start(_, Socket, Opts) ->
    {ok, proc_lib:spawn(?MODULE, init, [Socket, Opts])}.

start_link(_, Socket, Opts) ->
    {ok, proc_lib:spawn_link(?MODULE, init, [Socket, Opts])}.

%% This process owns the socket from now on.
accept(Pid) ->
    Pid ! accepted,
    ok.

init(Socket, Opts) ->
    receive
        accepted -> serve(Socket, Opts)
    after 5000 -> ok
    end.

serve(Socket, Opts) ->
    inet:setopts(Socket, [{send_timeout, proplists:get_value(send_timeout, Opts, 15000)}, {send_timeout_close, true}]),
    Link = #link{tcp = Socket, opts = Opts},
    try
        case counted(admitted(Link)) of
            ok -> converse(secured(Link));
            refused -> turn_away(secured(Link));
            closed -> ok
        end
    catch
        throw:ended -> ok;
        Class:Reason:Stack -> report(pubsub_device_fault:told(Class, Reason, Stack))
    end,
    gen_tcp:close(Socket).

converse(Link) ->
    try next(Link, <<>>, request_timeout(Link))
    catch
        throw:{refused, Status, Text} -> turn_off(Link, pubsub_device_refusal:unreadable(Status, Text))
    end.

%%% bounds

admitted(#link{tcp = Socket, opts = Opts}) ->
    case {inet:port(Socket), peer(Socket, proplists:get_value(sock_peer_name, Opts))} of
        {{ok, Port}, {ok, Address}} ->
            Proxies = proplists:get_value(proxies, Opts, ?PROXIES),
            Each = case lists:any(fun(Mask) -> is_within(Address, Mask) end, Proxies) of
                       true -> infinity;  % an atom is greater than every number
                       false -> proplists:get_value(max_connections_address, Opts, ?MAX_CONNECTIONS_ADDRESS)
                   end,
            pubsub_device_gate:enter(Port, Address,
                                     {Each, proplists:get_value(max_connections, Opts, ?MAX_CONNECTIONS)});
        _ -> closed
    end.

counted(Verdict) ->
    pubsub_device_metrics:count({connected, case Verdict of
                                                ok -> served;
                                                _ -> Verdict
                                            end}),
    Verdict.

%% With the proxy protocol, the proxy gives the client's address if it knows it.
peer(_, {_, {unknown, _}}) ->
    {ok, undefined};
peer(_, {_, {Address, _}}) ->
    {ok, Address};
peer(Socket, _) ->
    case inet:peername(Socket) of
        {ok, {Address, _}} -> {ok, Address};
        Error -> Error
    end.

is_within(Address, {Net, Length}) ->
    is_tuple(Address) andalso misc:match_ip_mask(Address, Net, Length).

%% A client that sends a request is told why; others are not waited for.
turn_away(Link) ->
    receive_quietly(Link, now_ms() + ?LINGER_MS),
    turn_off(Link, pubsub_device_refusal:answer(crowded, [])).

%%% requests

next(Link, Buffer, Patience) ->
    case pubsub_device_head:take(Buffer, 0) of
        {more, <<>>, 0} ->
            next(Link, receive_quietly(Link, now_ms() + Patience), Patience);
        Taken ->
            {Head, Rest} = head(Link, Taken, deadline(Link)),
            request(Link, Head, Rest)
    end.

head(_, {ok, Head, Rest}, _) ->
    {Head, Rest};
head(Link, {more, Buffer, Seen}, Deadline) ->
    More = receive_some(Link, Deadline),
    head(Link, pubsub_device_head:take(<<Buffer/binary, More/binary>>, Seen), Deadline);
head(_, {refused, _, _} = Refusal, _) ->
    throw(Refusal).

request(Link, #{length := Length, expects := Expects, keep := Keep} = Head, Rest) ->
    case Length =< max(?MIN_BODY, mod_pubsub_device:option(max_payload)) of
        true ->
            Expects andalso Length > 0 andalso send(Link, <<"HTTP/1.1 100 Continue\r\n\r\n">>),
            {Body, After} = body(Link, Length, Rest, deadline(Link)),
            answered(Link, Head, handle(Link, Head, Body), After);
        false when Keep, not Expects, Length =< ?MAX_SKIPPED ->
            answer(Link, Head, handle(Link, Head, <<>>)),
            next(Link, skip(Link, Length, Rest, deadline(Link)), ?IDLE_MS);
        false ->  % the client may not send the body at all
            answer(Link, Head#{keep := false}, handle(Link, Head, <<>>)),
            linger(Link)
    end.

answered(Link, #{keep := true} = Head, Answer, After) ->
    answer(Link, Head, Answer),
    next(Link, After, ?IDLE_MS);
answered(Link, Head, Answer, _) ->
    answer(Link, Head, Answer),
    linger(Link).

%% A copy, since a kept item would otherwise keep everything that came in the same packet in memory.
body(_, Length, Rest, _) when byte_size(Rest) >= Length ->
    <<Body:Length/binary, After/binary>> = Rest,
    {binary:copy(Body), binary:copy(After)};
body(Link, Length, Rest, Deadline) ->
    More = receive_some(Link, Deadline),
    body(Link, Length, <<Rest/binary, More/binary>>, Deadline).

skip(_, Length, Rest, _) when byte_size(Rest) >= Length ->
    binary:copy(binary:part(Rest, Length, byte_size(Rest) - Length));
skip(Link, Length, Rest, Deadline) ->
    skip(Link, Length - byte_size(Rest), receive_quietly(Link, Deadline), Deadline).

handle(#link{opts = Opts}, #{method := Method, target := Target, length := Length, fields := Fields}, Body) ->
    try
        Path = segments(Target),
        Request = #request{method = Method, path = Path, raw_path = Target, data = Body, length = Length,
                           headers = Fields},
        Prefix = proplists:get_value(path, Opts, default_path()),
        pubsub_device_metrics:timed(request, fun() -> routed(Path, Prefix, Request) end)
    catch
        throw:malformed -> pubsub_device_refusal:answer(address, []);
        Class:Reason:Stack ->
            report(pubsub_device_fault:told(Class, Reason, Stack)),
            pubsub_device_refusal:answer(failed, [])
    end.

%% Matrix fixes the gateway's path.
routed([<<"_matrix">>, <<"push">>, <<"v1">>, <<"notify">>], Prefix, Request) ->
    pubsub_device_matrix:notify(Prefix, Request);
routed(Path, Prefix, Request) ->
    case lists:prefix(Prefix, Path) of
        true -> pubsub_device_http:process(lists:nthtail(length(Prefix), Path), Request);
        false -> pubsub_device_refusal:answer(nothing, [])
    end.

report(Fault) ->
    ?LOG_ERROR("a request over HTTP failed: ~p", [Fault]).

%% A proxy may send an absolute URI.
segments(Target) ->
    Path = case Target of
               <<$/, _/binary>> -> hd(binary:split(Target, [<<"?">>, <<"#">>]));
               _ -> case uri_string:parse(Target) of
                        #{scheme := _, host := _, path := Whole} -> Whole;
                        _ -> <<>>
                    end
           end,
    [decoded(Segment) || Segment <- binary:split(Path, <<"/">>, [global, trim_all])].

decoded(Segment) ->
    case catch uri_string:percent_decode(Segment) of
        Text when is_binary(Text) -> Text;
        _ -> throw(malformed)
    end.

%%% answers

turn_off(Link, Answer) ->
    answer(Link, #{method => none, version => {1, 1}, keep => false}, Answer),
    linger(Link).

answer(#link{opts = Opts} = Link, #{method := Method, version := Version, keep := Keep},
       {Status, Phrase, Headers, Body}) ->
    pubsub_device_metrics:count({answered, Status}),
    Custom = maps:merge(maps:from_list(Headers), maps:from_list(proplists:get_value(custom_headers, Opts, []))),
    Fields = connection(Version, Keep)
        ++ [{<<"Content-Length">>, integer_to_binary(byte_size(Body))} || Status /= 204] ++ maps:to_list(Custom),
    send(Link, [protocol(Version), integer_to_binary(Status), $\s, Phrase, <<"\r\n">>,
                [[Name, <<": ">>, Value, <<"\r\n">>] || {Name, Value} <- Fields], <<"\r\n">>,
                case Method of
                    'HEAD' -> <<>>;
                    _ -> Body
                end]).

connection({1, 1}, true) -> [];
connection(_, true) -> [{<<"Connection">>, <<"keep-alive">>}];
connection(_, false) -> [{<<"Connection">>, <<"close">>}].

protocol({1, 1}) -> <<"HTTP/1.1 ">>;
protocol(_) -> <<"HTTP/1.0 ">>.

linger(#link{tcp = Socket}) ->
    gen_tcp:shutdown(Socket, write),
    linger(Socket, 0, now_ms() + ?LINGER_MS).

linger(Socket, Read, Deadline) when Read < ?MAX_LINGERED ->
    case gen_tcp:recv(Socket, 0, max(0, Deadline - now_ms())) of
        {ok, Data} -> linger(Socket, Read + byte_size(Data), Deadline);
        {error, _} -> ok
    end;
linger(_, _, _) ->
    ok.

%%% the connection

secured(#link{tcp = Socket, opts = Opts} = Link) ->
    case proplists:get_bool(tls, Opts) of
        false -> Link;
        true ->
            case fast_tls:tcp_to_tls(Socket, tls_options(Opts)) of
                {ok, TLS} -> Link#link{tls = TLS};
                {error, Reason} ->
                    ?LOG_ERROR("no TLS for a connection over HTTP: ~p", [Reason]),
                    throw(ended)
            end
    end.

tls_options(Opts) ->
    [verify_none | certificate(Opts)]
        ++ [compression_none || not proplists:get_bool(tls_compression, Opts)]
        ++ [Option || {Name, _} = Option <- Opts, lists:member(Name, [ciphers, dhfile, cafile, protocol_options])].

%% The listener's own, or that of the server's first host.
certificate(Opts) ->
    case [{certfile, File} || File <- [proplists:get_value(certfile, Opts)], File /= undefined] of
        [] -> certificate();
        Own -> Own ++ [{keyfile, File} || File <- [proplists:get_value(keyfile, Opts)], File /= undefined]
    end.

certificate() ->
    case ejabberd_pkix:get_certfile(ejabberd_config:get_myname()) of
        {ok, File} -> [{certfile, File}];
        error -> []
    end.

%% The received bytes, at least one. The deadline includes the handshake.
receive_some(#link{tcp = Socket, tls = TLS} = Link, Deadline) ->
    case decrypted(TLS, gen_tcp:recv(Socket, 0, max(0, Deadline - now_ms()))) of
        {ok, <<>>} -> receive_some(Link, Deadline);
        {ok, Data} -> Data;
        {error, timeout} -> throw({refused, 408, <<"The request did not come in time">>});
        {error, _} -> throw(ended)
    end.

%% Without a request that waits for an answer, the connection is closed without one.
receive_quietly(Link, Deadline) ->
    try
        receive_some(Link, Deadline)
    catch
        throw:{refused, 408, _} -> throw(ended)
    end.

decrypted(none, Received) -> Received;
decrypted(TLS, {ok, Data}) -> fast_tls:recv_data(TLS, Data);
decrypted(_, Error) -> Error.

send(#link{tcp = Socket, tls = none}, Data) ->
    gen_tcp:send(Socket, Data) == ok orelse throw(ended);
send(#link{tls = TLS}, Data) ->
    fast_tls:send(TLS, iolist_to_binary(Data)) == ok orelse throw(ended).

deadline(Link) ->
    now_ms() + request_timeout(Link).

now_ms() ->
    erlang:monotonic_time(millisecond).

%%% options

request_timeout(#link{opts = Opts}) ->
    proplists:get_value(request_timeout, Opts, 30000).

default_path() -> [<<"push">>].

listen_opt_type(path) ->
    econf:and_then(econf:binary(), fun(Path) -> binary:split(Path, <<"/">>, [global, trim_all]) end);
listen_opt_type(request_timeout) -> econf:timeout(second);
listen_opt_type(certfile) -> econf:file();
listen_opt_type(keyfile) -> econf:file();
listen_opt_type(max_connections) -> econf:pos_int();
listen_opt_type(max_connections_address) -> econf:pos_int(infinity);
listen_opt_type(proxies) -> econf:list(econf:ip_mask());
listen_opt_type(custom_headers) -> econf:map(econf:binary(), econf:binary()).

listen_options() ->
    [{path, default_path()},
     {request_timeout, 30000},
     {custom_headers, []},
     {max_connections, ?MAX_CONNECTIONS},
     {max_connections_address, ?MAX_CONNECTIONS_ADDRESS},
     {proxies, ?PROXIES},
     {backlog, 1024},
     {tls, false},
     {tls_compression, false},
     {certfile, undefined},
     {keyfile, undefined},
     {ciphers, undefined},
     {dhfile, undefined},
     {cafile, undefined},
     {protocol_options, undefined}].
