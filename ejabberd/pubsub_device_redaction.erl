%% SPDX-License-Identifier: GPL-3.0-only
%% Takes the values out of what the engine logs of a statement that the database refused: keys, texts of items, passwords.
%% A primary filter of the logger, which runs in the process that logs. Keeps no state.
-module(pubsub_device_redaction).

-export([begin_filtering/0, filter/2]).

%% It is there once, and stays with the server.
begin_filtering() ->
    _ = logger:add_primary_filter(?MODULE, {fun ?MODULE:filter/2, none}),
    ok.

filter(#{msg := {Format, Values}, meta := #{mfa := {ejabberd_sql, _, _}}} = Event, _) when is_list(Values) ->
    Event#{msg := {Format, lists:map(fun shown/1, Values)}};
filter(_, _) ->
    ignore.

%% A statement, an error of the database, a stack, the state of a connection with the statements that wait, a place.
shown([{severity, _} | _] = Error) -> pubsub_device_fault:database(Error);
shown([{Module, _, _, _} | _] = Stack) when is_atom(Module) -> element(3, pubsub_device_fault:told(error, none, Stack));
shown(Text) when is_binary(Text); is_list(Text) ->
    try without_texts(iolist_to_binary(Text))
    catch error:badarg -> hidden
    end;
shown({Module, Line} = Place) when is_atom(Module), is_integer(Line) -> Place;
shown(Value) when is_atom(Value); is_number(Value); is_pid(Value) -> Value;
shown(_) -> hidden.

%% What stands between quotes is a value. A quote within one is doubled.
without_texts(Statement) ->
    {Outside, _} = lists:foldr(fun(Part, {Parts, Outer}) -> {[Part || Outer] ++ Parts, not Outer} end, {[], true},
                               binary:split(Statement, <<"'">>, [global])),
    iolist_to_binary(lists:join(<<"'...'">>, Outside)).
