%% SPDX-License-Identifier: GPL-3.0-only
%% What the log says of a request or a statement that failed, without what was asked. Keeps no state.
-module(pubsub_device_fault).

-export([told/3, database/1]).

%% Without the arguments of the functions and the value that did not fit: they may contain a key or an item.
told(Class, Reason, Stack) ->
    {Class, name(Reason), places(Stack)}.

name(Reason) when is_atom(Reason) -> Reason;
name({Name, _}) when is_atom(Name) -> Name;
name(_) -> other.

places(Stack) -> [{Module, Function, Where} || {Module, Function, _, Where} <- Stack].

%% An error of PostgreSQL without its details, which have the values of the row. In the messages of class 22, data
%% exceptions, there are values too.
database([{_, _} | _] = Fields) ->
    case {proplists:get_value(code, Fields), proplists:get_value(message, Fields)} of
        {<<"22", _/binary>> = Code, _} -> Code;
        {undefined, _} -> other;
        {Code, Message} -> {Code, Message}
    end;
database(Reason) when is_atom(Reason); is_binary(Reason) -> Reason;
database(_) -> other.
