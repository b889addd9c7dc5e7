%% SPDX-License-Identifier: GPL-3.0-only
%% The owner of a node's name. A name of three or more segments, /U/R/..., belongs to the account whose local part is
%% U, whether the account exists yet or not; shorter names are free to all, and so are those that the operator opened.
%% Keeps no state.
-module(pubsub_device_names).

-export([refused/3, is_foreign/3, segments/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").

%% The longest name: it leaves room for an item in an event.
-define(MAX_BYTES, 1024).

%% The error if the owner may not use the name for a node of its own, or false. Existing nodes are not checked.
refused(Service, NodeId, Owner) ->
    case is_foreign(Service, NodeId, Owner) of
        true ->
            pubsub_device_metrics:count({refused, foreign}),
            xmpp:err_forbidden(<<"A name of three or more segments, /U/R/..., belongs to the account U of this "
                                 "service's host; take a shorter one or one of your own">>, <<"en">>);
        false when byte_size(NodeId) > ?MAX_BYTES ->
            xmpp:err_not_acceptable(<<"A node's name has at most 1024 bytes">>, <<"en">>);
        false -> false
    end.

%% Whether the name does not belong to the account {User, Server, _}.
is_foreign(Service, NodeId, {User, Server, _}) ->
    case owner_of(NodeId) of
        free -> false;
        User -> Server /= ejabberd_router:host_of_route(Service);
        _ -> true
    end;
is_foreign(_, NodeId, none) ->
    owner_of(NodeId) /= free.

%% The local part that the name belongs to, `free`, or `nobody` when its first segment is not a valid local part.
owner_of(NodeId) ->
    case segments(NodeId) of
        [_, _, _ | _] = Segments ->
            case lists:any(fun(Prefix) -> lists:prefix(opened(Prefix), Segments) end,
                           mod_pubsub_device:option(open_prefixes)) of
                true -> free;
                false -> local_part(Segments)
            end;
        _ -> free
    end.

%% A prefix from the options, in whole segments; a trailing slash adds none.
opened(Prefix) ->
    [Segment || Segment <- segments(Prefix), Segment /= <<>>].

%% Some clients ignore case or a doubled slash, so neither changes the owner.
local_part(Segments) ->
    case [Segment || Segment <- Segments, Segment /= <<>>] of
        [User | _] ->
            case jid:nodeprep(User) of
                error -> nobody;
                <<>> -> nobody;
                LUser -> LUser
            end;
        [] -> nobody
    end.

%% The parts between the slashes; a leading slash begins the first segment, and every other slash begins a further
%% one, even an empty one.
segments(<<"/", Rest/binary>>) -> binary:split(Rest, <<"/">>, [global]);
segments(NodeId) -> binary:split(NodeId, <<"/">>, [global]).
