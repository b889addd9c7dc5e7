%% SPDX-License-Identifier: GPL-3.0-only
%% The numbers that an operator sees: their names, and the counters behind them. A member of a cluster counts what it
%% does itself, in memory, from its start on.
%%
%% Counting is one look-up in a constant map and one addition without a lock, whoever counts at the same time. What
%% may be a label is listed here, so no text from outside becomes one: neither a node, an account nor a key.
-module(pubsub_device_metrics).

-export([init/0, count/1, count/2, set/2, observe/2, timed/2, with_key/2]).
-export([families/0, bounds/0, value/1, histogram/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device_metrics.hrl").

-define(TERM, ?MODULE).

%% In microseconds. A commit on a fast disk is in the first ones, an item for a device behind a slow link in the last.
bounds() ->
    [100, 250, 500, 1000, 2500, 5000, 10000, 25000, 50000, 100000, 250000, 500000, 1000000, 2500000, 5000000, 10000000,
     30000000, 60000000].

families() ->
    [#family{key = published, name = "publications_total", kind = counter, label = "way",
             values = [xmpp, key, http, server],
             help = "Publications that were confirmed, by the way that they came: a request over XMPP, one with a key "
                    "over XMPP, one over HTTP, or another part of the server."},
     #family{key = refused, name = "refusals_total", kind = counter, label = "reason",
             values = [full, database, key_rate, unknown_key, payload, max_payload, vapid, engine, max_nodes, max_keys,
                       max_devices, foreign, stream_element, depth],
             help = "Requests that were refused, by reason."},
     #family{key = sent, name = "sent_total", kind = counter, label = "transmission", values = [first, repeated],
             help = "Items sent to devices; repeated ones had been sent in the same session before."},
     #family{key = acknowledged, name = "acknowledged_total", kind = counter,
             help = "Items that a device acknowledged."},
     #family{key = dropped, name = "dropped_total", kind = counter, label = "reason",
             values = [node, device, account, store, size, age, forgotten, expired, replaced, taken_back],
             help = "Copies of items that were dropped before their device acknowledged them, by reason."},
     #family{key = answered, name = "http_responses_total", kind = counter, label = "status",
             values = [200, 201, 204, 400, 401, 403, 404, 405, 408, 410, 411, 413, 429, 431, 500, 503, 505],
             help = "Answers of the listener for publishers, by HTTP status."},
     #family{key = connected, name = "http_connections_total", kind = counter, label = "result",
             values = [served, refused, closed],
             help = "Connections to the listener for publishers; refused ones were told 503, closed ones nothing."},
     #family{key = connections, name = "http_connections", kind = level,
             help = "Connections to the listener for publishers that are open now."},
     #family{key = request, name = "http_request_seconds", kind = histogram,
             help = "From the last byte of a request over HTTP to its answer."},
     #family{key = commit, name = "commit_seconds", kind = histogram,
             help = "How long it took until everything written before was on disk, for each commit."},
     #family{key = delivery, name = "delivery_seconds", kind = histogram,
             help = "From the number of an item to its first transmission, for devices that were connected when it was "
                    "published."},
     #family{key = acknowledgement, name = "acknowledgement_seconds", kind = histogram,
             help = "From the transmission of an item to its acknowledgement."},
     #family{key = sessions, name = "sessions", kind = gauge, help = "Devices that are connected."},
     #family{key = devices, name = "devices", kind = gauge, help = "Devices that are remembered."},
     #family{key = nodes, name = "nodes", kind = gauge, help = "Nodes, key nodes included."},
     #family{key = key_nodes, name = "key_nodes", kind = gauge, help = "Key nodes."},
     #family{key = kept_items, name = "kept_items", kind = gauge,
             help = "Copies of items that are kept, one for each item and device."},
     #family{key = kept_bytes, name = "kept_bytes", kind = gauge,
             help = "Bytes of these copies, measured every second."},
     #family{key = kept_limit, name = "kept_limit_bytes", kind = gauge,
             help = "The bound of these bytes, the option max_store."},
     #family{key = oldest, name = "oldest_item_age_seconds", kind = gauge,
             help = "How long ago the oldest kept item was published, or 0 when none is kept."},
     #family{key = backlog, name = "writer_backlog", kind = gauge, label = "writer",
             values = pubsub_device_writer:shards(), help = "Requests that wait for a writer of this member."},
     #family{key = backlog_limit, name = "writer_backlog_limit", kind = gauge,
             help = "The backlog above which publishers are refused, the option max_backlog."},
     #family{key = sender_backlog, name = "sender_backlog", kind = gauge, label = "sender",
             values = pubsub_device_sender:shards(),
             help = "Requests that wait for a process of this member that sends to devices."},
     #family{key = commit_backlog, name = "commit_backlog", kind = gauge,
             help = "Requests that wait for the process that commits."},
     #family{key = members, name = "members", kind = gauge,
             help = "Members of the cluster that run the extension, as this one sees them."}].

%% Keeps the counters when the module is started again, so that the numbers do not fall without a restart of the
%% server.
init() ->
    {Slots, Size} = slots(),
    case persistent_term:get(?TERM, none) of
        {_, Slots} -> ok;
        _ -> persistent_term:put(?TERM, {counters:new(Size, [write_concurrency]), Slots})
    end.

%% #{What => Slot}, `What` being {Key, Value} with a label and Key without; a histogram has a slot for each bucket and
%% one for the sum, from its first on.
slots() ->
    lists:foldl(fun(#family{key = Key, kind = histogram}, {Slots, Size}) ->
                        {Slots#{Key => Size + 1}, Size + length(bounds()) + 2};
                   (#family{key = Key, values = []}, {Slots, Size}) ->
                        {Slots#{Key => Size + 1}, Size + 1};
                   (#family{key = Key, kind = counter, values = Values}, {Slots, Size}) ->
                        Numbered = lists:zip(Values, lists:seq(Size + 1, Size + length(Values))),
                        {lists:foldl(fun({Value, Slot}, Map) -> Map#{{Key, Value} => Slot} end, Slots, Numbered),
                         Size + length(Values)};
                   (_, Sum) -> Sum
                end, {#{}, 0}, families()).

%%% counting

%% What is not in the table is not counted: a wrong name here must not end a publication.
count(What) -> count(What, 1).

count(What, Number) ->
    case persistent_term:get(?TERM, none) of
        {Counters, #{What := Slot}} -> counters:add(Counters, Slot, Number);
        _ -> ok
    end.

set(What, Number) ->
    case persistent_term:get(?TERM, none) of
        {Counters, #{What := Slot}} -> counters:put(Counters, Slot, Number);
        _ -> ok
    end.

%% One duration of a histogram. A clock that was set back gives a negative one.
observe(What, Microseconds) ->
    Spent = max(0, Microseconds),
    case persistent_term:get(?TERM, none) of
        {Counters, #{What := Slot}} ->
            counters:add(Counters, Slot + bucket(Spent, bounds(), 0), 1),
            counters:add(Counters, Slot + length(bounds()) + 1, Spent);
        _ -> ok
    end.

%% The result of the function, with its duration observed.
timed(What, Fun) ->
    Began = erlang:monotonic_time(microsecond),
    Result = Fun(),
    observe(What, erlang:monotonic_time(microsecond) - Began),
    Result.

%% Counts what became of a publication with a key, and returns it.
with_key(Way, Outcome) ->
    count(outcome(Way, Outcome)),
    Outcome.

outcome(Way, {ok, _, _}) -> {published, Way};
outcome(Way, {ok, _, _, _}) -> {published, Way};
outcome(_, {error, #stanza_error{reason = 'item-not-found'}}) -> {refused, unknown_key};
outcome(_, {error, _}) -> {refused, engine};
outcome(_, {wait, _}) -> {refused, key_rate};
outcome(_, full) -> {refused, full};
outcome(_, {size, _}) -> {refused, max_payload};
outcome(_, {_, _}) -> {refused, vapid};
outcome(_, _) -> {refused, payload}.

bucket(Spent, [Bound | Rest], Index) when Spent > Bound -> bucket(Spent, Rest, Index + 1);
bucket(_, _, Index) -> Index.

%%% reading

value(What) ->
    {Counters, #{What := Slot}} = persistent_term:get(?TERM),
    counters:get(Counters, Slot).

%% {Counts, Sum}: how many are in each bucket, of which the last has no bound, and the sum in microseconds.
histogram(What) ->
    {Counters, #{What := Slot}} = persistent_term:get(?TERM),
    Buckets = length(bounds()) + 1,
    {[counters:get(Counters, Slot + Index) || Index <- lists:seq(0, Buckets - 1)], counters:get(Counters, Slot + Buckets)}.
