%% SPDX-License-Identifier: GPL-3.0-only
%% The life of the kept items in PostgreSQL: their publication, and the end with their node. An item is stored once, with
%% one short row for each device that it waits for. Numbers, bodies, rows and counters of a whole batch are written in
%% one transaction, a statement for each table. The parts are in pubsub_device_sql_numbers, _waiting, _sums and _reading.
-module(pubsub_device_sql_items).

-export([write/2, keep_last/5, forget_node/2, sweep/0]).

-include_lib("kernel/include/logger.hrl").
-include_lib("ejabberd/include/ejabberd_sql_pt.hrl").
-include("pubsub_device.hrl").

-import(pubsub_device_database, [ask/1, transaction/1, rows/1, text/1, list/1]).
-import(pubsub_device_sql, [change/1]).

%%% publishing

%% {Outcomes, Dropped, Shard}; nothing is stored when the database did not confirm the commit.
write(Publications, Shard) ->
    case transaction(fun() -> write_all(Publications) end) of
        {ok, {Outcomes, Dropped}} -> {Outcomes, Dropped, Shard};
        {error, Reason} ->
            pubsub_device_database:is_away()
                orelse ?LOG_ERROR("~b items could not be stored: ~p", [length(Publications), Reason]),
            {[{error, pubsub_device_database:unavailable()} || _ <- Publications], [], Shard}
    end.

write_all(Publications) ->
    Ids = ids([Node || #publication{node = Node} <- Publications]),
    Known = [{id_of(Publication, Ids), Publication} || Publication <- Publications],
    First = pubsub_device_sql_numbers:first_numbers([Each || {Id, _} = Each <- Known, Id /= gone]),
    {Numbered, _} = lists:mapfoldl(fun({gone, Publication}, Next) -> {{gone, gone, Publication}, Next};
                                      ({Id, Publication}, Next) ->
                                           Number = maps:get(Id, Next),
                                           {{Id, Number, Publication}, Next#{Id := Number + 1}}
                                   end, First, Known),
    Last = pubsub_device_sql_push:replace([Each || {Id, _, _} = Each <- Numbered, Id /= gone]),
    Kept = [Each || {_, _, #publication{keep = [_ | _]}} = Each <- Last],
    Dropped = pubsub_device_sql_waiting:keep(Kept),
    {[case Number of
          gone -> gone;
          _ -> {ok, Number}
      end || {_, Number, _} <- Numbered], Dropped}.

%% #{Node => engine's id}
ids([]) ->
    #{};
ids(Nodes) ->
    Names = [[$(, text(Service), $,, text(NodeId), $)] || {Service, NodeId} <- lists:usort(Nodes)],
    maps:from_list([{{Service, NodeId}, binary_to_integer(Id)}
                    || [Service, NodeId, Id] <- rows(["SELECT host, node, nodeid FROM pubsub_node WHERE (host, node) IN (",
                                                      list(Names), ")"])]).

id_of(#publication{node = Node, id = Wanted}, Ids) ->
    case Ids of
        #{Node := Id} when Wanted == any; Wanted == Id -> Id;
        _ -> gone
    end.

%% The body may be deleted by its last other device at the same moment, so it is written once more.
keep_last({Service, NodeId} = Node, Device, Number, ItemId, Item) ->
    Keep = fun() ->
                   case ask(?SQL("select @(u.node)d from pubsub_device_number u join pubsub_node n on n.nodeid=u.node "
                                 "where n.host=%(Service)s and n.node=%(NodeId)s and u.last=%(Number)d "
                                 "and u.item=%(ItemId)s for update of u")) of
                       {selected, [{Id}]} ->
                           Newest = pubsub_device_sql_reading:newest(Node, Device),
                           case Newest == none orelse element(1, Newest) < Number of
                               true ->
                                   Publication = #publication{node = Node, item_id = ItemId, item = Item,
                                                              keep = [{Device, subscription}]},
                                   {Id, pubsub_device_sql_waiting:keep([{Id, Number, Publication}])};
                               false -> false
                           end;
                       {selected, []} -> false
                   end
           end,
    case transaction(Keep) of
        {ok, {Id, Dropped}} ->
            pubsub_device_sql_waiting:put_body(Id, Number, ItemId, Item),
            pubsub_device_sql_waiting:complete(Dropped),
            not lists:any(fun(Each) -> element(3, Each) == Number andalso element(2, Each) == Device end, Dropped);
        {ok, false} -> false;
        {error, Reason} -> error({database, Reason})
    end.

%%% deleted nodes

forget_node(Node, Id) ->
    Ids = [Each || Each <- [Id], is_integer(Each)] ++ maps:values(ids([Node || not is_integer(Id)])),
    change(fun() -> [forget_id(Each) || Each <- Ids] end),
    ok.

forget_id(Id) ->
    pubsub_device_sql_numbers:forget(Id),
    pubsub_device_sql_waiting:drop_node(Id),
    ask(?SQL("delete from pubsub_device_body where node=%(Id)d")).

%% What no row refers to any more.
sweep() ->
    {selected, Left} = ask(?SQL("select distinct @(q.node)d from pubsub_device_queue q where not exists "
                                "(select 1 from pubsub_node n where n.nodeid=q.node)")),
    [change(fun() -> forget_id(Id) end) || {Id} <- Left],
    ask(?SQL("delete from pubsub_device_queue where kept<=0")),
    ask(?SQL("delete from pubsub_device_body b where not exists (select 1 from pubsub_device_copy c "
             "where c.node=b.node and c.number=b.number)")),
    ask(?SQL("delete from pubsub_device_number u where not exists (select 1 from pubsub_node n where n.nodeid=u.node)")),
    ok.
