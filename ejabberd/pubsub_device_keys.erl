%% SPDX-License-Identifier: GPL-3.0-only
%% Key nodes: nodes to which every holder of the key may publish. A node has one key as long as it exists.
-module(pubsub_device_keys).

-export([create/4, get/2, push/1, url/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include_lib("ejabberd/include/pubsub.hrl").

-define(KEY_BYTES, 24).

%% The caller holds the name's lock, so two requests for the name do not interleave. The key is stored before the
%% node: a crash between the two leaves a key that nobody knows, which is removed when the name is next requested.
%% `Push` is what the node is for: {IsWebPush, Vapid}. It belongs to the node as the key does.
create(Node, Owner, Push, Create) ->
    case {exists(Node), pubsub_device_store:key_of(Node)} of
        {true, {Key, Owner}} ->
            case pubsub_device_store:push_of(Node) of
                Push -> {ok, Key, <<"exists">>};
                _ -> {error, xmpp:err_conflict(<<"The node was made with another web-push or vapid; delete it first, or "
                                                 "take another name">>, <<"en">>)}
            end;
        {true, _} -> {error, xmpp:err_conflict()};
        {false, _} ->
            Key = new_key(),
            pubsub_device_store:put_key(Node, Key, Owner, Push),
            try made(pubsub_device_bounds:key_refused(Owner), Create) of
                ok -> {ok, Key, <<>>};
                {error, Error} -> pubsub_device_store:delete_key(Node), {error, Error}
            catch _:_ -> pubsub_device_store:delete_key(Node), {error, xmpp:err_internal_server_error()}
            end
    end.

made(false, Create) -> Create();
made(Refused, _) -> Refused.

%% What the request says of web push: {IsWebPush, Vapid}, or an error.
push(Element) ->
    case {fxml:get_tag_attr_s(<<"web-push">>, Element), fxml:get_tag_attr(<<"vapid">>, Element)} of
        {WebPush, Vapid} when WebPush == <<"true">>; WebPush == <<"1">> -> with_vapid(true, Vapid);
        {WebPush, Vapid} when WebPush == <<>>; WebPush == <<"false">>; WebPush == <<"0">> -> with_vapid(false, Vapid);
        _ -> {error, xmpp:err_bad_request(<<"web-push is true or false">>, <<"en">>)}
    end.

with_vapid(WebPush, false) ->
    {WebPush, none};
with_vapid(WebPush, {value, Vapid}) ->
    case {pubsub_device_vapid:is_key(Vapid), mod_pubsub_device:option(push_url)} of
        {false, _} ->
            {error, xmpp:err_bad_request(<<"vapid is a point of P-256, 65 bytes uncompressed, in base64url without "
                                           "padding">>, <<"en">>)};
        {true, <<>>} ->
            {error, xmpp:err_feature_not_implemented(<<"The server cannot check the tokens of application servers: its "
                                                       "operator has to set push_url">>, <<"en">>)};
        {true, _} -> {WebPush, Vapid}
    end.

%% The whole address of the endpoint, if the server's operator says where it is.
url(Key) ->
    case mod_pubsub_device:option(push_url) of
        <<>> -> <<>>;
        Origin -> <<Origin/binary, "/push/", Key/binary>>
    end.

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
