%% SPDX-License-Identifier: GPL-3.0-only
%% What senders over HTTP asked for the waiting items in mnesia: which item has a topic now, which ones expire next, and
%% which are more or less urgent than others. The tables are in memory, are made again from the bodies at start, and have
%% records only for items with such a trait. A record ends with the item's body.
-module(pubsub_device_traits).

-export([init/0, came/4, forget/2, urgency/2, tick/0, waits/3, take_back/3]).

-include("pubsub_device_items.hrl").

-import(pubsub_device_tables, [together/1, put/1, remove/2, read/2]).

%% So many expired items are dropped at a time; the others are passed over meanwhile when they would be sent.
-define(PORTION, 2000).

init() ->
    Create = fun pubsub_device_tables:create/5,
    Create(pubsub_device_trait, ram_copies, set, record_info(fields, pubsub_device_trait), []),
    Create(pubsub_device_topic, ram_copies, set, record_info(fields, pubsub_device_topic), []),
    Create(pubsub_device_expiry, ram_copies, ordered_set, record_info(fields, pubsub_device_expiry), []).

%% A new item, before it waits for devices: it takes the place of the one with its topic, also if it is for nobody. At
%% start items come in the order of their numbers.
came(NodeId, Number, Item, Devices) ->
    case pubsub_device_push:topic(Item) of
        none -> ok;
        Topic -> replace(NodeId, Topic, Number)
    end,
    Devices == [] orelse keep(NodeId, Number, Item),
    ok.

replace(NodeId, Topic, Number) ->
    [drop(NodeId, Former, replaced) || #pubsub_device_topic{number = Former} <- read(pubsub_device_topic, {NodeId, Topic}),
                                       Former < Number].

keep(NodeId, Number, Item) ->
    Topic = pubsub_device_push:topic(Item),
    case {pubsub_device_push:expires(Item), pubsub_device_push:urgency(Item), pubsub_device_push:normal()} of
        {never, Normal, Normal} when Topic == none -> ok;
        {Expires, Urgency, _} ->
            put(#pubsub_device_trait{id = {NodeId, Number}, expires = Expires, urgency = Urgency, topic = Topic}),
            Expires == never orelse put(#pubsub_device_expiry{id = {Expires, NodeId, Number}}),
            Topic == none orelse put(#pubsub_device_topic{id = {NodeId, Topic}, number = Number}),
            ok
    end.

%% The body is gone.
forget(NodeId, Number) ->
    case ets:member(pubsub_device_trait, {NodeId, Number}) of
        true -> together(fun() -> [forget_found(Each) || Each <- read(pubsub_device_trait, {NodeId, Number})], ok end);
        false -> ok
    end.

forget_found(#pubsub_device_trait{id = {NodeId, Number} = Id, expires = Expires, topic = Topic}) ->
    remove(pubsub_device_trait, Id),
    Expires == never orelse remove(pubsub_device_expiry, {Expires, NodeId, Number}),
    [remove(pubsub_device_topic, {NodeId, Topic})
     || #pubsub_device_topic{number = Last} <- read(pubsub_device_topic, {NodeId, Topic}), Last == Number],
    ok.

%% How urgent the item is, as a number.
urgency(NodeId, Number) ->
    try ets:lookup_element(pubsub_device_trait, {NodeId, Number}, #pubsub_device_trait.urgency)
    catch error:badarg -> pubsub_device_push:normal()
    end.

%%% expiry

tick() ->
    hd(pubsub_device_commit:members()) == node() andalso expire(erlang:system_time(second), ?PORTION),
    ok.

expire(_, 0) ->
    ok;
expire(Now, Left) ->
    case ets:first(pubsub_device_expiry) of
        {Expires, NodeId, Number} = Id when Expires < Now ->
            drop(NodeId, Number, expired),
            ets:member(pubsub_device_expiry, Id) andalso together(fun() -> remove(pubsub_device_expiry, Id) end),
            expire(Now, Left - 1);
        _ -> ok
    end.

%%% single items

waits(NodeId, Number, ItemId) ->
    case read(pubsub_device_body, {NodeId, Number}) of
        [#pubsub_device_body{item_id = ItemId, item = Item}] -> not pubsub_device_push:is_late(Item);
        _ -> false
    end.

%% Whether it still waited.
take_back(NodeId, Number, ItemId) ->
    together(fun() -> waits(NodeId, Number, ItemId) andalso drop(NodeId, Number, taken_back) end).

%% Drops the item for all of its devices: whether it waited for one.
drop(NodeId, Number, Why) ->
    together(fun() ->
                     Dropped = [pubsub_device_waiting:drop_id(DeviceId, NodeId, Number)
                                || #pubsub_device_body{devices = Devices} <- read(pubsub_device_body, {NodeId, Number}),
                                   {DeviceId, _} <- Devices],
                     %% In a transaction the body may be of the transaction itself.
                     mnesia:is_transaction()
                         andalso [forget_found(Each) || Each <- read(pubsub_device_trait, {NodeId, Number})],
                     [pubsub_device_metrics:count({dropped, Why}) || true <- Dropped],
                     lists:member(true, Dropped)
             end).
