%% SPDX-License-Identifier: GPL-3.0-only
%% The numbers of items in PostgreSQL, and the last item of each node whose items the engine stores.
%%
%% A number is given while its node's row is locked, which lasts until the commit: of two members that both act as the
%% node's writer for a moment, the second one numbers its items after the first one's, and above them.
-module(pubsub_device_sql_numbers).

-export([numbers/1, first_numbers/1, last_item/1, forget/1]).

-include_lib("ejabberd/include/ejabberd_sql_pt.hrl").
-include("pubsub_device.hrl").

-import(pubsub_device_database, [ask/1, rows/1, text/1, list/1]).

%% The rows have the last numbers, so a writer has nothing to remember.
numbers(Shard) -> Shard.

%% Gives each node as many numbers as it has items: #{Id => the first of them}. A number is the time in microseconds
%% if that is above the last number, so that even after a loss of the data the numbers continue to ascend.
first_numbers([]) ->
    #{};
first_numbers(Known) ->
    Count = fun({Id, #publication{item_id = ItemId, engine = Engine}}, Map) ->
                    {Before, Item} = maps:get(Id, Map, {0, none}),
                    Map#{Id => {Before + 1, case Engine of
                                                true -> ItemId;
                                                false -> Item
                                            end}}
            end,
    Wanted = lists:sort(maps:to_list(lists:foldl(Count, #{}, Known))),
    Now = erlang:system_time(microsecond),
    Values = [["(", integer_to_binary(Id), ",", integer_to_binary(Now + Step - 1), ",", integer_to_binary(Step), ",",
               case Item of
                   none -> "NULL";
                   _ -> text(Item)
               end, "::text)"] || {Id, {Step, Item}} <- Wanted],
    Given = rows(["WITH given AS (INSERT INTO pubsub_device_number AS n (node, last, step, item) SELECT v.node, "
                  "greatest(v.last, (SELECT last FROM pubsub_device_floor) + v.step), v.step, v.item FROM (VALUES ",
                  list(Values),
                  ") AS v(node, last, step, item) ON CONFLICT (node) DO UPDATE SET "
                  "last=greatest(n.last + excluded.step, excluded.last), step=excluded.step, item=excluded.item "
                  "RETURNING n.node, n.last) SELECT node, last FROM given"]),
    maps:from_list([begin
                        Id = binary_to_integer(Node),
                        {Step, _} = proplists:get_value(Id, Wanted),
                        {Id, binary_to_integer(Last) - Step + 1}
                    end || [Node, Last] <- Given]).

last_item({Service, NodeId}) ->
    case ask(?SQL("select @(u.last)d, @(u.item)s from pubsub_device_number u join pubsub_node n on n.nodeid=u.node "
                  "where n.host=%(Service)s and n.node=%(NodeId)s and u.item is not null")) of
        {selected, [Last]} -> Last;
        {selected, []} -> none
    end.

%% Of a deleted node: the number is kept in the floor, above which a node made anew begins.
forget(Id) ->
    ask(?SQL("with gone as (delete from pubsub_device_number where node=%(Id)d returning last) "
             "update pubsub_device_floor f set last=greatest(f.last, gone.last) from gone")).
