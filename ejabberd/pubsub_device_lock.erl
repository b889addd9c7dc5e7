%% SPDX-License-Identifier: GPL-3.0-only
%% The lock of a node's name, held by a session while the engine creates or deletes the node for it. The node's writer
%% grants it to one session after the other, so that a deletion, with everything that belongs to it, and a creation do
%% not interleave. A session makes one request at a time and holds one lock; the lock ends with the session.
-module(pubsub_device_lock).

-export([acquire/1, release/0, with/2]).

-define(LOCK, '$pubsub_device_lock').

%% ok, or {error, Error}.
acquire(Node) ->
    release(),
    case pubsub_device_writer:call(Node, {lock, Node}) of
        {ok, Writer} -> put(?LOCK, {Node, Writer}), ok;
        Error -> pubsub_device_writer:cast(Node, {unlock, Node, self()}), Error
    end.

release() ->
    case erase(?LOCK) of
        {Node, Writer} -> gen_server:cast(Writer, {unlock, Node, self()});
        undefined -> ok
    end.

with(Node, Fun) ->
    case acquire(Node) of
        ok -> try Fun() after release() end;
        Error -> Error
    end.
