%% SPDX-License-Identifier: GPL-3.0-only
%% How much is kept and for how long, how fast a key may publish, and when the service is full. The bounds are options
%% of mod_pubsub_device; the counts of dropped items and the rates are in a table in memory.
-module(pubsub_device_bounds).

-export([node_refused/1, key_refused/1, device_refused/1]).
-export([init/0, limits/0, bytes/1, fits/4, dropped/4, drop_aged/2, measure/0, level/2, is_full/0, admits/1,
         forget_rates/0, forget_counts/0]).

-include_lib("kernel/include/logger.hrl").
-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

-define(TABLE, pubsub_device_counts).
-define(SAMPLED, 16).

%% What a copy costs without its text: its records or rows, their entries in other tables and in indexes, and their share
%% of the log.
-define(RECORD_BYTES, 1000).

%% The atomics count the publications, and say whether the writers were behind when they were last looked at.
init() ->
    persistent_term:put(?MODULE, atomics:new(2, [])),
    ets:new(?TABLE, [named_table, public, {write_concurrency, true}]).

%% The bounds of the storage: how many copies of a node and of all nodes are kept for a device, and how many bytes for
%% a device and for an account. A node has a bound of its own, so that a busy one cannot displace the items of all
%% others.
limits() ->
    {mod_pubsub_device:option(max_kept_node), mod_pubsub_device:option(max_kept),
     mod_pubsub_device:option(max_kept_bytes), account_bound()}.

%% The cost of a copy: its text, its number and its records.
bytes(Item) -> ?RECORD_BYTES + byte_size(<<"seqNo0123456789012345">>) + text_bytes(Item).

text_bytes({xmlcdata, Text}) -> byte_size(Text);
text_bytes(#xmlel{name = Name, attrs = Attributes, children = Children}) ->
    byte_size(Name) + lists:sum([byte_size(Key) + byte_size(Value) || {Key, Value} <- Attributes])
        + lists:sum([text_bytes(Child) || Child <- Children]).

%% Whether the copy can be kept at all: one that exceeds a bound by itself would displace everything else and still
%% not fit.
fits(Node, Device, Number, Bytes) ->
    case Bytes =< min(mod_pubsub_device:option(max_kept_bytes), account_bound()) of
        true -> true;
        false -> dropped(Node, Device, Number, size), false
    end.

%% Whatever the options say, no account can fill the store.
account_bound() ->
    min(mod_pubsub_device:option(max_account_bytes), mod_pubsub_device:option(max_store) div 2).

%%% nodes, keys and devices of an account: `false`, or the error

node_refused(Account) ->
    refused(max_nodes, <<"nodes">>, pubsub_device_store:counted({nodes, Account}) + 1).

%% The count includes the new key.
key_refused(Account) ->
    refused(max_keys, <<"key nodes">>, pubsub_device_store:counted({keys, Account})).

refused(Option, What, Count) ->
    Bound = mod_pubsub_device:option(Option),
    Text = "The account has ~b ~ts, as many as it may; delete some, or ask the server's operator to raise ~ts",
    case Count > Bound of
        true ->
            pubsub_device_metrics:count({refused, Option}),
            resource_constraint(io_lib:format(Text, [Bound, What, Option]));
        false -> false
    end.

device_refused(Account) ->
    Bound = mod_pubsub_device:option(max_devices),
    pubsub_device_metrics:count({refused, max_devices}),
    Text = "The account has ~b devices, as many as it may, and all are connected; end one's session, or ask the server's "
           "operator to raise max_devices",
    case ets:update_counter(?TABLE, {refused, Account}, 1, {{refused, Account}, 0}) of
        Count when Count rem 100 == 1 ->
            ?LOG_WARNING("Refused a device of ~ts, ~b refused so far: all of its ~b devices are connected; max_devices of "
                         "mod_pubsub_device sets the bound", [jid:encode(jid:make(Account)), Count, Bound]);
        _ -> ok
    end,
    resource_constraint(io_lib:format(Text, [Bound])).

resource_constraint(Text) ->
    {error, xmpp:err_resource_constraint(iolist_to_binary(Text), <<"en">>)}.

%% A device's first dropped item is logged, then every hundredth, with the count so far.
dropped({_, NodeId}, Device, Number, Why) ->
    pubsub_device_metrics:count({dropped, Why}),
    case ets:update_counter(?TABLE, {dropped, Device}, 1, {{dropped, Device}, 0}) of
        Count when Count rem 100 == 1 ->
            ?LOG_WARNING("Dropped the oldest kept item of device ~ts: node ~ts, seqNo ~b, ~b dropped so far. The device "
                         "does not acknowledge; max_kept, max_kept_node, max_kept_bytes and max_account_bytes of "
                         "mod_pubsub_device set the bound",
                         [jid:encode(Device), NodeId, Number, Count]);
        _ -> ok
    end.

drop_aged(Device, Node) ->
    Oldest = erlang:system_time(second) - mod_pubsub_device:option(max_age) div 1000,
    case pubsub_device_store:next(Node, Device, 0) of
        #pubsub_device_copy{id = {_, _, Number}, at = At} when At < Oldest ->
            pubsub_device_store:drop(Node, Device, Number) andalso dropped(Node, Device, Number, age),
            drop_aged(Device, Node);
        _ -> ok
    end.

%% A full store does not wait for devices that may never return: a tenth is freed at the cost of the accounts that have
%% most.
measure() ->
    Bound = mod_pubsub_device:option(max_store),
    Bytes = pubsub_device_store:total(),
    ets:insert(?TABLE, {store_full, Bytes > Bound}),
    pubsub_device_metrics:set(kept_bytes, Bytes),
    Bytes > Bound andalso hd(pubsub_device_commit:members()) == node() andalso relieve(Bytes, Bound).

relieve(Bytes, Bound) ->
    {Level, Accounts} = pubsub_device_store:relieve(Bound * 9 div 10),
    ?LOG_WARNING("The store is full: ~b bytes are kept, and max_store of mod_pubsub_device is ~b. The ~b accounts with "
                 "more than ~b bytes lose their oldest items", [Bytes, Bound, Accounts, Level]).

%% The level to which the accounts that have most are reduced, of the bytes that each has, so that all fit into the room.
level(Sums, Room) -> level(lists:sort(Sums), Room, length(Sums)).

level([Size | Rest], Room, Left) when Size * Left =< Room -> level(Rest, Room - Size, Left - 1);
level(_, Room, Left) -> Room div max(1, Left).

%% Whether publishers should try again later: the store is full, or the writers are behind. To look at the writers
%% costs more than a publication should, so it is done for every ?SAMPLED-th one, and for each one while they are
%% behind.
is_full() ->
    case ets:lookup(?TABLE, store_full) of
        [{_, true}] -> true;
        _ ->
            Counter = persistent_term:get(?MODULE),
            Turn = atomics:add_get(Counter, 1, 1),
            case Turn rem ?SAMPLED == 0 orelse atomics:get(Counter, 2) == 1 of
                true ->
                    Behind = lists:any(fun lags/1, pubsub_device_writer:shards()),
                    atomics:put(Counter, 2, if Behind -> 1; true -> 0 end),
                    Behind;
                false -> false
            end
    end.

lags(Shard) ->
    case whereis(pubsub_device_writer:name(Shard)) of
        undefined -> false;
        Pid -> case process_info(Pid, message_queue_len) of
                   {_, Length} -> Length > mod_pubsub_device:option(max_backlog);
                   undefined -> false
               end
    end.

%% Whether an item may be published with the key now: ok, `full`, or {wait, Seconds}.
%% The key is one of a node: others need no bucket.
admits(Key) ->
    case is_full() of
        true -> full;
        false -> take(Key)
    end.

%% Takes one publication from the key's token bucket: ok, or the seconds to wait. Two processes at once may both take
%% the last one, which is harmless for a rate.
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

%% Resets the counts of devices that are forgotten, and of accounts that were refused a device.
forget_counts() ->
    [ets:delete(?TABLE, Id) || {dropped, Device} = Id <- counts(dropped), not pubsub_device_store:is_device(Device)],
    [ets:delete(?TABLE, Id) || Id <- counts(refused)],
    ok.

counts(What) -> ets:select(?TABLE, [{{{What, '$1'}, '_'}, [], [{{What, '$1'}}]}]).

%% A bucket that was not used for a minute counts as full.
forget_rates() ->
    Old = erlang:monotonic_time(millisecond) - 60000,
    ets:select_delete(?TABLE, [{{{rate, '_'}, '_', '$1'}, [{'<', '$1', Old}], [true]}]).
