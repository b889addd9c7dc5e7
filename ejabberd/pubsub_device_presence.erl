%% SPDX-License-Identifier: GPL-3.0-only
%% Devices and their sessions. A device is a full JID of this server that announced itself: by directed presence to
%% the service, by creating a key node or by activating a node. It is remembered until it has been absent for
%% device_age; the session is known only while it lasts.
-module(pubsub_device_presence).

-export([announce/1, admit/1, attach/1, attach/2, goodbye/1, on_session_end/3, on_remove_user/2, forget/2]).

-include_lib("kernel/include/logger.hrl").
-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

%% The session is recorded before the kept items are read: an item that is kept afterwards finds the session.
%%
%% Only a session that was already recorded wants a repetition: items that are already sent at a first announcement
%% were published after this step began.
announce(JID) ->
    Device = jid:tolower(JID),
    Before = pubsub_device_store:session(Device),
    case attach(JID) of
        ok ->
            Again = pubsub_device_store:session(Device) == Before,
            Nodes = pubsub_device_store:nodes_for(Device),
            News = [Node || Node <- Nodes, pubsub_device_session:is_news(Node, Device)],
            [pubsub_device_session:tell(Node, Device, {announce, Node, Device, Again}) || Node <- News],
            News == [] andalso pubsub_device_session:spare(1 + length(Nodes) div 16),
            ok;
        Refused -> Refused
    end.

%% Makes the session the device's: `ok`, or what admit/1 says otherwise.
attach(JID) ->
    case admit(JID) of
        {ok, Pid} -> attach(jid:tolower(JID), Pid);
        Refused -> Refused
    end.

attach(Device, Pid) ->
    pubsub_device_store:attach(Device, Pid),
    pubsub_device_session:present(),
    ok.

%% Records the device: {ok, Pid of its session}, `stranger` if it is not a session of this server, or the error for a
%% device above the bound.
admit(JID) ->
    {User, Server, Resource} = Device = jid:tolower(JID),
    case Resource /= <<>> andalso ejabberd_router:is_my_host(Server)
        andalso ejabberd_sm:get_session_pid(User, Server, Resource) of
        Pid when is_pid(Pid) ->
            case pubsub_device_store:is_device(Device) orelse make_room(Device) of
                true -> pubsub_device_store:saw_device(Device), {ok, Pid};
                false -> pubsub_device_bounds:device_refused({User, Server, <<>>})
            end;
        _ -> stranger
    end.

%% A client without a fixed resource is a new device at every connect, so the account's longest absent device is
%% forgotten. Connected devices stay: when all are connected, the new one is refused. New devices of an account are
%% handled one after the other, so that two of them do not displace two others when one place was missing.
make_room({User, Server, _} = Device) ->
    global:trans({{?MODULE, User, Server}, self()}, fun() -> make_room_now(Device) end, pubsub_device_commit:members()).

make_room_now(Device) ->
    Devices = pubsub_device_store:devices(Device),
    case length(Devices) >= mod_pubsub_device:option(max_devices) of
        true ->
            Absent = [{Seen, Each} || Each <- Devices, pubsub_device_store:session(Each) == none,
                                      Seen <- pubsub_device_store:seen(Each)],
            case lists:sort(Absent) of
                [{_, Oldest} | _] ->
                    forget(Oldest, "a new one took its place under max_devices"),
                    pubsub_device_store:saw_device(Device),
                    true;
                [] -> false
            end;
        false -> pubsub_device_store:saw_device(Device), true
    end.

%% The session continues as if it had not announced itself.
goodbye(JID) ->
    leave(JID, self()) andalso pubsub_device_session:settle(jid:tolower(JID)),
    pubsub_device_limits:forget(jid:tolower(JID)),
    pubsub_device_session:forget(),
    pubsub_device_session:spare(16).

leave(JID, Pid) ->
    Device = jid:tolower(JID),
    case pubsub_device_store:detach(Device, Pid) of
        true ->
            pubsub_device_store:saw_device(Device),
            pubsub_device_sender:session_down(Device, Pid),
            true;
        false -> false
    end.

on_session_end({_, Pid}, JID, _Info) ->
    leave(JID, Pid),
    Pid == self() andalso pubsub_device_limits:forget(jid:tolower(JID)).

on_remove_user(User, Server) ->
    [forget(Device, "its account was removed") || Device <- pubsub_device_store:devices({jid:nodeprep(User), jid:nameprep(Server), <<>>})],
    ok.

forget(Device, Why) ->
    ?LOG_INFO("Forgot the device ~ts; ~ts", [jid:encode(Device), Why]),
    pubsub_device_store:forget_device(Device).
