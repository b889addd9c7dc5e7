%% SPDX-License-Identifier: GPL-3.0-only
%% What each publication asks and what seldom changes (the devices of an account, keys, marks), remembered in memory. A
%% change returns when every member has forgotten what it concerns, so what was confirmed is seen by all requests after
%% it. Each entry is read again after some seconds, for a member that could not be reached.
-module(pubsub_device_sql_cache).

-export([init/0, read/2, forget/1, forget_here/1]).

-define(SECONDS, 5).
-define(ENTRIES, 200000).

init() ->
    persistent_term:put(?MODULE, atomics:new(1, [])),
    ets:new(?MODULE, [named_table, public, {read_concurrency, true}, {write_concurrency, true}]).

%% The remembered value, or that of Read(). What is read while something is forgotten may be old, and is not kept.
read(Id, Read) ->
    Now = erlang:monotonic_time(second),
    case ets:lookup(?MODULE, Id) of
        [{_, Value, Until}] when Now < Until -> Value;
        _ ->
            Turn = turn(),
            Value = Read(),
            ets:info(?MODULE, size) < ?ENTRIES orelse ets:delete_all_objects(?MODULE),
            ets:insert(?MODULE, {Id, Value, Now + ?SECONDS}),
            turn() == Turn orelse ets:delete(?MODULE, Id),
            Value
    end.

turn() -> atomics:get(persistent_term:get(?MODULE), 1).

%% On all members.
forget(Ids) ->
    case pubsub_device_commit:members() of
        [Only] when Only == node() -> forget_here(Ids);
        Members -> erpc:multicall(Members, ?MODULE, forget_here, [Ids], 5000)
    end,
    ok.

forget_here(Ids) ->
    atomics:add(persistent_term:get(?MODULE), 1, 1),
    [ets:delete(?MODULE, Id) || Id <- Ids],
    ok.
