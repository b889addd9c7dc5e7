%% SPDX-License-Identifier: GPL-3.0-only
%% Whose a node's name is. A name of three or more segments, /U/R/..., belongs to the account whose local part is
%% U, whether the account exists yet or not; shorter ones are free to all, and so is what the operator opened.
%% Keeps no state.
-module(pubsub_device_names).

-export([refused/3, is_foreign/3, segments/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").

%% The longest name: an event that carries it has room for an item.
-define(MAX_BYTES, 1024).

%% Why the owner may not use the name for a node of its own, or false. What exists already is not asked about.
refused(Service, NodeId, Owner) ->
    case is_foreign(Service, NodeId, Owner) of
        true -> xmpp:err_forbidden(<<"A name of three or more segments, /U/R/..., belongs to the account U of this "
                                     "service's host; take a shorter one or one of your own">>, <<"en">>);
        false when byte_size(NodeId) > ?MAX_BYTES ->
            xmpp:err_not_acceptable(<<"A node's name has at most 1024 bytes">>, <<"en">>);
        false -> false
    end.

%% Whether the name belongs to somebody else than the account {User, Server, _}.
is_foreign(Service, NodeId, {User, Server, _}) ->
    case owner_of(NodeId) of
        free -> false;
        User -> Server /= ejabberd_router:host_of_route(Service);
        _ -> true
    end;
is_foreign(_, NodeId, none) ->
    owner_of(NodeId) /= free.

%% The local part that the name belongs to, `free`, or `nobody` when its first segment is no local part.
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

%% A prefix of the operator's, whole segments; a slash at its end adds none.
opened(Prefix) ->
    [Segment || Segment <- segments(Prefix), Segment /= <<>>].

%% A client takes neither case nor a doubled slash for a difference everywhere, so neither makes another owner.
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

%% What stands between the slashes; one in front opens the first segment, and every other makes one, even when it
%% is empty.
segments(<<"/", Rest/binary>>) -> binary:split(Rest, <<"/">>, [global]);
segments(NodeId) -> binary:split(NodeId, <<"/">>, [global]).
