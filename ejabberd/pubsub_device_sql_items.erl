%% SPDX-License-Identifier: GPL-3.0-only
%% The kept items in PostgreSQL. An item is stored once, with one short row for each device that it waits for. Numbers,
%% bodies, rows and counters of a whole batch are written in one transaction, a statement for each table.
%%
%% A number is given while its node's row is locked, which lasts until the commit: of two members that both act as the
%% node's writer for a moment, the second one numbers its items after the first one's, and above them.
-module(pubsub_device_sql_items).

-export([tick/0, sweep/0, numbers/1, write/2, complete/1, keep_last/5, last_item/1, forget_node/2]).
-export([drop/1, acknowledge/1, drop_device/1, next/3, newest/2, nodes_for/1, each_queue/1]).
-export([count/2, counts/2, oldest/1, load/1, total/0, totals/0, next_device/1, relieve/1]).

-include_lib("kernel/include/logger.hrl").
-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/ejabberd_sql_pt.hrl").
-include("pubsub_device.hrl").

-import(pubsub_device_database, [ask/1, transaction/1, rows/1, text/1, list/1]).
-import(pubsub_device_sql, [jid/1, account_of/1, change/1]).

%% The cost of a copy without text: its rows, their entries in indexes, and their share of the log.
-define(RECORD_BYTES, 1000).

%% The sums as they were last read, and when they are read again. Reading them takes at most a twentieth of the time.
-define(TOTALS, {?MODULE, totals}).
-define(IDLE, 20).

%% In the process that walks over all devices: the next ones, and the loads of those that it was given.
-define(WALK, '$pubsub_device_walk').

%% Dropped at once where a bound is exceeded, and read at once by each_queue/1.
-define(PORTION, 1000).

%%% publishing

numbers(Shard) -> Shard.

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
    First = first_numbers([Each || {Id, _} = Each <- Known, Id /= gone]),
    {Numbered, _} = lists:mapfoldl(fun({gone, Publication}, Next) -> {{gone, gone, Publication}, Next};
                                      ({Id, Publication}, Next) ->
                                           Number = maps:get(Id, Next),
                                           {{Id, Number, Publication}, Next#{Id := Number + 1}}
                                   end, First, Known),
    Dropped = keep([Each || {Id, _, #publication{keep = [_ | _]}} = Each <- Numbered, Id /= gone]),
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

%% Writes the items for their devices, and drops older ones where a bound would be exceeded: [{Node, Device, Number,
%% Why}].
%% Devices that were forgotten in the meantime get nothing.
keep([]) ->
    [];
keep(Numbered) ->
    Devices = lock_devices(lists:usort([Device || {_, _, #publication{keep = Keep}} <- Numbered, {Device, _} <- Keep])),
    Limits = {_, _, MaxBytes, MaxAccount} = pubsub_device_bounds:limits(),
    Copies = [{maps:get(Device, Devices), Id, Number, Via, Bytes, Publication}
              || {Id, Number, #publication{item = Item, keep = Keep} = Publication} <- Numbered,
                 Bytes <- [bytes(Item)], {Device, Via} <- Keep, maps:is_key(Device, Devices)],
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
    maps:from_list([{setelement(3, account_of(JID), Resource),
                     list_to_tuple([binary_to_integer(Value) || Value <- Values])}
                    || [JID, Resource | Values]
                           <- rows(["SELECT a.jid, d.resource, d.id, a.id, d.kept, d.bytes, a.kept, a.bytes "
                                    "FROM pubsub_device d JOIN pubsub_device_account a ON a.id=d.account "
                                    "WHERE (a.jid, d.resource) IN (", list(Names), ") ORDER BY d.id FOR UPDATE OF d"])]).

%% One row for each item, each copy, each queue, each device and each account. Returns the queues as they are now.
insert(Copies) ->
    Now = integer_to_binary(erlang:system_time(second)),
    Bodies = [[integer_to_binary(Id), ",", integer_to_binary(Number), ",", text(ItemId), ",", text(encoded(Item)), ",", Now]
              || {Id, Number, ItemId, Item}
                     <- lists:usort([{Id, Number, ItemId, Item}
                                     || {_, Id, Number, _, _, #publication{item_id = ItemId, item = Item}} <- Copies])],
    rows(["WITH bodies AS (INSERT INTO pubsub_device_body (node, number, item_id, item, at) VALUES ", tuples(Bodies),
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

encoded(Item) ->
    binary:replace(fxml:element_to_binary(Item), <<"\r">>, <<"&#13;">>, [global]).

%% The cost of a copy: its text, its number and its rows.
bytes(Item) -> ?RECORD_BYTES + byte_size(<<"seqNo0123456789012345">>) + text_bytes(Item).

text_bytes({xmlcdata, Text}) -> byte_size(Text);
text_bytes(#xmlel{name = Name, attrs = Attributes, children = Children}) ->
    byte_size(Name) + lists:sum([byte_size(Key) + byte_size(Value) || {Key, Value} <- Attributes])
        + lists:sum([text_bytes(Child) || Child <- Children]).

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
    maps:from_list([{binary_to_integer(Id), setelement(3, account_of(JID), Resource)}
                    || [Id, JID, Resource]
                           <- rows(["SELECT d.id, a.jid, d.resource FROM pubsub_device d JOIN pubsub_device_account a "
                                    "ON a.id=d.account WHERE d.id IN (", list([integer_to_binary(Id) || Id <- Ids]), ")"])]).

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
            {ok, [{{Service, NodeId}, setelement(3, account_of(JID), Resource)}
                  || [Service, NodeId, JID, Resource] <- Rows]};
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

%% The number is kept in the floor, above which a node made anew begins.
forget_node(Node, Id) ->
    Ids = [Each || Each <- [Id], is_integer(Each)] ++ maps:values(ids([Node || not is_integer(Id)])),
    change(fun() -> [forget_id(Each) || Each <- Ids] end),
    ok.

forget_id(Id) ->
    Node = integer_to_binary(Id),
    ask(?SQL("with gone as (delete from pubsub_device_number where node=%(Id)d returning last) "
             "update pubsub_device_floor f set last=greatest(f.last, gone.last) from gone")),
    deleting(["SELECT device, node, number FROM pubsub_device_copy WHERE node=", Node], "SELECT count(*) FROM gone"),
    ask(?SQL("delete from pubsub_device_queue where node=%(Id)d")),
    ask(?SQL("delete from pubsub_device_body where node=%(Id)d")).

%%% the node's last item

last_item({Service, NodeId}) ->
    case ask(?SQL("select @(u.last)d, @(u.item)s from pubsub_device_number u join pubsub_node n on n.nodeid=u.node "
                  "where n.host=%(Service)s and n.node=%(NodeId)s and u.item is not null")) of
        {selected, [Last]} -> Last;
        {selected, []} -> none
    end.

%% The body may be deleted by its last other device at the same moment, so it is written once more.
keep_last({Service, NodeId} = Node, Device, Number, ItemId, Item) ->
    Keep = fun() ->
                   case ask(?SQL("select @(u.node)d from pubsub_device_number u join pubsub_node n on n.nodeid=u.node "
                                 "where n.host=%(Service)s and n.node=%(NodeId)s and u.last=%(Number)d "
                                 "and u.item=%(ItemId)s for update of u")) of
                       {selected, [{Id}]} ->
                           Newest = newest(Node, Device),
                           case Newest == none orelse element(1, Newest) < Number of
                               true ->
                                   Publication = #publication{node = Node, item_id = ItemId, item = Item,
                                                              keep = [{Device, subscription}]},
                                   {Id, keep([{Id, Number, Publication}])};
                               false -> false
                           end;
                       {selected, []} -> false
                   end
           end,
    case transaction(Keep) of
        {ok, {Id, Dropped}} ->
            Text = encoded(Item),
            At = erlang:system_time(second),
            ask(?SQL("insert into pubsub_device_body (node, number, item_id, item, at) values (%(Id)d, %(Number)d, "
                     "%(ItemId)s, %(Text)s, %(At)d) on conflict do nothing")),
            complete(Dropped),
            not lists:any(fun(Each) -> element(3, Each) == Number andalso element(2, Each) == Device end, Dropped);
        {ok, false} -> false;
        {error, Reason} -> error({database, Reason})
    end.

%%% reading

next({Service, NodeId} = Node, {_, _, Resource} = Device, Above) ->
    JID = jid(Device),
    case ask(?SQL("select @(c.number)d, @(b.item_id)s, @(b.item)s, @(b.at)d from pubsub_node n "
                  "join pubsub_device_account a on a.jid=%(JID)s "
                  "join pubsub_device d on d.account=a.id and d.resource=%(Resource)s "
                  "join pubsub_device_copy c on c.device=d.id and c.node=n.nodeid "
                  "join pubsub_device_body b on b.node=c.node and b.number=c.number "
                  "where n.host=%(Service)s and n.node=%(NodeId)s and c.number>%(Above)d "
                  "order by c.number limit 1")) of
        {selected, [{Number, ItemId, Text, At}]} ->
            #pubsub_device_copy{id = {Node, Device, Number}, item_id = ItemId, at = At,
                                item = pubsub_device_stanza:numbered(fxml_stream:parse_element(Text), Number)};
        {selected, []} -> none
    end.

newest({Service, NodeId}, {_, _, Resource} = Device) ->
    JID = jid(Device),
    case ask(?SQL("select @(c.number)d, @(c.via)s from pubsub_node n join pubsub_device_account a on a.jid=%(JID)s "
                  "join pubsub_device d on d.account=a.id and d.resource=%(Resource)s "
                  "join pubsub_device_copy c on c.device=d.id and c.node=n.nodeid "
                  "where n.host=%(Service)s and n.node=%(NodeId)s order by c.number desc limit 1")) of
        {selected, [{Number, <<"s">>}]} -> {Number, subscription};
        {selected, [{Number, _}]} -> {Number, owner};
        {selected, []} -> none
    end.

nodes_for({_, _, Resource} = Device) ->
    JID = jid(Device),
    {selected, Nodes} = ask(?SQL("select @(n.host)s, @(n.node)s from pubsub_device_account a "
                                 "join pubsub_device d on d.account=a.id and d.resource=%(Resource)s "
                                 "join pubsub_device_queue q on q.device=d.id and q.kept>0 "
                                 "join pubsub_node n on n.nodeid=q.node where a.jid=%(JID)s")),
    Nodes.

each_queue(Fun) -> each_queue(Fun, 0, 0).

each_queue(Fun, Device, Node) ->
    Portion = ?PORTION,
    {selected, Rows} = ask(?SQL("select @(q.device)d, @(q.node)d, @(a.jid)s, @(d.resource)s, @(n.host)s, @(n.node)s "
                                "from pubsub_device_queue q join pubsub_device d on d.id=q.device "
                                "join pubsub_device_account a on a.id=d.account join pubsub_node n on n.nodeid=q.node "
                                "where (q.device, q.node)>(%(Device)d, %(Node)d) and q.kept>0 "
                                "order by q.device, q.node limit %(Portion)d")),
    [Fun(setelement(3, account_of(JID), Resource), {Service, NodeId}) || {_, _, JID, Resource, Service, NodeId} <- Rows],
    case Rows of
        [] -> ok;
        _ ->
            {LastDevice, LastNode, _, _, _, _} = lists:last(Rows),
            each_queue(Fun, LastDevice, LastNode)
    end.

%%% sums

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

count({Service, NodeId}, {_, _, Resource} = Device) ->
    JID = jid(Device),
    {selected, Found} = ask(?SQL("select @(q.kept)d from pubsub_device_account a join pubsub_device d on d.account=a.id "
                                 "and d.resource=%(Resource)s join pubsub_node n on n.host=%(Service)s "
                                 "and n.node=%(NodeId)s join pubsub_device_queue q on q.device=d.id and q.node=n.nodeid "
                                 "where a.jid=%(JID)s")),
    lists:sum([Count || {Count} <- Found]).

counts([], _) ->
    [];
counts(Nodes, {_, _, Resource} = Device) ->
    Names = [[$(, text(Service), $,, text(NodeId), $)] || {Service, NodeId} <- lists:usort(Nodes)],
    Found = maps:from_list([{{Service, NodeId}, binary_to_integer(Count)}
                            || [Service, NodeId, Count]
                                   <- rows(["SELECT n.host, n.node, q.kept FROM (VALUES ", list(Names), ") AS v(host, node) "
                                            "JOIN pubsub_node n ON n.host=v.host AND n.node=v.node "
                                            "JOIN pubsub_device_account a ON a.jid=", text(jid(Device)),
                                            " JOIN pubsub_device d ON d.account=a.id AND d.resource=", text(Resource),
                                            " JOIN pubsub_device_queue q ON q.device=d.id AND q.node=n.nodeid"])]),
    [maps:get(Node, Found, 0) || Node <- Nodes].

oldest({_, _, Resource} = Device) ->
    JID = jid(Device),
    case ask(?SQL("select @(n.host)s, @(n.node)s, @(c.number)d from pubsub_device_account a "
                  "join pubsub_device d on d.account=a.id and d.resource=%(Resource)s "
                  "join pubsub_device_copy c on c.device=d.id join pubsub_node n on n.nodeid=c.node "
                  "where a.jid=%(JID)s order by c.number limit 1")) of
        {selected, [{Service, NodeId, Number}]} -> {{Service, NodeId}, Number};
        {selected, []} -> none
    end.

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
    [{setelement(3, account_of(Each), Name), case Number of
                                                 0 -> infinity;
                                                 _ -> Number
                                             end, {Kept, Bytes}} || {Each, Name, Kept, Bytes, Number} <- Rows].

%% Reduces the accounts that have most to the same level.
relieve(Room) ->
    {selected, Sums} = ask(?SQL("select @(id)d, @(bytes)d from pubsub_device_account where bytes>0")),
    Level = level(lists:sort([Bytes || {_, Bytes} <- Sums]), Room, length(Sums)),
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

level([Size | Rest], Room, Left) when Size * Left =< Room -> level(Rest, Room - Size, Left - 1);
level(_, Room, Left) -> Room div max(1, Left).

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
