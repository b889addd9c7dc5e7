%% SPDX-License-Identifier: GPL-3.0-only
%% A module of the tests' own for the server: writes the node of every item that leaves for a client, one a line, to a
%% file. The lines are the count of what really went over the wire, repetitions included.
-module(mod_item_count).

-export([start/2, stop/1, depends/2, mod_opt_type/1, mod_options/1, mod_doc/0, leaves/1]).

start(Host, Options) ->
    persistent_term:put(?MODULE, gen_mod:get_opt(file, Options)),
    ejabberd_hooks:add(user_receive_packet, Host, ?MODULE, leaves, 99).

stop(Host) ->
    ejabberd_hooks:delete(user_receive_packet, Host, ?MODULE, leaves, 99).

leaves({Packet, _} = Passed) ->
    Path = [{elem, <<"event">>}, {elem, <<"items">>}, {attr, <<"node">>}],
    case fxml:get_path_s(xmpp:encode(Packet), Path) of
        <<>> -> ok;
        Node -> ok = file:write_file(persistent_term:get(?MODULE), [Node, $\n], [append])
    end,
    Passed.

depends(_, _) -> [].

mod_opt_type(file) -> econf:binary().

mod_options(_) -> [file].

mod_doc() -> #{}.
