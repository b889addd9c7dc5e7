%% SPDX-License-Identifier: GPL-3.0-only
%% The device extension of the pub-sub service: an ejabberd module that runs beside mod_pubsub and uses only its
%% public extension points. This file is the entry: options, processes, hooks. docs/protocol.md describes what the
%% extension does.
-module(mod_pubsub_device).
-behaviour(gen_mod).

-export([start/2, stop/1, reload/3, depends/2, mod_options/1, mod_opt_type/1, mod_doc/0]).
-export([is_service/1, services/0, option/1, on_delete/4, on_register/2]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

-define(SERVICES, {?MODULE, services}).
-define(OPTIONS, {?MODULE, options}).

start(Host, Opts) ->
    keep_options(Opts),
    Services = gen_mod:get_module_opt_hosts(Host, mod_pubsub),
    Known = persistent_term:get(?SERVICES, #{}),
    persistent_term:put(?SERVICES, lists:foldl(fun(Service, Map) -> Map#{Service => Host} end, Known, Services)),
    map_size(Known) == 0 andalso start_workers(Host),
    %% The server asks the module whether it decodes requests itself, which works only once it is loaded.
    {module, _} = code:ensure_loaded(pubsub_device_iq),
    [begin
         gen_iq_handler:add_iq_handler(ejabberd_local, Service, ?NS_DEVICE, pubsub_device_iq, process),
         gen_iq_handler:add_iq_handler(ejabberd_local, Service, ?NS_PUBSUB, pubsub_device_engine, process),
         gen_iq_handler:add_iq_handler(ejabberd_local, Service, ?NS_COMMANDS, pubsub_device_engine, process_commands),
         gen_iq_handler:add_iq_handler(ejabberd_local, Service, ?NS_DISCO_INFO, pubsub_device_disco, process_info),
         gen_iq_handler:add_iq_handler(ejabberd_local, Service, ?NS_DISCO_ITEMS, pubsub_device_disco, process_items)
     end || Service <- Services],
    map_size(Known) == 0 andalso ejabberd_hooks:add(filter_packet, pubsub_device_filter, filter_packet, 50),
    [ejabberd_hooks:add(Hook, Host, Module, Function, 50) || {Hook, Module, Function} <- hooks()],
    [ejabberd_hooks:add(Hook, Each, Module, Function, priority(Hook))
     || Each <- ejabberd_option:hosts(), {Hook, Module, Function} <- account_hooks()],
    ok.

stop(Host) ->
    Left = maps:filter(fun(_, Each) -> Each /= Host end, persistent_term:get(?SERVICES, #{})),
    [ejabberd_hooks:delete(Hook, Host, Module, Function, 50) || {Hook, Module, Function} <- hooks()],
    maps:foreach(fun(Service, Each) when Each == Host -> hand_back(Service);
                    (_, _) -> ok
                 end, persistent_term:get(?SERVICES, #{})),
    persistent_term:put(?SERVICES, Left),
    map_size(Left) == 0 andalso stop_workers(),
    ok.

hand_back(Service) ->
    gen_iq_handler:remove_iq_handler(ejabberd_local, Service, ?NS_DEVICE),
    gen_iq_handler:add_iq_handler(ejabberd_local, Service, ?NS_PUBSUB, mod_pubsub, process_pubsub),
    gen_iq_handler:add_iq_handler(ejabberd_local, Service, ?NS_COMMANDS, mod_pubsub, process_commands),
    gen_iq_handler:add_iq_handler(ejabberd_local, Service, ?NS_DISCO_INFO, mod_pubsub, process_disco_info),
    gen_iq_handler:add_iq_handler(ejabberd_local, Service, ?NS_DISCO_ITEMS, mod_pubsub, process_disco_items).

reload(_Host, Opts, _OldOpts) ->
    keep_options(Opts).

depends(_, _) -> [{mod_pubsub, hard}].

hooks() ->
    [{pubsub_publish_item, pubsub_device_engine, on_publish},
     {pubsub_delete_node, ?MODULE, on_delete},
     {register_user, ?MODULE, on_register}].

%% A device may have its account on another host of this server.
account_hooks() ->
    [{user_send_packet, pubsub_device_filter, on_send},
     {user_receive_packet, pubsub_device_session, on_receive},
     {c2s_handle_info, pubsub_device_session, on_info},
     {c2s_handle_recv, pubsub_device_guard, on_receive},
     {c2s_filter_send, pubsub_device_wire, on_send},
     {sm_remove_connection_hook, pubsub_device_presence, on_session_end},
     {remove_user, pubsub_device_presence, on_remove_user}].

page_hooks() ->
    [{webadmin_menu_main, menu}, {webadmin_page_main, page}].

%% The hooks at which a stanza ends run after all that may drop or change it.
priority(c2s_filter_send) -> 1000;
priority(user_send_packet) -> 1000;
priority(_) -> 50.

%% The processes belong to the Erlang node: all virtual hosts share them.
workers() ->
    [{pubsub_device_commit, {pubsub_device_commit, start_link, []}},
     {pubsub_device_sweep, {pubsub_device_sweep, start_link, []}},
     {pubsub_device_gate, {pubsub_device_gate, start_link, []}},
     {pubsub_device_gauges, {pubsub_device_gauges, start_link, []}}
     | [{Module, {Module, start_link, []}} || Module <- pubsub_device_store:workers()]]
        ++ [{Module:name(Shard), {Module, start_link, [Shard]}}
            || Module <- [pubsub_device_sender, pubsub_device_writer], Shard <- Module:shards()].

start_workers(Host) ->
    pubsub_device_metrics:init(),
    pubsub_device_store:init(Host),
    pubsub_device_commands:register(),
    [ejabberd_hooks:add(Hook, pubsub_device_page, Function, 50) || {Hook, Function} <- page_hooks()],
    [{ok, _} = supervisor:start_child(ejabberd_gen_mod_sup, {Id, Start, permanent, 5000, worker, dynamic})
     || {Id, Start} <- workers()].

stop_workers() ->
    [ejabberd_hooks:delete(Hook, pubsub_device_page, Function, 50) || {Hook, Function} <- page_hooks()],
    pubsub_device_commands:unregister(),
    pubsub_device_store:flush(),
    ejabberd_hooks:delete(filter_packet, pubsub_device_filter, filter_packet, 50),
    [ejabberd_hooks:delete(Hook, Each, Module, Function, priority(Hook))
     || Each <- ejabberd_option:hosts(), {Hook, Module, Function} <- account_hooks()],
    [begin
         supervisor:terminate_child(ejabberd_gen_mod_sup, Id),
         supervisor:delete_child(ejabberd_gen_mod_sup, Id)
     end || {Id, _} <- lists:reverse(workers())].

%% Whether the domain is a pub-sub service with this extension.
is_service(Domain) ->
    maps:is_key(Domain, persistent_term:get(?SERVICES, #{})).

services() ->
    maps:keys(persistent_term:get(?SERVICES, #{})).

option(Name) ->
    maps:get(Name, persistent_term:get(?OPTIONS)).

keep_options(Opts) ->
    persistent_term:put(?OPTIONS, maps:from_list([{Name, gen_mod:get_opt(Name, Opts)} || {Name, _} <- mod_options(x)])).

%% A key is removed with its node, before the deletion is answered.
on_delete(_Host, Service, NodeId, Id) when is_binary(Service) ->
    case is_service(Service) of
        true -> pubsub_device_writer:call({Service, NodeId}, {forget, {Service, NodeId}, Id});
        false -> ok
    end,
    ok;
on_delete(_, _, _, _) ->
    ok.

%% A registered account is given to a device, so it must survive a crash of the server.
on_register(_User, _Host) ->
    pubsub_device_commit:sync().

mod_opt_type(sync) -> econf:bool();
mod_opt_type(require_ttl) -> econf:bool();
mod_opt_type(push_url) -> econf:and_then(econf:binary("^(https?://[^/?#@]+)?$"), fun push_url/1);
mod_opt_type(open_prefixes) -> econf:list(econf:binary());
mod_opt_type(max_age) -> econf:timeout(second);
mod_opt_type(device_age) -> econf:timeout(second);
mod_opt_type(sweep_interval) -> econf:timeout(second);
mod_opt_type(_) -> econf:pos_int().

%% An origin, without a path: senders sign tokens for it.
push_url(<<>>) -> <<>>;
push_url(URL) ->
    case pubsub_device_vapid:origin(URL) of
        none -> econf:fail({bad_url, malformed, URL});
        Origin -> Origin
    end.

mod_options(_) ->
    [{sync, true},
     {push_url, <<>>},
     {require_ttl, false},
     {open_prefixes, []},
     {max_kept, 10000},
     {max_kept_node, 1000},
     {max_kept_bytes, 50000000},
     {max_account_bytes, 100000000},
     {max_age, timer:hours(24 * 30)},
     {device_age, timer:hours(24 * 90)},
     {max_devices, 100},
     {max_nodes, 20000},
     {max_keys, 10000},
     {max_store, 1000000000},
     {max_backlog, 5000},
     {max_payload, 65536},
     {key_rate, 100},
     {key_burst, 1000},
     {sweep_interval, timer:minutes(10)}].

mod_doc() ->
    Option = fun(Name, Value, Text) -> {Name, #{value => Value, desc => Text}} end,
    #{desc => <<"Devices of the pub-sub service: items are numbered, and kept until acknowledged.">>,
      opts =>
          [Option(sync, "true | false", <<"Whether a publisher is answered only when its item is on disk.">>),
           Option(push_url, "Origin", <<"The public address of the listener for publishers, such as "
                                        "https://push.example.org.">>),
           Option(require_ttl, "true | false", <<"Whether messages of web push need a TTL.">>),
           Option(open_prefixes, "[Prefix]", <<"Longer names that begin with one of these are free to all.">>),
           Option(max_kept, "Number", <<"How many copies of items are kept for a device.">>),
           Option(max_kept_node, "Number", <<"How many of them may be of one node.">>),
           Option(max_kept_bytes, "Bytes", <<"How many bytes are kept for a device.">>),
           Option(max_account_bytes, "Bytes", <<"How many bytes are kept for all devices of an account; at most half "
                                                "of max_store.">>),
           Option(max_age, "Time", <<"How long an item is kept.">>),
           Option(device_age, "Time", <<"How long a device is remembered after it was last seen.">>),
           Option(max_devices, "Number", <<"How many devices an account may have.">>),
           Option(max_nodes, "Number", <<"How many nodes an account may create.">>),
           Option(max_keys, "Number", <<"How many of them may be key nodes.">>),
           Option(max_store, "Bytes", <<"Above this many kept bytes publishers are refused for a while.">>),
           Option(max_backlog, "Number", <<"Above this many requests waiting for a writer publishers are refused.">>),
           Option(max_payload, "Bytes", <<"The largest body over HTTP.">>),
           Option(key_rate, "Number", <<"How many items a second may be published with a key.">>),
           Option(key_burst, "Number", <<"How many of these at once.">>),
           Option(sweep_interval, "Time", <<"How often expired items and devices are dropped.">>)]}.
