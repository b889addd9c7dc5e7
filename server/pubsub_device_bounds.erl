%% SPDX-License-Identifier: GPL-3.0-only
%% How much is kept and for how long, how fast a key may publish, and when the service is full. The bounds are
%% the operator's options of mod_pubsub_device; the counts of dropped items and the rates live in a table in
%% memory.
-module(pubsub_device_bounds).

-export([init/0, enforce/2, drop_aged/2, measure/0, is_full/0, admits/1, forget_rates/0]).

-include_lib("kernel/include/logger.hrl").
-include("pubsub_device.hrl").

-define(TABLE, pubsub_device_counts).

init() ->
    ets:new(?TABLE, [named_table, public, {write_concurrency, true}]).

%% The device's oldest item goes when one more than the bound is kept. A single busy node is bounded on its
%% own, so that it cannot push the items of all other nodes out.
enforce(Node, Device) ->
    case pubsub_device_store:count(Node, Device) > mod_pubsub_device:option(max_kept_node) of
        true ->
            #pubsub_device_copy{id = {_, _, Number}} = pubsub_device_store:next(Node, Device, 0),
            pubsub_device_store:drop(Node, Device, Number),
            dropped(Node, Device, Number),
            enforce(Node, Device);
        false -> enforce_total(Device)
    end.

enforce_total(Device) ->
    Bound = mod_pubsub_device:option(max_kept),
    case pubsub_device_store:total_at_least(Device, Bound + 1) of
        true ->
            Oldest = [{Number, Node} || Node <- pubsub_device_store:nodes_for(Device),
                                        #pubsub_device_copy{id = {_, _, Number}}
                                            <- [pubsub_device_store:next(Node, Device, 0)]],
            {Number, Node} = lists:min(Oldest),
            %% The copy belongs to its node's writer, which may be another than the one that asks.
            pubsub_device_writer:cast(Node, {drop_oldest, Node, Device, Number}),
            dropped(Node, Device, Number);
        false -> ok
    end.

%% Each device's first dropped item is logged, then every hundredth with the count so far.
dropped({_, NodeId}, Device, Number) ->
    case ets:update_counter(?TABLE, {dropped, Device}, 1, {{dropped, Device}, 0}) of
        Count when Count rem 100 == 1 ->
            ?LOG_WARNING("Dropped the oldest kept item of device ~ts: node ~ts, seqNo ~b, ~b dropped so far. The device "
                         "does not acknowledge; max_kept and max_kept_node of mod_pubsub_device set the bound",
                         [jid:encode(Device), NodeId, Number, Count]);
        _ -> ok
    end.

drop_aged(Node, Device) ->
    Oldest = erlang:system_time(second) - mod_pubsub_device:option(max_age) div 1000,
    case pubsub_device_store:next(Node, Device, 0) of
        #pubsub_device_copy{id = {_, _, Number}, at = At} when At < Oldest ->
            pubsub_device_store:drop(Node, Device, Number),
            dropped(Node, Device, Number),
            drop_aged(Node, Device);
        _ -> ok
    end.

%% Looks at the size of the store, which takes too long to be asked for every item.
measure() ->
    ets:insert(?TABLE, {store_full, pubsub_device_store:size_bytes() > mod_pubsub_device:option(max_store)}).

%% Whether publishers should come back later: the store has its fill, or the writers lag behind.
is_full() ->
    ets:lookup(?TABLE, store_full) == [{store_full, true}]
        orelse lists:any(fun lags/1, pubsub_device_writer:shards()).

lags(Shard) ->
    case whereis(pubsub_device_writer:name(Shard)) of
        undefined -> false;
        Pid -> case process_info(Pid, message_queue_len) of
                   {_, Length} -> Length > mod_pubsub_device:option(max_backlog);
                   undefined -> false
               end
    end.

%% Whether an item may be published with the key now: ok, `full`, or {wait, Seconds}.
admits(Key) ->
    case {is_full(), pubsub_device_store:node_of(Key)} of
        {true, _} -> full;
        {false, none} -> ok;  % it will be refused, and needs no bucket
        {false, _} -> take(Key)
    end.

%% One publication out of the key's bucket: ok, or the seconds to wait. Two takers at once may both have the
%% last one, which a rate bears.
take(Key) ->
    Rate = mod_pubsub_device:option(key_rate),
    Burst = mod_pubsub_device:option(key_burst),
    Now = erlang:monotonic_time(millisecond),
    Id = {rate, erlang:phash2(Key, 1 bsl 32)},
    Level = case ets:lookup(?TABLE, Id) of
                [{_, Last, At}] -> min(Burst * 1.0, Last + (Now - At) * Rate / 1000);
                [] -> Burst * 1.0
            end,
    case Level >= 1.0 of
        true -> ets:insert(?TABLE, {Id, Level - 1, Now}), ok;
        false -> {wait, max(1, ceil((1.0 - Level) / Rate))}
    end.

%% A bucket that was left alone for a minute is near enough to full.
forget_rates() ->
    Old = erlang:monotonic_time(millisecond) - 60000,
    ets:select_delete(?TABLE, [{{{rate, '_'}, '_', '$1'}, [{'<', '$1', Old}], [true]}]).
