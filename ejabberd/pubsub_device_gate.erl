%% SPDX-License-Identifier: GPL-3.0-only
%% Bounds the connections of publishers over HTTP, for each address and for a listener as a whole, so that whoever
%% opens many leaves ports for other publishers and for the streams. The bounds are options of the listener. One
%% process counts, in memory, and monitors each connection's process, so that a place is free again however the
%% connection ends.
-module(pubsub_device_gate).
-behaviour(gen_server).

-export([start_link/0, enter/3, init/1, handle_call/3, handle_cast/2, handle_info/2]).

-include_lib("kernel/include/logger.hrl").

-define(TIMEOUT, 5000).

%% The first refusal is logged, then every ?LOGGED-th.
-define(LOGGED, 1000).

%% counts has {Listener, all}, {Listener, refused} and {Listener, Address}, none of them with zero; entered has the
%% counts that each monitor stands for; refused is the number of all refusals so far.
-record(state, {counts = #{}, entered = #{}, refused = 0}).

start_link() -> gen_server:start_link({local, ?MODULE}, ?MODULE, [], []).

%% Whether the calling process may serve a connection of the address: ok, `refused` if it may still tell its client,
%% or `closed` if not. Bounds are {of an address, of the listener}.
enter(Listener, Address, Bounds) ->
    try gen_server:call(?MODULE, {enter, Listener, Address, Bounds}, ?TIMEOUT)
    catch
        exit:_ -> closed  % a connection that cannot be counted is not served
    end.

init([]) ->
    pubsub_device_metrics:set(connections, 0),
    {ok, #state{}}.

handle_call({enter, Listener, Address, {Each, All}}, {Pid, _}, #state{counts = Counts} = State) ->
    Mine = {Listener, part(Address)},
    Whole = {Listener, all},
    case count(Whole, Counts) < All andalso count(Mine, Counts) < Each of
        true -> {reply, ok, entered(Pid, [Whole, Mine], State)};
        false -> refuse(Pid, {Listener, refused}, max(1, All div 8), logged(Listener, Address, State))
    end.

%% A refusal uses a port as long as it lasts, so the number of refusals at a time is bounded.
refuse(Pid, Refused, Bound, #state{counts = Counts} = State) ->
    case count(Refused, Counts) < Bound of
        true -> {reply, refused, entered(Pid, [Refused], State)};
        false -> {reply, closed, State}
    end.

handle_cast(_, State) ->
    {noreply, State}.

handle_info({'DOWN', Monitor, process, _, _}, #state{counts = Counts, entered = Entered} = State) ->
    {Names, Rest} = maps:take(Monitor, Entered),
    [pubsub_device_metrics:count(connections, -1) || {_, all} <- Names],
    {noreply, State#state{counts = lists:foldl(fun decrement/2, Counts, Names), entered = Rest}};
handle_info(_, State) ->
    {noreply, State}.

entered(Pid, Names, #state{counts = Counts, entered = Entered} = State) ->
    [pubsub_device_metrics:count(connections) || {_, all} <- Names],
    State#state{counts = lists:foldl(fun(Name, Map) -> Map#{Name => count(Name, Map) + 1} end, Counts, Names),
                entered = Entered#{monitor(process, Pid) => Names}}.

count(Name, Counts) ->
    maps:get(Name, Counts, 0).

decrement(Name, Counts) ->
    case Counts of
        #{Name := 1} -> maps:remove(Name, Counts);
        #{Name := Count} -> Counts#{Name := Count - 1}
    end.

%% The addresses that one client can be expected to have: an IPv4 address, also in its IPv6-mapped form, or an IPv6
%% network of 64 bits.
part({0, 0, 0, 0, 0, 16#ffff, High, Low}) -> {High bsr 8, High band 255, Low bsr 8, Low band 255};
part({A, B, C, D, _, _, _, _}) -> {A, B, C, D, net};
part(Address) -> Address.

logged(Listener, Address, #state{refused = Refused} = State) ->
    Refused rem ?LOGGED == 0 andalso
        ?LOG_WARNING("Refused a connection of ~ts over HTTP to port ~b, ~b refused so far: max_connections_address and "
                     "max_connections of the listener set the bound",
                     [ejabberd_config:may_hide_data(misc:ip_to_list(Address)), Listener, Refused + 1]),
    State#state{refused = Refused + 1}.
