%% SPDX-License-Identifier: GPL-3.0-only
%% The nodes of which a session wants one open item at a time. Their names are in the session's process dictionary, so
%% that their number is bounded and the limits end with the session, also one that never announced itself. The limits
%% are in the store, where the senders read them.
-module(pubsub_device_limits).

-export([refused/2, set/4, forget/1]).

-define(LIMITED, '$pubsub_device_limited').

%% A device may be subscribed to nodes of other accounts too.
-define(TIMES_MAX_NODES, 2).

%% A session at its bound is searched for limits that have ended at most once in so many seconds.
-define(PAUSE, 10).

%% Those of the nodes for which the session can set no further limit.
refused(Nodes, Device) ->
    Bound = ?TIMES_MAX_NODES * mod_pubsub_device:option(max_nodes),
    Known = known(length(Nodes), Bound, Device),
    Add = fun(Node, Names) when is_map_key(Node, Names); map_size(Names) < Bound -> Names#{Node => true};
             (_, Names) -> Names
          end,
    Names = lists:foldl(Add, element(1, Known), Nodes),
    put(?LIMITED, setelement(1, Known, Names)),
    [Node || Node <- Nodes, not is_map_key(Node, Names)].

%% {Names, When they were searched}. The limits of deleted nodes, and those that were lifted, make room.
known(More, Bound, Device) ->
    Now = erlang:monotonic_time(second),
    case get(?LIMITED) of
        undefined -> {#{}, Now - ?PAUSE};
        {Names, Searched} when map_size(Names) + More > Bound, Now - Searched >= ?PAUSE ->
            {maps:filter(fun(Node, _) -> is_limited(Node, Device) end, Names), Now};
        Known -> Known
    end.

is_limited(Node, Device) ->
    lists:member(pubsub_device_store:activation(Node, Device, self()), [limited, closed]).

%% The session has not announced itself, so no sender has to know. `Since` is the last number that the device has.
set(Node, Device, Since, Least) ->
    Since > 0 andalso pubsub_device_flow:forget_until(Node, Device, Since),
    pubsub_device_store:activate(Node, Device, self(), {limited, Least}).

%% The session ends, or is the device's no more.
forget(Device) ->
    case erase(?LIMITED) of
        {Names, _} -> [pubsub_device_store:forget_activation(Node, Device, self()) || Node <- maps:keys(Names)], ok;
        undefined -> ok
    end.
