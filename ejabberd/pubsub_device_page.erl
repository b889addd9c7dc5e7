%% SPDX-License-Identifier: GPL-3.0-only
%% The page of the server's web admin: totals, drops and refusals, and the devices that keep most. The server asks for
%% an administrator's password before it calls a page. Keeps no state.
-module(pubsub_device_page).

-export([menu/2, page/2]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/ejabberd_http.hrl").
-include_lib("ejabberd/include/ejabberd_web_admin.hrl").
-include("pubsub_device_metrics.hrl").

-define(PATH, <<"pubsub-device">>).
-define(TITLE, <<"Pub-Sub Devices">>).

menu(Items, _Lang) ->
    Items ++ [{?PATH, ?TITLE}].

page(_, #request{path = [?PATH]}) ->
    {stop, [?XC(<<"h1">>, ?TITLE), ?XC(<<"h2">>, <<"Devices that keep most">>), devices(), ?XC(<<"h2">>, <<"Totals">>),
            ?XE(<<"table">>, lists:flatmap(fun rows/1, pubsub_device_exposition:samples()))]};
page(Page, _) ->
    Page.

devices() ->
    table([<<"Device">>, <<"State">>, <<"Items">>, <<"Bytes">>],
          [[Device, State, integer_to_binary(Items), integer_to_binary(Bytes)]
           || {Device, State, Items, Bytes} <- pubsub_device_commands:top()]).

table(Heads, Rows) ->
    ?XE(<<"table">>, [?XE(<<"thead">>, [?XE(<<"tr">>, [?XC(<<"td">>, Head) || Head <- Heads])]),
                      ?XE(<<"tbody">>, [?XE(<<"tr">>, [?XC(<<"td">>, iolist_to_binary(Cell)) || Cell <- Row])
                                        || Row <- Rows])]).

%% Of a histogram the number and the mean are shown.
rows({#family{kind = histogram, name = Name, help = Help}, Samples}) ->
    {_, _, Sum} = lists:nth(length(Samples) - 1, Samples),
    {_, _, Count} = lists:last(Samples),
    [row(Name, Help, [Count, " times, ", mean(Sum, Count), " ms on average"])];
rows({#family{name = Name, help = Help}, Samples}) ->
    [row([Name, [[" ", Value] || {_, Value} <- Labels]], Help, Number) || {_, Labels, Number} <- Samples].

row(Name, Help, Value) ->
    ?XAE(<<"tr">>, [{<<"title">>, list_to_binary(Help)}],
         [?XC(<<"td">>, iolist_to_binary(Name)), ?XC(<<"td">>, iolist_to_binary(Value))]).

mean(_, "0") -> "0";
mean(Sum, Count) ->
    {Seconds, _} = string:to_float(Sum ++ case lists:member($., Sum) of true -> ""; false -> ".0" end),
    io_lib:format("~.2f", [Seconds * 1000 / list_to_integer(Count)]).
