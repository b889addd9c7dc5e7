%% SPDX-License-Identifier: GPL-3.0-only
%% The database of the storage pubsub_device_sql, through ejabberd's own layer (sql_type: pgsql): statements,
%% transactions, the schema, and whether the database answers. All virtual hosts with the extension use the database of
%% the first of them.
-module(pubsub_device_database).
-behaviour(gen_server).

-export([connect/1, start_link/0, is_away/0, unavailable/0]).
-export([ask/1, transaction/1, rows/1, text/1, list/1]).
-export([attempt/2, be_patient/0, cached/2]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2, code_change/3]).

-include_lib("kernel/include/logger.hrl").
-include_lib("p1_xmpp/include/xmpp.hrl").

%% {Host, Away}: an atomic counter that is 1 while the database does not answer.
-define(DATABASE, ?MODULE).
-define(PATIENT, '$pubsub_device_patient').
-define(PROBE, 250).
-define(CACHE, 1000).
-define(START_ATTEMPTS, 60).
-define(LOCK, "5206712301").

%%% start

%% Makes the tables, or those that are missing since a former version.
connect(Host) ->
    pubsub_device_redaction:begin_filtering(),
    persistent_term:put(?DATABASE, {Host, atomics:new(1, [])}),
    migrate(?START_ATTEMPTS).

migrate(Left) ->
    case ejabberd_sql:sql_transaction(host(), fun() -> apply_missing(migrations()) end) of
        {atomic, ok} -> ok;
        {aborted, {too_new, Found, Known}} ->
            ?LOG_CRITICAL("The database has version ~b of the extension's tables, and this server knows ~b: update the "
                          "server", [Found, Known]),
            error({database_is_newer, Found});
        {aborted, Reason} when Left > 1 ->
            ?LOG_WARNING("The extension's tables are not ready yet: ~p", [pubsub_device_fault:database(Reason)]),
            timer:sleep(1000),
            migrate(Left - 1);
        {aborted, Reason} -> error({database, pubsub_device_fault:database(Reason)})
    end.

apply_missing(Migrations) ->
    ejabberd_sql:sql_query_t([<<"SELECT pg_advisory_xact_lock(" ?LOCK ")">>]),
    ejabberd_sql:sql_query_t([<<"CREATE TABLE IF NOT EXISTS pubsub_device_schema (version integer PRIMARY KEY, "
                                "applied timestamptz NOT NULL DEFAULT now())">>]),
    {selected, _, [[Text]]} =
        ejabberd_sql:sql_query_t([<<"SELECT coalesce(max(version), 0) FROM pubsub_device_schema">>]),
    Found = binary_to_integer(Text),
    Known = lists:max([Version || {Version, _} <- Migrations]),
    Found =< Known orelse ejabberd_sql:abort({too_new, Found, Known}),
    [begin
         ejabberd_sql:sql_query_t([Statements]),
         ejabberd_sql:sql_query_t([<<"INSERT INTO pubsub_device_schema (version) VALUES (">>,
                                   integer_to_binary(Version), <<")">>]),
         ?LOG_INFO("The extension's tables have version ~b now", [Version])
     end || {Version, Statements} <- Migrations, Version > Found],
    ok.

%% [{Version, Statements}] of the file beside the compiled modules.
migrations() ->
    {ok, Text} = file:read_file(filename:join(filename:dirname(code:which(?MODULE)), "pubsub_device.pg.sql")),
    [_ | Sections] = re:split(Text, "^-- version ", [multiline]),
    [begin
         [Version, Statements] = binary:split(Section, <<"\n">>),
         {binary_to_integer(Version), Statements}
     end || Section <- Sections].

%%% whether it answers

start_link() -> gen_server:start_link({local, ?MODULE}, ?MODULE, [], []).

%% Requests that need the database are refused meanwhile, instead of waiting for it.
is_away() ->
    case persistent_term:get(?DATABASE, none) of
        none -> false;
        {_, Away} -> atomics:get(Away, 1) == 1
    end.

unavailable() ->
    xmpp:err_resource_constraint(<<"The database of the service does not answer; try again later">>, <<"en">>).

init([]) ->
    ets:new(?MODULE, [named_table, public, {read_concurrency, true}]),
    pubsub_device_sql_cache:init(),
    self() ! probe,
    {ok, none}.

%% A connection that is being made answers this statement at once with an error.
handle_info(probe, State) ->
    {_, Away} = persistent_term:get(?DATABASE),
    Now = case ejabberd_sql:sql_query(host(), [<<"SELECT 1;">>]) of
              {selected, _, _} -> 0;
              _ -> 1
          end,
    case {atomics:exchange(Away, 1, Now), Now} of
        {0, 1} -> ?LOG_ERROR("The database does not answer; publications are refused", []);
        {1, 0} -> ?LOG_INFO("The database answers again", []);
        _ -> ok
    end,
    erlang:send_after(?PROBE, self(), probe),
    {noreply, State};
handle_info(_, State) ->
    {noreply, State}.

handle_call(_, _, State) -> {reply, ok, State}.
handle_cast(_, State) -> {noreply, State}.
terminate(_, _) -> ok.
code_change(_, State, _) -> {ok, State}.

%%% statements

%% For a process that has nothing else to do, and would lose more than time if it ended.
be_patient() -> put(?PATIENT, true).

%% Read(Text), which is remembered: for texts of which there are few.
cached(Text, Read) ->
    case ets:lookup(?MODULE, Text) of
        [{_, Value}] -> Value;
        [] ->
            Value = Read(Text),
            ets:info(?MODULE, size) > ?CACHE andalso ets:delete_all_objects(?MODULE),
            ets:insert(?MODULE, {Text, Value}),
            Value
    end.

%% What Fun returns, or Otherwise() when the database does not answer.
attempt(Fun, Otherwise) ->
    try Fun()
    catch error:{database, Reason} ->
            is_away() orelse ?LOG_ERROR("The database failed: ~p", [Reason]),
            Otherwise()
    end.

host() -> element(1, persistent_term:get(?DATABASE)).

%% A statement by itself, or in the transaction of the process. When the database does not answer, a patient process
%% waits for it; in others this fails.
ask(Query) ->
    case get(ejabberd_sql_state) of
        undefined ->
            case {unless_away(fun() -> ejabberd_sql:sql_query(host(), Query) end), get(?PATIENT)} of
                {{error, _}, true} -> timer:sleep(?PROBE), ask(Query);
                {{error, Reason}, _} -> error({database, pubsub_device_fault:database(Reason)});
                {Result, _} -> Result
            end;
        _ -> ejabberd_sql:sql_query_t(Query)
    end.

%% A connection that is being made again would keep the request until then.
unless_away(Fun) ->
    case is_away() of
        true -> {error, away};
        false -> Fun()
    end.

%% {ok, Result} or {error, Reason}. Runs in the process of a connection, and again after a deadlock. In the engine's
%% transaction it is a part of that.
transaction(Fun) ->
    case get(ejabberd_sql_state) of
        undefined ->
            case unless_away(fun() -> ejabberd_sql:sql_transaction(host(), Fun) end) of
                {atomic, Result} -> {ok, Result};
                {_, Reason} -> {error, pubsub_device_fault:database(Reason)}
            end;
        _ -> {ok, Fun()}
    end.

%% The rows of a statement, as lists of texts.
rows(Statement) ->
    {selected, _, Rows} = ask([iolist_to_binary(Statement)]),
    Rows.

%% A text as it stands in a statement, in the form whose escapes do not depend on the database's settings.
text(Text) ->
    nomatch = binary:match(Text, <<0>>),
    ["E'", binary:replace(binary:replace(Text, <<"\\">>, <<"\\\\">>, [global]), <<"'">>, <<"''">>, [global]), $'].

list(Parts) -> lists:join($,, Parts).
