%% SPDX-License-Identifier: GPL-3.0-only
%% The listener that a monitoring system reads: GET /metrics, and nothing else. It has a port of its own, so that no
%% publisher reaches it, and the server's own HTTP serves it. Whoever reaches the port may read the metrics, so its
%% address has to be written in the configuration: none is assumed. Keeps no state.
-module(pubsub_device_metrics_listener).
-behaviour(ejabberd_listener).

-export([start/3, start_link/3, accept/1, listen_opt_type/1, listen_options/0]).
-export([process/2]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/ejabberd_http.hrl").

start(Transport, Socket, Opts) -> ejabberd_http:start(Transport, Socket, with_handler(Opts)).
start_link(Transport, Socket, Opts) -> ejabberd_http:start_link(Transport, Socket, with_handler(Opts)).
accept(Pid) -> ejabberd_http:accept(Pid).

with_handler(Opts) ->
    [{request_handlers, [{[<<"metrics">>], ?MODULE}]} | Opts].

process([], #request{method = Method}) when Method == 'GET'; Method == 'HEAD' ->
    {200, [{<<"Content-Type">>, <<"text/plain; version=0.0.4; charset=utf-8">>}],
     iolist_to_binary(pubsub_device_exposition:text())};
process([], _) ->
    {405, [{<<"Allow">>, <<"GET, HEAD">>}, {<<"Content-Type">>, <<"text/plain">>}], <<"GET /metrics\n">>};
process(_, _) ->
    {404, [{<<"Content-Type">>, <<"text/plain">>}], <<"The metrics are at /metrics\n">>}.

%% An atom is a required option.
listen_options() ->
    [ip, {tls, false}, {tls_compression, false}, {ciphers, undefined}, {dhfile, undefined}, {cafile, undefined},
     {protocol_options, undefined}].

%% All are options of every listener.
listen_opt_type(Option) -> ejabberd_listener:listen_opt_type(Option).
