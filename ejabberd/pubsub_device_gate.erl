%% SPDX-License-Identifier: GPL-3.0-only
%% How many connections the publishers over HTTP have: of one address, and of a listener as a whole, so that whoever
%% opens many keeps neither other publishers nor the streams from a port of the machine. The bounds are the operator's
%% options of the listener. One process counts, in memory, and looks at each connection's process: however that ends,
%% its place is free.
-module(pubsub_device_gate).
-behaviour(gen_server).

-export([start_link/0, enter/3, init/1, handle_call/3, handle_cast/2, handle_info/2]).

-include_lib("kernel/include/logger.hrl").

-define(TIMEOUT, 5000).

%% The first refusal is logged, then every so manieth.
-define(LOGGED, 1000).

%% counts has {Listener, all}, {Listener, refused} and {Listener, Address}, none of them with zero; entered has the
%% counts that each monitor stands for; refused is the number of all refusals so far.
-record(state, {counts = #{}, entered = #{}, refused = 0}).

start_link() -> gen_server:start_link({local, ?MODULE}, ?MODULE, [], []).

%% Whether the calling process may serve a connection of the address: ok, `refused`, where it may still say so to its
%% client, or `closed`, where it may not. Bounds are {of an address, of the listener}.
enter(Listener, Address, Bounds) ->
    try gen_server:call(?MODULE, {enter, Listener, Address, Bounds}, ?TIMEOUT)
    catch
        exit:_ -> closed  % who cannot be counted is not served
    end.

init([]) ->
    {ok, #state{}}.

handle_call({enter, Listener, Address, {Each, All}}, {Pid, _}, #state{counts = Counts} = State) ->
    Mine = {Listener, part(Address)},
    Whole = {Listener, all},
    case count(Whole, Counts) < All andalso count(Mine, Counts) < Each of
        true -> {reply, ok, entered(Pid, [Whole, Mine], State)};
        false -> refuse(Pid, {Listener, refused}, max(1, All div 8), logged(Listener, Address, State))
    end.

%% A refusal takes a port too as long as it lasts, so that there are few at a time.
refuse(Pid, Refused, Bound, #state{counts = Counts} = State) ->
    case count(Refused, Counts) < Bound of
        true -> {reply, refused, entered(Pid, [Refused], State)};
        false -> {reply, closed, State}
    end.

handle_cast(_, State) ->
    {noreply, State}.

handle_info({'DOWN', Monitor, process, _, _}, #state{counts = Counts, entered = Entered} = State) ->
    {Names, Rest} = maps:take(Monitor, Entered),
    {noreply, State#state{counts = lists:foldl(fun decrement/2, Counts, Names), entered = Rest}};
handle_info(_, State) ->
    {noreply, State}.

entered(Pid, Names, #state{counts = Counts, entered = Entered} = State) ->
    State#state{counts = lists:foldl(fun(Name, Map) -> Map#{Name => count(Name, Map) + 1} end, Counts, Names),
                entered = Entered#{monitor(process, Pid) => Names}}.

count(Name, Counts) ->
    maps:get(Name, Counts, 0).

decrement(Name, Counts) ->
    case Counts of
        #{Name := 1} -> maps:remove(Name, Counts);
        #{Name := Count} -> Counts#{Name := Count - 1}
    end.

%% What one client can be expected to have: an address of the old kind, also where the socket shows it as one of the
%% new kind, and the 64 bits of a network of those.
part({0, 0, 0, 0, 0, 16#ffff, High, Low}) -> {High bsr 8, High band 255, Low bsr 8, Low band 255};
part({A, B, C, D, _, _, _, _}) -> {A, B, C, D, net};
part(Address) -> Address.

logged(Listener, Address, #state{refused = Refused} = State) ->
    Refused rem ?LOGGED == 0 andalso
        ?LOG_WARNING("Refused a connection of ~ts over HTTP to port ~b, ~b refused so far: max_connections_address and "
                     "max_connections of the listener set the bound",
                     [ejabberd_config:may_hide_data(misc:ip_to_list(Address)), Listener, Refused + 1]),
    State#state{refused = Refused + 1}.
