%% SPDX-License-Identifier: GPL-3.0-only
%% Key nodes: nodes to which every holder of the key may publish. A node has one key as long as it exists.
-module(pubsub_device_keys).

-export([create/3, get/2]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").

-define(KEY_BYTES, 24).

%% The caller holds the name's lock, so two requests for the name do not interleave. The key is stored before the
%% node: a crash between the two leaves a key that nobody knows, which is removed when the name is next requested.
create(Node, Owner, Create) ->
    case {exists(Node), pubsub_device_store:key_of(Node)} of
        {true, {Key, Owner}} -> {ok, Key, <<"exists">>};
        {true, _} -> {error, xmpp:err_conflict()};
        {false, _} ->
            Key = new_key(),
            pubsub_device_store:put_key(Node, Key, Owner),
            try made(pubsub_device_bounds:key_refused(Owner), Create) of
                ok -> {ok, Key, <<>>};
                {error, Error} -> pubsub_device_store:delete_key(Node), {error, Error}
            catch _:_ -> pubsub_device_store:delete_key(Node), {error, xmpp:err_internal_server_error()}
            end
    end.

made(false, Create) -> Create();
made(Refused, _) -> Refused.

%% Keys are used on command lines, where one that begins with a dash would be read as an option.
new_key() ->
    case base64url:encode(crypto:strong_rand_bytes(?KEY_BYTES)) of
        <<"-", _/binary>> -> new_key();
        Key -> Key
    end.

get(Node, Account) ->
    case {exists(Node), pubsub_device_store:key_of(Node)} of
        {true, {Key, Account}} -> {ok, Key};
        {true, {_, _}} -> {error, xmpp:err_forbidden()};
        _ -> {error, xmpp:err_item_not_found()}
    end.

exists({Service, NodeId}) ->
    is_record(mod_pubsub:tree_action(Service, get_node, [Service, NodeId]), pubsub_node).
