%% SPDX-License-Identifier: GPL-3.0-only
%% The sums in PostgreSQL: the counters in the rows of accounts and devices, and the sums of all, which are read now and
%% then (tick/0).
-module(pubsub_device_sql_sums).

-export([load/1, total/0, totals/0, tick/0, next_device/1]).

-include_lib("ejabberd/include/ejabberd_sql_pt.hrl").

-import(pubsub_device_database, [ask/1]).
-import(pubsub_device_sql, [jid/1, device/2]).

%% The sums as they were last read, and when they are read again. Reading them takes at most a twentieth of the time.
-define(TOTALS, {?MODULE, totals}).
-define(IDLE, 20).

%% In the process that walks over all devices: the next ones, and the loads of those that it was given.
-define(WALK, '$pubsub_device_walk').

%% The devices that a walk reads at once.
-define(PORTION, 1000).

load({_, _, <<>>} = Account) ->
    JID = jid(Account),
    one(ask(?SQL("select @(kept)d, @(bytes)d from pubsub_device_account where jid=%(JID)s")));
load({_, _, Resource} = Device) ->
    case get(?WALK) of
        {_, #{Device := Load}} -> Load;
        _ ->
            JID = jid(Device),
            one(ask(?SQL("select @(d.kept)d, @(d.bytes)d from pubsub_device d join pubsub_device_account a "
                         "on a.id=d.account where a.jid=%(JID)s and d.resource=%(Resource)s")))
    end.

one({selected, [Load]}) -> Load;
one({selected, []}) -> {0, 0}.

total() -> maps:get(bytes, known_totals(), 0).

totals() -> [{What, maps:get(What, known_totals(), 0)} || What <- [nodes, key_nodes, devices, kept_items]].

known_totals() -> persistent_term:get(?TOTALS, #{}).

tick() ->
    Now = erlang:monotonic_time(millisecond),
    case pubsub_device_database:is_away() orelse Now < maps:get(until, known_totals(), Now) of
        true -> ok;
        false ->
            {selected, [{Bytes, Kept, Nodes, Keys, Devices}]} =
                ask(?SQL("select @(coalesce(sum(bytes), 0))d, @(coalesce(sum(kept), 0))d, @(coalesce(sum(nodes), 0))d, "
                         "@(coalesce(sum(keys), 0))d, @((select count(*) from pubsub_device))d "
                         "from pubsub_device_account")),
            Until = Now + ?IDLE * (erlang:monotonic_time(millisecond) - Now),
            persistent_term:put(?TOTALS, #{bytes => Bytes, kept_items => Kept, nodes => Nodes, key_nodes => Keys,
                                           devices => Devices, until => Until}),
            ok
    end.

%% Read in portions.
next_device(Before) ->
    Left = case get(?WALK) of
               {[_ | _] = Rows, _} when Before /= none -> Rows;
               _ -> devices_after(Before)
           end,
    case Left of
        [] -> erase(?WALK), none;
        [{Device, Oldest, Load} | Rest] -> put(?WALK, {Rest, #{Device => Load}}), {Device, Oldest}
    end.

devices_after(none) ->
    devices_after({<<>>, <<>>, <<>>}, <<>>);
devices_after(Device) ->
    devices_after(Device, jid(Device)).

devices_after({_, _, Resource}, JID) ->
    Portion = ?PORTION,
    {selected, Rows} = ask(?SQL("select @(a.jid)s, @(d.resource)s, @(d.kept)d, @(d.bytes)d, @(coalesce((select min(number) "
                                "from pubsub_device_copy where device=d.id), 0))d from pubsub_device_account a "
                                "join pubsub_device d on d.account=a.id where (a.jid, d.resource)>(%(JID)s, %(Resource)s) "
                                "order by a.jid, d.resource limit %(Portion)d")),
    [{device(Each, Name), case Number of
                                                 0 -> infinity;
                                                 _ -> Number
                                             end, {Kept, Bytes}} || {Each, Name, Kept, Bytes, Number} <- Rows].
