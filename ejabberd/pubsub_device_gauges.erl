%% SPDX-License-Identifier: GPL-3.0-only
%% What is kept at the moment: sizes of tables, the oldest kept item, the devices that keep most.
%%
%% Nothing here walks all kept items. Sizes and bytes are kept by the tables themselves. The oldest item and the
%% devices that keep most are found by a walk over the devices, of which each knows its oldest item and its counts:
%% ?STEP of them every second, so that a round over few is done at once and one over a million costs as little
%% each second. The tables are those of the whole cluster, so only one member walks and reports them, the first.
-module(pubsub_device_gauges).
-behaviour(gen_server).

-export([start_link/0, values/0, top/0, is_first/0]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2]).

-include("pubsub_device_metrics.hrl").

-define(INTERVAL_MS, 1000).
-define(STEP, 2000).
-define(TOP, 20).
-define(TIMEOUT, 5000).

%% at is the device that the walk has reached, or none; oldest and top are those of the round so far. found
%% is the result of the last whole round: {Oldest, Top}, or none before the first.
-record(state, {at = none, oldest = infinity, top = [], found = none}).

start_link() -> gen_server:start_link({local, ?MODULE}, ?MODULE, [], []).

%% The value of each gauge as {Key, Number} or {{Key, Value}, Number}. Shared ones only on the first member, and the
%% age only when it is known.
values() ->
    own() ++ case is_first() of
                 true -> shared();
                 false -> []
             end.

is_first() ->
    hd(pubsub_device_commit:members()) == node().

own() ->
    [{{backlog, Shard}, waiting(pubsub_device_writer:name(Shard))} || Shard <- pubsub_device_writer:shards()]
        ++ [{{sender_backlog, Shard}, waiting(pubsub_device_sender:name(Shard))}
            || Shard <- pubsub_device_sender:shards()]
        ++ [{backlog_limit, mod_pubsub_device:option(max_backlog)},
            {commit_backlog, waiting(pubsub_device_commit)},
            {members, length(pubsub_device_commit:members())}].

waiting(Name) ->
    case whereis(Name) of
        undefined -> 0;
        Pid ->
            case process_info(Pid, message_queue_len) of
                {_, Length} -> Length;
                undefined -> 0
            end
    end.

shared() ->
    Totals = pubsub_device_store:totals(),
    Totals ++ [{kept_bytes, pubsub_device_metrics:value(kept_bytes)}, {kept_limit, mod_pubsub_device:option(max_store)}
               | oldest(proplists:get_value(kept_items, Totals))].

oldest(0) ->
    [{oldest, 0}];
oldest(_) ->
    case found() of
        none -> [];
        {infinity, _} -> [{oldest, 0}];
        {Number, _} -> [{oldest, max(0, erlang:system_time(microsecond) - Number) div 1000000}]
    end.

%% The devices that keep most, with {Items, Bytes}; the most first. Empty when the member that knows them is away.
top() ->
    case found() of
        none -> [];
        {_, Top} ->
            Loads = [{Bytes, Items, Device} || {_, Device} <- Top,
                                               {Items, Bytes} <- [pubsub_device_store:load(Device)], Items > 0],
            [{Device, Items, Bytes} || {Bytes, Items, Device} <- lists:reverse(lists:sort(Loads))]
    end.

found() ->
    try gen_server:call({?MODULE, hd(pubsub_device_commit:members())}, found, ?TIMEOUT)
    catch exit:_ -> none
    end.

%%% the walk

init([]) ->
    self() ! step,
    {ok, #state{}}.

handle_call(found, _, #state{found = Found} = State) ->
    {reply, Found, State}.

handle_cast(_, State) ->
    {noreply, State}.

handle_info(step, State) ->
    erlang:send_after(?INTERVAL_MS, self(), step),
    case is_first() of
        true -> {noreply, pubsub_device_database:attempt(fun() -> walk(State, ?STEP) end, fun() -> State end)};
        false -> {noreply, #state{}}
    end;
handle_info(_, State) ->
    {noreply, State}.

walk(State, 0) ->
    State;
walk(#state{at = At, oldest = Oldest, top = Top} = State, Left) ->
    case pubsub_device_store:next_device(At) of
        none -> #state{found = {Oldest, Top}};
        {Device, infinity} -> walk(State#state{at = Device}, Left - 1);
        {Device, Number} ->
            walk(State#state{at = Device, oldest = min(Oldest, Number), top = entered(Device, Top)}, Left - 1)
    end.

%% The smallest first.
entered(Device, Top) ->
    {_, Bytes} = pubsub_device_store:load(Device),
    case Top of
        [{Least, _} | _] when length(Top) == ?TOP, Bytes =< Least -> Top;
        [_ | Rest] when length(Top) == ?TOP -> lists:sort([{Bytes, Device} | Rest]);
        _ -> lists:sort([{Bytes, Device} | Top])
    end.
