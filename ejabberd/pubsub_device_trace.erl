%% SPDX-License-Identifier: GPL-3.0-only
%% Traces: when an item whose id begins with "trace-" passed each station of its way through this server, for the account
%% that published it and the accounts of the devices it was sent to, each its own stations. They are in memory, at the
%% member where the item passed, for ?SECONDS; an account has ?STATIONS, the newest.
-module(pubsub_device_trace).

-export([init/0, id/1, mark/3, mark/4, stations/2, local/2, sweep/0]).

-include("pubsub_device.hrl").

-define(TABLE, pubsub_device_traces).
-define(PREFIX, "trace-").
-define(MAX_ID, 80).
-define(STATIONS, 64).
-define(SECONDS, 600).
-define(TIMEOUT, 5000).

%% Rows are {{Account, At, Unique}, ItemId, Station, Resource}, with the time in microseconds.
init() ->
    ets:new(?TABLE, [named_table, public, ordered_set]).

%% The id of the item that a publisher marks with this text.
id(Mark) -> <<?PREFIX, Mark/binary>>.

mark(Account, ItemId, Station) -> mark(Account, ItemId, Station, <<>>).

%% Asked for each item, of which few are marked.
mark({User, Server, _}, <<?PREFIX, _/binary>> = ItemId, Station, Resource) when byte_size(ItemId) =< ?MAX_ID ->
    Account = {User, Server, <<>>},
    Row = {{Account, erlang:system_time(microsecond), erlang:unique_integer()}, ItemId, Station, Resource},
    ets:insert(?TABLE, Row),
    ets:select_count(?TABLE, [{{{Account, '_', '_'}, '_', '_', '_'}, [], [true]}]) > ?STATIONS
        andalso ets:delete(?TABLE, ets:next(?TABLE, {Account, 0, 0})),
    ok;
mark(_, _, _, _) ->
    ok.

%% [{Station, Resource, At}] of all members that answer, in the order of time.
stations(Account, ItemId) ->
    Answers = erpc:multicall(pubsub_device_commit:members(), ?MODULE, local, [Account, ItemId], ?TIMEOUT),
    lists:keysort(3, lists:append([Stations || {ok, Stations} <- Answers])).

local(Account, ItemId) ->
    ets:select(?TABLE, [{{{Account, '$1', '_'}, ItemId, '$2', '$3'}, [], [{{'$2', '$3', '$1'}}]}]).

sweep() ->
    Oldest = erlang:system_time(microsecond) - ?SECONDS * 1000000,
    ets:select_delete(?TABLE, [{{{'_', '$1', '_'}, '_', '_', '_'}, [{'<', '$1', Oldest}], [true]}]).
