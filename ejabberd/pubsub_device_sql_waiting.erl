%% SPDX-License-Identifier: GPL-3.0-only
%% The copies in PostgreSQL that wait for devices, with the bounds of what may wait: older copies are dropped for a newer
%% one. The counters of queues, devices and accounts change in the transaction that adds or drops the copies.
-module(pubsub_device_sql_waiting).

-export([keep/1, put_body/4, deleting/2, complete/1, drop/1, acknowledge/1, drop_device/1, drop_node/1, relieve/1]).

-include_lib("kernel/include/logger.hrl").
-include_lib("ejabberd/include/ejabberd_sql_pt.hrl").
-include("pubsub_device.hrl").

-import(pubsub_device_database, [ask/1, transaction/1, rows/1, text/1, list/1]).
-import(pubsub_device_sql, [jid/1, device/2, change/1]).

%% Dropped at once where a bound is exceeded.
-define(PORTION, 1000).

%%% adding

%% Writes the items for their devices, and drops older ones where a bound would be exceeded: [{Node, Device, Number,
%% Why}]. Devices that were forgotten in the meantime get nothing.
keep([]) ->
    [];
keep(Numbered) ->
    Devices = lock_devices(lists:usort([Device || {_, _, #publication{keep = Keep}} <- Numbered, {Device, _} <- Keep])),
    Limits = {_, _, MaxBytes, MaxAccount} = pubsub_device_bounds:limits(),
    Copies = [{maps:get(Device, Devices), Id, Number, Via, Bytes, Publication}
              || {Id, Number, #publication{item = Item, keep = Keep} = Publication} <- Numbered,
                 Bytes <- [pubsub_device_bounds:bytes(Item)], {Device, Via} <- Keep, maps:is_key(Device, Devices)],
    {Fitting, TooLarge} = lists:partition(fun(Copy) -> element(5, Copy) =< min(MaxBytes, MaxAccount) end, Copies),
    Names = maps:fold(fun(Device, {Id, _, _, _, _, _}, Map) -> Map#{Id => Device} end, #{}, Devices),
    [{Node, maps:get(element(1, Device), Names), Number, size}
     || {Device, _, Number, _, _, #publication{node = Node}} <- TooLarge]
        ++ keep_fitting(Fitting, Names, Limits).

keep_fitting([], _, _) ->
    [];
keep_fitting(Copies, Names, {MaxNode, Max, MaxBytes, MaxAccount}) ->
    Queues = insert(Copies),
    Load = fun({Device, _, _, _, Bytes, _}, Map) ->
                   {Kept, Sum} = maps:get(Device, Map, {0, 0}),
                   Map#{Device => {Kept + 1, Sum + Bytes}}
           end,
    Loads = maps:to_list(lists:foldl(Load, #{}, Copies)),
    Overfull = [{["device=", Device, " AND node=", Node], Kept - MaxNode, 0}
                || [Device, Node, Count] <- Queues, Kept <- [binary_to_integer(Count)], Kept > MaxNode],
    Dropped = [evict(Each) || Each <- Overfull],
    Gone = fun(Ids) -> [{Device, Bytes} || {Device, _, _, Bytes} <- lists:append(Dropped), lists:member(Device, Ids)] end,
    OfDevices = [evict({["device=", integer_to_binary(Id)], Count - Max, Sum - MaxBytes})
                 || {{Id, _, Kept, Before, _, _}, {New, Bytes}} <- Loads, Less <- [Gone([Id])],
                    Count <- [Kept + New - length(Less)],
                    Sum <- [Before + Bytes - lists:sum([Each || {_, Each} <- Less])],
                    Count > Max orelse Sum > MaxBytes],
    Accounts = maps:groups_from_list(fun({{_, Account, _, _, _, _}, _}) -> Account end, Loads),
    OfAccounts = [evict_account(Account, MaxAccount)
                  || {Account, [{{_, _, _, _, _, Before}, _} | _] = Mine} <- maps:to_list(Accounts),
                     Before + lists:sum([Bytes || {_, {_, Bytes}} <- Mine]) > MaxAccount],
    named([{node, lists:append(Dropped)}, {device, lists:append(OfDevices)}, {account, lists:append(OfAccounts)}], Names).

%% Locks the accounts and the devices: #{Device => {Id, AccountId, Kept, Bytes, KeptOfAccount, BytesOfAccount}}.
lock_devices(Devices) ->
    Names = [["(", text(jid(Device)), ",", text(element(3, Device)), ")"] || Device <- Devices],
    Accounts = [text(JID) || JID <- lists:usort([jid(Device) || Device <- Devices])],
    rows(["SELECT id FROM pubsub_device_account WHERE jid IN (", list(Accounts), ") ORDER BY id FOR UPDATE"]),
    maps:from_list([{device(JID, Resource), list_to_tuple([binary_to_integer(Value) || Value <- Values])}
                    || [JID, Resource | Values]
                           <- rows(["SELECT a.jid, d.resource, d.id, a.id, d.kept, d.bytes, a.kept, a.bytes "
                                    "FROM pubsub_device d JOIN pubsub_device_account a ON a.id=d.account "
                                    "WHERE (a.jid, d.resource) IN (", list(Names), ") ORDER BY d.id FOR UPDATE OF d"])]).

%% One row for each item, each copy, each queue, each device and each account. Returns the queues as they are now.
insert(Copies) ->
    Now = integer_to_binary(erlang:system_time(second)),
    Bodies = [[integer_to_binary(Id), ",", integer_to_binary(Number), ",", text(ItemId), ",", text(encoded(Item)), ",", Now,
               ",", pubsub_device_sql_push:traits(Item)]
              || {Id, Number, ItemId, Item}
                     <- lists:usort([{Id, Number, ItemId, Item}
                                     || {_, Id, Number, _, _, #publication{item_id = ItemId, item = Item}} <- Copies])],
    rows(["WITH bodies AS (INSERT INTO pubsub_device_body (node, number, item_id, item, at, expires, urgency, "
          "topic) VALUES ", tuples(Bodies),
          " ON CONFLICT DO NOTHING), accounts AS (",
          counters("pubsub_device_account",
                   sums([{Account, Bytes} || {{_, Account, _, _, _, _}, _, _, _, Bytes, _} <- Copies])),
          "), devices AS (",
          counters("pubsub_device", sums([{Device, Bytes} || {{Device, _, _, _, _, _}, _, _, _, Bytes, _} <- Copies])),
          "), copies AS (INSERT INTO pubsub_device_copy (device, node, number, via, bytes) VALUES ",
          tuples([[integer_to_binary(Device), ",", integer_to_binary(Id), ",", integer_to_binary(Number), ",", via(Via),
                   ",", integer_to_binary(Bytes)] || {{Device, _, _, _, _, _}, Id, Number, Via, Bytes, _} <- Copies]),
          "), queues AS (INSERT INTO pubsub_device_queue AS q (device, node, kept) VALUES ",
          tuples([[integer_to_binary(Device), ",", integer_to_binary(Id), ",", integer_to_binary(Count)]
                  || {{Device, Id}, {Count, _}} <- sums([{{Device, Id}, Bytes}
                                                         || {{Device, _, _, _, _, _}, Id, _, _, Bytes, _} <- Copies])]),
          " ON CONFLICT (device, node) DO UPDATE SET kept=q.kept + excluded.kept RETURNING q.device, q.node, q.kept) "
          "SELECT device, node, kept FROM queues"]).

tuples(Rows) -> list([["(", Row, ")"] || Row <- Rows]).

%% [{Key, {Count, Sum}}], sorted by key.
sums(Pairs) ->
    Add = fun({Key, Value}, Map) ->
                  {Count, Sum} = maps:get(Key, Map, {0, 0}),
                  Map#{Key => {Count + 1, Sum + Value}}
          end,
    lists:sort(maps:to_list(lists:foldl(Add, #{}, Pairs))).

counters(Table, Sums) ->
    ["UPDATE ", Table, " AS t SET kept=t.kept + v.kept, bytes=t.bytes + v.bytes FROM (VALUES ",
     tuples([[integer_to_binary(Id), ",", integer_to_binary(Count), ",", integer_to_binary(Bytes)]
             || {Id, {Count, Bytes}} <- Sums]), ") AS v(id, kept, bytes) WHERE t.id=v.id"].

via(subscription) -> "'s'";
via(owner) -> "'o'".

%% The body by itself, unless it is there.
put_body(Node, Number, ItemId, Item) ->
    Text = encoded(Item),
    At = erlang:system_time(second),
    ask(?SQL("insert into pubsub_device_body (node, number, item_id, item, at) values (%(Node)d, %(Number)d, "
             "%(ItemId)s, %(Text)s, %(At)d) on conflict do nothing")).

encoded(Item) ->
    binary:replace(fxml:element_to_binary(Item), <<"\r">>, <<"&#13;">>, [global]).

%%% bounds

%% The oldest copies, as many as the counters exceed their bounds. Those that another process is dropping are skipped.
evict({Where, Count, Bytes}) ->
    Found = ["SELECT device, node, number FROM pubsub_device_copy WHERE (device, node, number) IN (SELECT device, node, "
             "number FROM (SELECT device, node, number, row_number() OVER w AS place, sum(bytes) OVER w - bytes AS before "
             "FROM (SELECT * FROM pubsub_device_copy WHERE ", Where, " ORDER BY number LIMIT ",
             integer_to_binary(?PORTION), ") AS oldest WINDOW w AS (ORDER BY number ROWS UNBOUNDED PRECEDING)) AS ranked "
             "WHERE place <= ", limit(Count), " OR before < ", limit(Bytes), ") FOR UPDATE SKIP LOCKED"],
    [list_to_tuple([binary_to_integer(Value) || Value <- Row])
     || Row <- deleting(Found, "SELECT device, node, number, bytes FROM gone ORDER BY number")].

limit(Value) when is_integer(Value), Value > 0 -> integer_to_binary(Value);
limit(_) -> "0".

%% The oldest copies of an account's devices, until its bytes are within the bound.
evict_account(Account, Max) ->
    Id = integer_to_binary(Account),
    [[Sum]] = rows(["SELECT bytes FROM pubsub_device_account WHERE id=", Id]),
    case binary_to_integer(Sum) - Max of
        Excess when Excess > 0 ->
            Where = ["(device, node, number) IN (SELECT c.device, c.node, c.number FROM pubsub_device d CROSS JOIN LATERAL "
                     "(SELECT * FROM pubsub_device_copy WHERE device=d.id ORDER BY number LIMIT ",
                     integer_to_binary(?PORTION), ") AS c WHERE d.account=", Id, ")"],
            case evict({Where, 0, Excess}) of
                [] -> [];
                Dropped -> Dropped ++ evict_account(Account, Max)
            end;
        _ -> []
    end.

%% Reduces the accounts that have most to the same level.
relieve(Room) ->
    {selected, Sums} = ask(?SQL("select @(id)d, @(bytes)d from pubsub_device_account where bytes>0")),
    Level = pubsub_device_bounds:level([Bytes || {_, Bytes} <- Sums], Room),
    Above = [Account || {Account, Bytes} <- Sums, Bytes > Level],
    Reduce = fun(Account) ->
                     ask(?SQL("select @(id)d from pubsub_device_account where id=%(Account)d for update")),
                     named([{store, evict_account(Account, Level)}], #{})
             end,
    [case transaction(fun() -> Reduce(Account) end) of
         {ok, Dropped} -> complete(Dropped);
         {error, Reason} -> ?LOG_ERROR("An account could not be reduced: ~p", [Reason])
     end || Account <- Above],
    {Level, length(Above)}.

%% [{Node, Device, Number, Why}] of [{Why, [{DeviceId, NodeId, Number, Bytes}]}]; devices that are not in the map are
%% read.
named(Groups, Known) ->
    case [{Device, Node, Number, Why} || {Why, Copies} <- Groups, {Device, Node, Number, _} <- Copies] of
        [] -> [];
        Dropped ->
            Ids = list([integer_to_binary(Id) || Id <- lists:usort([Id || {_, Id, _, _} <- Dropped])]),
            Nodes = maps:from_list([{binary_to_integer(Id), {Service, NodeId}}
                                    || [Id, Service, NodeId]
                                           <- rows(["SELECT nodeid, host, node FROM pubsub_node WHERE nodeid IN (", Ids,
                                                    ")"])]),
            Unknown = lists:usort([Id || {Id, _, _, _} <- Dropped, not maps:is_key(Id, Known)]),
            Names = maps:merge(device_names(Unknown), Known),
            [{maps:get(Node, Nodes), maps:get(Device, Names), Number, Why}
             || {Device, Node, Number, Why} <- Dropped, maps:is_key(Node, Nodes), maps:is_key(Device, Names)]
    end.

device_names([]) ->
    #{};
device_names(Ids) ->
    maps:from_list([{binary_to_integer(Id), device(JID, Resource)}
                    || [Id, JID, Resource]
                           <- rows(["SELECT d.id, a.jid, d.resource FROM pubsub_device d JOIN pubsub_device_account a "
                                    "ON a.id=d.account WHERE d.id IN (", list([integer_to_binary(Id) || Id <- Ids]), ")"])]).

%% After the commit: what was dropped is counted and logged.
complete(Dropped) ->
    [pubsub_device_bounds:dropped(Node, Device, Number, Why) || {Node, Device, Number, Why} <- Dropped],
    ok.

%%% dropping

%% Deletes the copies that the statement finds, changes the counters, and deletes bodies without copies. Accounts come
%% before devices and these before queues. A statement does not see its own changes. Returns what `Select` reads from
%% `gone` and `queues`.
deleting(Found, Select) ->
    rows(["WITH gone AS (DELETE FROM pubsub_device_copy c USING (", Found, ") AS f WHERE c.device=f.device "
          "AND c.node=f.node AND c.number=f.number RETURNING c.device, c.node, c.number, c.bytes), "
          "by_device AS (SELECT d.account, g.device, count(*) AS kept, sum(g.bytes) AS bytes FROM gone g "
          "JOIN pubsub_device d ON d.id=g.device GROUP BY 1, 2), "
          "accounts AS (UPDATE pubsub_device_account a SET kept=a.kept - s.kept, bytes=a.bytes - s.bytes FROM "
          "(SELECT account, sum(kept) AS kept, sum(bytes) AS bytes FROM by_device GROUP BY 1 ORDER BY 1) AS s "
          "WHERE a.id=s.account RETURNING a.id), "
          "devices AS (UPDATE pubsub_device d SET kept=d.kept - s.kept, bytes=d.bytes - s.bytes FROM "
          "(SELECT * FROM by_device WHERE (SELECT count(*) FROM accounts) > 0 ORDER BY device) AS s "
          "WHERE d.id=s.device RETURNING d.id), "
          "queues AS (UPDATE pubsub_device_queue q SET kept=q.kept - s.kept FROM (SELECT device, node, count(*) AS kept "
          "FROM gone WHERE (SELECT count(*) FROM devices) > 0 GROUP BY 1, 2 ORDER BY 1, 2) AS s WHERE q.device=s.device "
          "AND q.node=s.node RETURNING q.device, q.node, q.kept), "
          "bodies AS (DELETE FROM pubsub_device_body b USING (SELECT DISTINCT node, number FROM gone) AS g "
          "WHERE b.node=g.node AND b.number=g.number AND NOT EXISTS (SELECT 1 FROM pubsub_device_copy c "
          "WHERE c.node=b.node AND c.number=b.number AND NOT EXISTS (SELECT 1 FROM gone x WHERE x.device=c.device "
          "AND x.node=c.node AND x.number=c.number))) ", Select]).

%% Drops the copy: whether it was there.
drop(Copy) ->
    [[Count]] = change(fun() -> deleting(named_copies([Copy]), "SELECT count(*) FROM gone") end),
    Count /= <<"0">>.

%% Drops copies, [{Node, Device, Number}], without a sync: {ok, [{Node, Device}]}, the queues that have more, or an error.
acknowledge(Copies) ->
    Select = "SELECT n.host, n.node, a.jid, d.resource FROM queues q JOIN pubsub_node n ON n.nodeid=q.node "
        "JOIN pubsub_device d ON d.id=q.device JOIN pubsub_device_account a ON a.id=d.account WHERE q.kept>0",
    Drop = fun() ->
                   ejabberd_sql:sql_query_t([<<"SET LOCAL synchronous_commit TO off">>]),
                   deleting(named_copies(Copies), Select)
           end,
    case transaction(Drop) of
        {ok, Rows} ->
            {ok, [{{Service, NodeId}, device(JID, Resource)} || [Service, NodeId, JID, Resource] <- Rows]};
        Error -> Error
    end.

named_copies(Copies) ->
    Values = [["(", text(Service), ",", text(NodeId), ",", text(jid(Device)), ",", text(element(3, Device)), ",",
               integer_to_binary(Number), "::bigint)"] || {{Service, NodeId}, Device, Number} <- Copies],
    ["SELECT d.id AS device, n.nodeid AS node, v.number FROM (VALUES ", list(Values), ") AS v(host, node, jid, resource, "
     "number) JOIN pubsub_node n ON n.host=v.host AND n.node=v.node JOIN pubsub_device_account a ON a.jid=v.jid "
     "JOIN pubsub_device d ON d.account=a.id AND d.resource=v.resource"].

%% All copies of a device that is forgotten: how many.
drop_device(Id) ->
    [[Count]] = deleting(["SELECT device, node, number FROM pubsub_device_copy WHERE device=", integer_to_binary(Id)],
                         "SELECT count(*) FROM gone"),
    ask(?SQL("delete from pubsub_device_queue where device=%(Id)d")),
    binary_to_integer(Count).

%% All copies of the items of a deleted node.
drop_node(Id) ->
    deleting(["SELECT device, node, number FROM pubsub_device_copy WHERE node=", integer_to_binary(Id)],
             "SELECT count(*) FROM gone"),
    ask(?SQL("delete from pubsub_device_queue where node=%(Id)d")).
