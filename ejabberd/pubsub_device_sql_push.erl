%% SPDX-License-Identifier: GPL-3.0-only
%% What senders over HTTP asked for the waiting items in PostgreSQL: topics, expiry, and single messages. The traits
%% stand in columns of the bodies.
-module(pubsub_device_sql_push).

-export([traits/1, replace/1, tick/0, waits/3, take_back/3]).

-include_lib("ejabberd/include/ejabberd_sql_pt.hrl").
-include("pubsub_device.hrl").

-import(pubsub_device_database, [ask/1, text/1, list/1]).
-import(pubsub_device_sql, [change/1]).

%% So many copies of expired items are dropped at a time.
-define(PORTION, <<"2000">>).

%% The columns expires, urgency and topic, as they stand in a statement.
traits(Item) ->
    [case pubsub_device_push:expires(Item) of
         never -> "NULL::bigint";
         Expires -> integer_to_binary(Expires)
     end, ",", integer_to_binary(pubsub_device_push:urgency(Item)), ",",
     case pubsub_device_push:topic(Item) of
         none -> "NULL";
         Topic -> text(Topic)
     end].

%% In the transaction that writes the items, [{Node, Number, Publication}], in the order of their numbers: they take the
%% places of those that had their topics. Returns those whose places no later one takes.
replace(Numbered) ->
    Last = fun({Node, Number, #publication{item = Item}}, Topics) ->
                   case pubsub_device_push:topic(Item) of
                       none -> Topics;
                       Topic -> Topics#{{Node, Topic} => Number}
                   end
           end,
    case lists:foldl(Last, #{}, Numbered) of
        Topics when map_size(Topics) == 0 -> Numbered;
        Topics ->
            Values = [["(", integer_to_binary(Node), ",", text(Topic), ",", integer_to_binary(Number), "::bigint)"]
                      || {{Node, Topic}, Number} <- maps:to_list(Topics)],
            drop(["SELECT DISTINCT c.device, c.node, c.number FROM (VALUES ", list(Values), ") AS v(node, topic, number) "
                  "JOIN pubsub_device_body b ON b.node=v.node AND b.topic=v.topic AND b.number<v.number "
                  "JOIN pubsub_device_copy c ON c.node=b.node AND c.number=b.number"], replaced),
            [Each || {Node, Number, #publication{item = Item}} = Each <- Numbered,
                     maps:get({Node, pubsub_device_push:topic(Item)}, Topics, Number) == Number]
    end.

%% Those that another process is dropping are skipped.
tick() ->
    Now = integer_to_binary(erlang:system_time(second)),
    hd(pubsub_device_commit:members()) == node()
        andalso change(fun() ->
                               drop(["SELECT c.device, c.node, c.number FROM pubsub_device_body b JOIN pubsub_device_copy c "
                                     "ON c.node=b.node AND c.number=b.number WHERE b.expires<", Now, " ORDER BY b.expires "
                                     "LIMIT ", ?PORTION, " FOR UPDATE OF c SKIP LOCKED"], expired)
                       end),
    ok.

drop(Found, Why) ->
    [[Count]] = pubsub_device_sql_waiting:deleting(Found, "SELECT count(*) FROM gone"),
    Count == <<"0">> orelse pubsub_device_metrics:count({dropped, Why}, binary_to_integer(Count)),
    Count /= <<"0">>.

waits({Service, NodeId}, Number, ItemId) ->
    Now = erlang:system_time(second),
    ask(?SQL("select @(b.number)d from pubsub_node n join pubsub_device_body b on b.node=n.nodeid "
             "where n.host=%(Service)s and n.node=%(NodeId)s and b.number=%(Number)d and b.item_id=%(ItemId)s "
             "and (b.expires is null or b.expires>=%(Now)d)")) == {selected, [{Number}]}.

take_back({Service, NodeId} = Node, Number, ItemId) ->
    waits(Node, Number, ItemId)
        andalso change(fun() ->
                               drop(["SELECT c.device, c.node, c.number FROM pubsub_node n JOIN pubsub_device_copy c "
                                     "ON c.node=n.nodeid WHERE n.host=", text(Service), " AND n.node=", text(NodeId),
                                     " AND c.number=", integer_to_binary(Number)], taken_back)
                       end).
