%% SPDX-License-Identifier: GPL-3.0-only
%% The life of the kept items in mnesia: their publication, from the number to the copies that wait, what a start makes
%% again of the data on disk, and the end with their node. The parts are in pubsub_device_numbers, _bodies (on disk),
%% _waiting (in memory, with the bounds), _sums and _reading; the tables are described in pubsub_device_items.hrl.
-module(pubsub_device_items).

-export([init/0, sweep/0, write/2, must_sync/1, complete/1, keep_last/5, forget_node/2]).

-include("pubsub_device.hrl").
-include("pubsub_device_items.hrl").

-import(pubsub_device_tables, [together/1]).
-import(pubsub_device_bounds, [bytes/1]).

%%% start

init() ->
    pubsub_device_bodies:init(),
    pubsub_device_numbers:init(),
    pubsub_device_waiting:init(),
    pubsub_device_traits:init(),
    pubsub_device_old:convert(),
    global:trans({?MODULE, self()}, fun load_copies/0, pubsub_device_commit:members()).

%% The data on disk is counted at start. A member that joins a running cluster gets the existing entries.
load_copies() ->
    ets:first(pubsub_device_queue) == '$end_of_table'
        andalso load_bodies(ets:first(pubsub_device_body), pubsub_device_tree:by_id(),
                            pubsub_device_mnesia:devices_by_id()),
    ok.

load_bodies('$end_of_table', _, _) ->
    ok;
load_bodies({NodeId, Number} = Id, Nodes, Devices) ->
    [#pubsub_device_body{item = Item, devices = For}] = ets:lookup(pubsub_device_body, Id),
    Waiting = [{Device, DeviceId, Account, Via}
               || is_map_key(NodeId, Nodes), {DeviceId, Via} <- For, is_map_key(DeviceId, Devices),
                  Number > pubsub_device_bodies:floor_of(NodeId, DeviceId),
                  {Device, Account} <- [maps:get(DeviceId, Devices)]],
    case Waiting of
        [] -> pubsub_device_tables:delete(pubsub_device_body, Id);
        _ -> together(fun() ->
                              pubsub_device_traits:came(NodeId, Number, Item, Waiting),
                              pubsub_device_waiting:wait(maps:get(NodeId, Nodes), NodeId, Number, bytes(Item), Waiting)
                      end)
    end,
    load_bodies(ets:next(pubsub_device_body, Id), Nodes, Devices).

%%% publishing

%% The change is what complete/1 still has to do.
write(Publications, Before) ->
    Numbers = pubsub_device_numbers:current(Before),
    case pubsub_device_tables:alone() of
        true ->
            {Written, After} = lists:mapfoldl(fun number/2, Numbers, Publications),
            Reserved = pubsub_device_numbers:reserve(After),
            mnesia:async_dirty(fun() -> lists:foreach(fun pubsub_device_bodies:store/1, Written) end),
            {[outcome(Each) || Each <- Written], {Written, must_sync(Written, After, Reserved)}, Reserved};
        false ->
            {Written, After, Reserved} = together(fun() -> write_together(Publications, Numbers) end),
            {[outcome(Each) || Each <- Written], {[], must_sync(Written, After, Reserved)}, Reserved}
    end.

write_together(Publications, Numbers) ->
    {Written, After} = lists:mapfoldl(fun number/2, Numbers, Publications),
    lists:foreach(fun pubsub_device_bodies:store/1, Written),
    lists:foreach(fun finish/1, Written),
    {Written, After, pubsub_device_numbers:reserve(After)}.

%% {Publication, Number, NodeId, Devices}, or `gone`.
number(#publication{node = Node, id = Id, item_id = ItemId, item = Item, keep = Keep} = Publication, Numbers) ->
    case pubsub_device_tree:id(Node) of
        NodeId when NodeId /= none, Id == any orelse NodeId == Id ->
            {Number, After} = pubsub_device_numbers:next_number(Node, Numbers),
            Devices = [{Device, DeviceId, Account, Via}
                       || {Device, Via} <- Keep, pubsub_device_bounds:fits(Node, Device, Number, bytes(Item)),
                          {DeviceId, Account} <- pubsub_device_mnesia:device_id(Device)],
            (Publication#publication.engine orelse mnesia:is_transaction())
                andalso pubsub_device_numbers:put_last(Node, Number, ItemId),
            {{Publication, Number, NodeId, Devices}, After};
        _ -> {gone, Numbers}
    end.

outcome(gone) -> gone;
outcome({_, Number, _, _}) -> {ok, Number}.

%% A number above the floor on disk could be given again after a crash, and a device takes no item whose number it has
%% already, so such an item is not sent before the new floor is on disk.
must_sync(_, After, Reserved) when After /= Reserved ->
    all;
must_sync(Written, _, _) ->
    case lists:any(fun is_stored/1, Written) of
        true -> answers;
        false -> none
    end.

is_stored({#publication{engine = Engine}, _, _, Devices}) -> Engine orelse Devices /= [];
is_stored(gone) -> false.

must_sync({_, Sync}) -> Sync.

complete({Written, _}) ->
    lists:foreach(fun finish/1, Written).

finish({#publication{node = Node, item = Item}, Number, NodeId, Devices}) ->
    pubsub_device_traits:came(NodeId, Number, Item, Devices),
    Devices == [] orelse pubsub_device_waiting:wait(Node, NodeId, Number, bytes(Item), Devices);
finish(gone) ->
    ok.

keep_last(Node, Device, Number, ItemId, Item) ->
    case {pubsub_device_numbers:last_item(Node), pubsub_device_reading:ids(Node, Device),
          pubsub_device_reading:newest(Node, Device)} of
        {{Number, ItemId}, {NodeId, DeviceId}, Newest} when Newest == none; element(1, Newest) < Number ->
            pubsub_device_bounds:fits(Node, Device, Number, bytes(Item))
                andalso together(fun() -> add_device(Node, NodeId, Device, DeviceId, Number, ItemId, Item) end);
        _ -> false
    end.

add_device(Node, NodeId, Device, DeviceId, Number, ItemId, Item) ->
    [{DeviceId, Account}] = pubsub_device_mnesia:device_id(Device),
    Wait = fun() ->
                   pubsub_device_waiting:wait(Node, NodeId, Number, bytes(Item),
                                              [{Device, DeviceId, Account, subscription}])
           end,
    pubsub_device_bodies:add_device(NodeId, Number, {ItemId, Item, erlang:system_time(second)}, DeviceId, Wait),
    true.

%%% deleted nodes

forget_node(Node, Id) ->
    pubsub_device_numbers:forget(Node),
    forget_id(case Id of
                  unknown -> pubsub_device_tree:known(Node);
                  _ -> Id
              end).

forget_id(NodeId) ->
    forget_bodies(NodeId, ets:next(pubsub_device_body, {NodeId, 0})),
    pubsub_device_bodies:forget_cursors(NodeId).

forget_bodies(NodeId, {NodeId, Number} = Id) ->
    [together(fun() -> pubsub_device_waiting:drop_id(DeviceId, NodeId, Number) end)
     || #pubsub_device_body{devices = Devices} <- ets:lookup(pubsub_device_body, Id), {DeviceId, _} <- Devices],
    ets:member(pubsub_device_body, Id) andalso pubsub_device_tables:delete(pubsub_device_body, Id),
    pubsub_device_traits:forget(NodeId, Number),
    forget_bodies(NodeId, ets:next(pubsub_device_body, Id));
forget_bodies(_, _) ->
    ok.

%% Removes what no body needs any more, and what a crash left of a deleted node.
sweep() ->
    pubsub_device_bodies:sweep(),
    sweep_queues(ets:first(pubsub_device_queue)).

sweep_queues('$end_of_table') ->
    ok;
sweep_queues({_, NodeId} = Id) ->
    case ets:lookup(pubsub_device_queue, Id) of
        [#pubsub_device_queue{node = Node}] -> pubsub_device_tree:known(Node) == NodeId orelse forget_id(NodeId);
        [] -> ok
    end,
    sweep_queues(ets:next(pubsub_device_queue, Id)).
