%% SPDX-License-Identifier: GPL-3.0-only
%% The receivers of what the service sends: devices, for which an item is kept, and all others, which get it live.
%% Keeps no state.
%%
%% A bare JID means all devices of the account. Its other available resources get the ordinary notification.
-module(pubsub_device_targets).

-export([find/3, mark/2, is_meant/2, send_live/2, reached/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").

-import(pubsub_device_stanza, [prepared/1]).

%% The receivers of one item: {[{Device, Via}], [Message]}. `Messages` are the notifications for the node's subscribers.
%% A device that receives it for several reasons (by its full JID, by the bare one, through a collection, as the
%% owner's) gets one copy.
find(Node, Item, Messages) ->
    case pubsub_device_stanza:has_payload(Item) of
        true -> {kept(Node, Messages), ordinary(Messages)};
        false -> {[], live(Node, Item, Messages)}
    end.

kept(Node, Messages) ->
    Subscribed = lists:usort(lists:flatmap(fun(#message{to = To}) -> devices(jid:tolower(To)) end, Messages)),
    [{Device, subscription} || Device <- Subscribed]
        ++ [{Device, owner} || Device <- owned(Node) -- Subscribed].

%% Whether the JID means the device, by its full name or by the account's.
is_meant({User, Server, Resource}, #jid{luser = User, lserver = Server, lresource = Meant}) ->
    Meant == <<>> orelse Meant == Resource;
is_meant(_, _) ->
    false.

%% The owner's devices that created or activated the key node.
owned(Node) ->
    case pubsub_device_store:key_of(Node) of
        {_, {User, Server, _} = Owner} ->
            case pubsub_device_store:marks(Node) of
                [] -> unmarked(Node, Owner);
                Marks -> [Device || {U, S, _} = Device <- Marks, U == User, S == Server,
                                    pubsub_device_store:is_device(Device)]
            end;
        none -> []
    end.

%% A node for which no device is recorded is for the device in its name, or for all.
unmarked(Node, Owner) ->
    case named(Node, Owner) of
        [] -> pubsub_device_store:devices(Owner);
        Named -> Named
    end.

named({_, NodeId}, {User, Server, _}) ->
    case binary:split(NodeId, <<"/">>, [global]) of
        [<<>>, User, Resource, _ | _] -> devices({User, Server, Resource});
        _ -> []
    end.

%% From now on the key node's items are kept for the device, if it belongs to its owner. Returns whether this is new,
%% so that it has to be written to disk.
mark(Node, {User, Server, _} = Device) ->
    case pubsub_device_store:is_device(Device) andalso pubsub_device_store:key_of(Node) of
        {_, {User, Server, _} = Owner} ->
            case pubsub_device_store:marks(Node) of
                [] -> [pubsub_device_store:mark(Node, Each) || Each <- lists:usort([Device | named(Node, Owner)])], true;
                Marks -> not lists:member(Device, Marks) andalso pubsub_device_store:mark(Node, Device) == ok
            end;
        _ -> false
    end.

devices({_, _, <<>>} = Account) ->
    pubsub_device_store:devices(Account);
devices(Full) ->
    [Full || pubsub_device_store:is_device(Full)].

ordinary(Messages) ->
    Wanted = [{LJID, Message} || #message{to = To} = Message <- Messages, LJID <- others(jid:tolower(To))],
    [Message#message{to = prepared(LJID)} || {LJID, Message} <- lists:ukeysort(1, Wanted)].

others({_, _, <<>>} = Account) ->
    case pubsub_device_store:devices(Account) of
        [] -> [Account];
        Devices -> available(Account) -- Devices
    end;
others(Full) ->
    [Full || not pubsub_device_store:is_device(Full)].

%% An item without a payload cannot be acknowledged, so it is sent once.
live({Service, _} = Node, #ps_item{} = Item, Messages) ->
    Subscribers = [{LJID, Message} || #message{to = To} = Message <- Messages, LJID <- reached(jid:tolower(To)),
                                      pubsub_device_store:activation(Node, LJID, pubsub_device_store:attached(LJID))
                                          /= closed],
    Sent = [LJID || {LJID, _} <- Subscribers],
    Owned = [Device || Device <- owned(Node), not lists:member(Device, Sent),
                       pubsub_device_store:is_active(Node, Device, pubsub_device_store:session(Device))],
    [Message#message{to = prepared(LJID)} || {LJID, Message} <- lists:ukeysort(1, Subscribers)]
        ++ [#message{type = headline, from = prepared(Service), to = prepared(Device),
                     sub_els = [#ps_event{items = #ps_items{node = element(2, Node), items = [Item]}}]}
            || Device <- Owned].

send_live(Number, Message) ->
    ejabberd_router:route(pubsub_device_stanza:stamp(Message, Number)).

%% The sessions that a message to the JID should reach: those of the account's devices that announced
%% themselves, available or not, and every other that is available. The JID itself when there is none.
reached({_, _, <<>>} = Account) ->
    Present = [Device || Device <- pubsub_device_store:devices(Account), pubsub_device_store:session(Device) /= none],
    case lists:usort(Present ++ available(Account)) of
        [] -> [Account];
        Sessions -> Sessions
    end;
reached(Full) ->
    [Full].

available({User, Server, _}) ->
    [{User, Server, Resource} || ejabberd_router:is_my_host(Server),
                                 {Priority, Resource} <- ejabberd_sm:get_user_present_resources(User, Server),
                                 Priority >= 0].
