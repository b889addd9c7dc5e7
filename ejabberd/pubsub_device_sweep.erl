%% SPDX-License-Identifier: GPL-3.0-only
%% Expiry: every sweep_interval each member drops the expired copies of the nodes that it writes for, and one of them
%% forgets the devices that were absent too long. The size of the store is measured every second.
-module(pubsub_device_sweep).
-behaviour(gen_server).

-export([start_link/0]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2, code_change/3]).

-define(MEASURE_INTERVAL, 1000).

start_link() -> gen_server:start_link({local, ?MODULE}, ?MODULE, [], []).

init([]) ->
    self() ! measure,
    arm(),
    {ok, none}.

arm() -> erlang:send_after(mod_pubsub_device:option(sweep_interval), self(), sweep).

handle_info(sweep, State) ->
    pubsub_device_database:attempt(fun expire/0, fun() -> ok end),
    pubsub_device_bounds:forget_rates(),
    pubsub_device_bounds:forget_counts(),
    pubsub_device_trace:sweep(),
    arm(),
    {noreply, State};
handle_info(measure, State) ->
    pubsub_device_database:attempt(fun measure/0, fun() -> ok end),
    erlang:send_after(?MEASURE_INTERVAL, self(), measure),
    {noreply, State};
handle_info(_, State) ->
    {noreply, State}.

measure() ->
    pubsub_device_bounds:measure(),
    pubsub_device_store:tick().

expire() ->
    pubsub_device_store:each_queue(fun(Device, Node) ->
                                           pubsub_device_writer:member(Node) == node()
                                               andalso pubsub_device_bounds:drop_aged(Device, Node)
                                   end),
    hd(pubsub_device_commit:members()) == node() andalso sweep().

sweep() ->
    forget_absent(),
    pubsub_device_store:sweep().

%% A crash of a member leaves records of sessions and activations for which no sender gets a notification.
forget_absent() ->
    Oldest = erlang:system_time(second) - mod_pubsub_device:option(device_age) div 1000,
    [pubsub_device_presence:forget(Device, "it stayed away for device_age")
     || Device <- pubsub_device_store:all_devices(), pubsub_device_store:session(Device) == none,
        Seen <- pubsub_device_store:seen(Device), Seen < Oldest],
    [pubsub_device_store:forget_session(Device)
     || Device <- pubsub_device_store:sessions(), pubsub_device_store:session(Device) == none],
    pubsub_device_store:forget_stale_activations().

handle_call(_, _, State) -> {reply, ok, State}.
handle_cast(_, State) -> {noreply, State}.
terminate(_, _) -> ok.
code_change(_, State, _) -> {ok, State}.
