%% SPDX-License-Identifier: GPL-3.0-only
%% Takes over the mnesia tables of earlier versions, at start. A crash in between loses nothing: what was not removed
%% is taken over again.
%%
%% Until release 0.2.0 an item was stored once for each device and a number for each node, and the engine stored the
%% items of key nodes too, of which some were left when their node was deleted.
-module(pubsub_device_old).

-export([convert/0]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").
-include("pubsub_device_items.hrl").

%% The old tables in memory have nothing that is not made again.
convert() ->
    Tables = mnesia:system_info(tables),
    case lists:member(pubsub_device_copy, Tables) andalso pubsub_device_tables:alone() of
        true ->
            ok = mnesia:wait_for_tables([pubsub_device_copy], infinity),
            raise_floors(),
            take_copies(mnesia:dirty_first(pubsub_device_copy)),
            empty_key_nodes(),
            forget_left_items(),
            ok = mnesia:sync_log(),
            [{atomic, ok} = mnesia:delete_table(Table)
             || Table <- [pubsub_device_pair, pubsub_device_age, pubsub_device_copy], lists:member(Table, Tables)],
            ok;
        false -> ok
    end.

%% The numbers of all nodes become the floors of their shards. The newest item is recorded for nodes whose items the
%% engine stores.
raise_floors() ->
    Raise = fun(#pubsub_device_number{node = {floor, Shard, _}, last = Last}, Floors) -> raise(Shard, Last, Floors);
               (#pubsub_device_number{node = Node, last = Last}, Floors) ->
                    raise(pubsub_device_writer:shard(Node), Last, Floors)
            end,
    maps:foreach(fun pubsub_device_numbers:put_floor/2, ets:foldl(Raise, #{}, pubsub_device_number)),
    [pubsub_device_tables:delete(pubsub_device_number, Node)
     || {_, _} = Node <- mnesia:dirty_all_keys(pubsub_device_number), not nodetree_device:has_items(Node)].

raise(Shard, Last, Floors) ->
    maps:update_with(Shard, fun(Floor) -> max(Floor, Last) end, Last, Floors).

take_copies('$end_of_table') ->
    ok;
take_copies({Node, Device, Number} = Id) ->
    Next = mnesia:dirty_next(pubsub_device_copy, Id),
    [pubsub_device_bodies:put_body(NodeId, Number, {ItemId, without_number(Item), At}, DeviceId, Via)
     || {_, _, ItemId, Via, Item, At} <- mnesia:dirty_read(pubsub_device_copy, Id),
        {DeviceId, _} <- pubsub_device_mnesia:device_id(Device),
        #pubsub_node{id = NodeId} <- mnesia:dirty_read(pubsub_node, Node)],
    take_copies(Next).

without_number(#xmlel{attrs = Attributes} = Item) ->
    Item#xmlel{attrs = lists:keydelete(<<"seqNo">>, 1, Attributes)}.

empty_key_nodes() ->
    [nodetree_device:store_no_items(Node) || Node <- mnesia:dirty_all_keys(pubsub_device_key)].

%% The engine leaves the items of publications that ran while their node was deleted.
forget_left_items() ->
    Known = ets:foldl(fun(#pubsub_node{id = Id}, Map) -> Map#{Id => true} end, #{}, pubsub_node),
    Find = fun(#pubsub_item{itemid = {_, NodeId} = Id}, Left) when not is_map_key(NodeId, Known) -> [Id | Left];
              (_, Left) -> Left
           end,
    Left = mnesia:activity(async_dirty, fun() -> mnesia:foldl(Find, [], pubsub_item) end),
    [mnesia:dirty_delete(pubsub_item, Id) || Id <- Left].
