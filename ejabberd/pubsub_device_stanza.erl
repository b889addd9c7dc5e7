%% SPDX-License-Identifier: GPL-3.0-only
%% Builds and parses the stanzas of the extension. Numbers are added to encoded items: the codec's item record has no
%% field for them.
-module(pubsub_device_stanza).

-export([prepared/1, item/1, numbered/2, item_message/3, stamp/2, has_payload/1, item_of/1]).
-export([key/4, nodes/2, named/1, node_ids/1, activations/1, limit/1, waiting/1, trace/2, published/2, done/2, number/1]).
-export([sign/1, is_signed/1, sending/2, sending/1]).

-include_lib("p1_xmpp/include/xmpp.hrl").
-include("pubsub_device.hrl").

%% The JID of parts that are prepared, since they were taken from one; jid:make/1 would prepare them for each item.
prepared({User, Server, Resource}) ->
    #jid{user = User, server = Server, resource = Resource, luser = User, lserver = Server, lresource = Resource};
prepared(Server) ->
    prepared({<<>>, Server, <<>>}).

%% The encoded item of a notification. The payload is encoded already, as it came.
item(#ps_item{id = Id, publisher = Publisher, sub_els = Payload}) ->
    #xmlel{name = <<"item">>, children = [xmpp:encode(Each) || Each <- Payload],
           attrs = [{<<"id">>, Id} | [{<<"publisher">>, Publisher} || Publisher /= <<>>]]}.

%% The encoded item with its number.
numbered(Item, Number) ->
    #xmlel{attrs = Attributes} = Told = pubsub_device_push:without_topic(Item),
    Told#xmlel{attrs = Attributes ++ [seq_no(Number)]}.

seq_no(Number) ->
    {<<"seqNo">>, integer_to_binary(Number)}.

%% One item for one device.
item_message({Service, NodeId}, To, Item) ->
    Items = #xmlel{name = <<"items">>, attrs = [{<<"node">>, NodeId}], children = [Item]},
    Event = #xmlel{name = <<"event">>, attrs = [{<<"xmlns">>, ?NS_PUBSUB_EVENT}], children = [Items]},
    sign(#message{type = headline, from = prepared(Service), to = To, sub_els = [Event]}).

%% An ordinary notification with the number in its item, otherwise unchanged.
stamp(#message{sub_els = [#ps_event{items = #ps_items{node = NodeId, items = [Item]}} | Rest]} = Message, Number) ->
    Items = #xmlel{name = <<"items">>, attrs = [{<<"node">>, NodeId}], children = [numbered(item(Item), Number)]},
    Event = #xmlel{name = <<"event">>, attrs = [{<<"xmlns">>, ?NS_PUBSUB_EVENT}], children = [Items]},
    sign(Message#message{sub_els = [Event | Rest]}).

item_of(#message{sub_els = [#ps_event{items = #ps_items{items = [Item]}} | _]}) ->
    Item.

%% Whether a client can acknowledge the item: it reads the text of the item's `payload`.
has_payload(#ps_item{sub_els = Elements}) ->
    has_payload(Elements);
has_payload(Elements) ->
    lists:any(fun(#xmlel{name = Name}) -> Name == <<"payload">>; (_) -> false end, Elements).

key(NodeId, Key, URL, Status) ->
    #xmlel{name = <<"key">>, children = [{xmlcdata, Key}],
           attrs = [{<<"xmlns">>, ?NS_DEVICE}, {<<"node">>, NodeId}
                    | [Each || {_, Value} = Each <- [{<<"url">>, URL}, {<<"status">>, Status}], Value /= <<>>]]}.

%% The answer to a bulk request: the nodes that failed, each with the condition.
nodes(Name, Failed) ->
    #xmlel{name = Name, attrs = [{<<"xmlns">>, ?NS_DEVICE}],
           children = [#xmlel{name = <<"node">>,
                              attrs = [{<<"id">>, NodeId}, {<<"error">>, misc:atom_to_binary(Reason)}]}
                       || {NodeId, Reason} <- Failed]}.

%% The names of a bulk request, without empty ones; the second without duplicates.
named(Element) -> [NodeId || {NodeId, _} <- entries(Element)].
node_ids(Element) -> lists:usort(named(Element)).

entries(#xmlel{children = Children}) ->
    [{NodeId, Child} || #xmlel{name = <<"node">>} = Child <- Children,
                        NodeId <- [fxml:get_tag_attr_s(<<"id">>, Child)], NodeId /= <<>>].

%% What a bulk activation asks for each node, named once: [{NodeId, unlimited | {limited, Least} | invalid}]. Where a name
%% is repeated, what restricts more counts.
activations(Element) ->
    Asked = lists:sort([{NodeId, strictness(Limit), Limit} || {NodeId, Child} <- entries(Element), Limit <- [limit(Child)]]),
    [{NodeId, Limit} || {NodeId, _, Limit} <- lists:ukeysort(1, Asked)].

%% How many items of a node may be open: `unlimited`, {limited, Least} for one that is at least so urgent, or `invalid`.
limit(Element) ->
    case {fxml:get_tag_attr(<<"limit">>, Element), fxml:get_tag_attr(<<"urgency">>, Element)} of
        {false, false} -> unlimited;
        {{value, <<"1">>}, false} -> {limited, 1};
        {{value, <<"1">>}, {value, Urgency}} ->
            case pubsub_device_push:level(Urgency) of
                none -> invalid;
                Least -> {limited, Least}
            end;
        _ -> invalid
    end.

%% What restricts more, first.
strictness(invalid) -> -5;
strictness({limited, Least}) -> -Least;
strictness(unlimited) -> 1.

%% The answer to a request for the numbers of waiting items.
waiting(Counts) ->
    #xmlel{name = <<"waiting">>, attrs = [{<<"xmlns">>, ?NS_DEVICE}],
           children = [#xmlel{name = <<"node">>, attrs = [{<<"id">>, NodeId}, {<<"count">>, integer_to_binary(Count)}]}
                       || {NodeId, Count} <- Counts]}.

%% The stations that an item has passed, and the time of this server, in microseconds.
trace(ItemId, Stations) ->
    #xmlel{name = <<"trace">>,
           attrs = [{<<"xmlns">>, ?NS_DEVICE}, {<<"id">>, ItemId},
                    {<<"now">>, integer_to_binary(erlang:system_time(microsecond))}],
           children = [#xmlel{name = <<"station">>,
                              attrs = [{<<"name">>, misc:atom_to_binary(Station)}, {<<"at">>, integer_to_binary(At)}
                                       | [{<<"resource">>, Resource} || Resource /= <<>>]]}
                       || {Station, Resource, At} <- Stations]}.

%% The holder of a key must not learn the node or its owner, so the node is not named.
published(ItemId, Number) ->
    #xmlel{name = <<"item">>, attrs = [{<<"xmlns">>, ?NS_DEVICE}, {<<"id">>, ItemId}, seq_no(Number)]}.

%% The answer to a publication over XEP-0060 (section 7.1.2).
done(NodeId, ItemId) ->
    Item = #xmlel{name = <<"item">>, attrs = [{<<"id">>, ItemId}]},
    #xmlel{name = <<"pubsub">>, attrs = [{<<"xmlns">>, ?NS_PUBSUB}],
           children = [#xmlel{name = <<"publish">>, attrs = [{<<"node">>, NodeId}], children = [Item]}]}.

%% Parses a client's number. Every 64-bit number has at most twenty digits; longer ones are not parsed.
number(<<>>) ->
    {ok, 0};
number(Text) when byte_size(Text) =< 20 ->
    try {ok, lists:foldl(fun(Digit, Sum) when Digit >= $0, Digit =< $9 -> Sum * 10 + Digit - $0 end, 0,
                         binary_to_list(Text))}
    catch error:function_clause -> error
    end;
number(_) ->
    error.

%% A stanza that the extension has handled passes its own filter unchanged.
sign(Stanza) -> xmpp:put_meta(Stanza, ?MODULE, true).
is_signed(Stanza) -> xmpp:get_meta(Stanza, ?MODULE, false).

%% The message with a copy for a session is tagged: {Pid of the session, Node, ItemId, Number}.
sending(Message, Copy) -> xmpp:put_meta(Message, pubsub_device_sending, Copy).
sending(Message) -> xmpp:get_meta(Message, pubsub_device_sending, none).
