%% SPDX-License-Identifier: GPL-3.0-only
%% What the log says of a request that failed. Keeps no state.
-module(pubsub_device_fault).

-export([told/3]).

%% Without the arguments of the functions and the value that did not fit: they may contain a key or an item.
told(Class, Reason, Stack) ->
    {Class, name(Reason), [{Module, Function, Where} || {Module, Function, _, Where} <- Stack]}.

name(Reason) when is_atom(Reason) -> Reason;
name({Name, _}) when is_atom(Name) -> Name;
name(_) -> other.
