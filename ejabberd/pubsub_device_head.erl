%% SPDX-License-Identifier: GPL-3.0-only
%% The head of an HTTP request (RFC 9112): finds its end in the bytes received so far and parses what the listener
%% needs. A head that two parsers could read differently (two lengths, a length and a transfer coding, a folded line,
%% a line without carriage return) is refused, since a proxy in front might see another request in it. Keeps no state.
-module(pubsub_device_head).

-export([take/2]).

-define(MAX_HEAD, 16384).
-define(MAX_DIGITS, 15).

%% Takes a head from the front of Buffer, of which Seen bytes were examined before: {ok, Head, Rest}, {more, Buffer,
%% Seen}, or {refused, Status, Text}, after which it is unknown where the next request begins.
take(<<"\r\n", Rest/binary>>, _) ->
    take(Rest, 0);
take(<<>>, _) ->
    {more, <<>>, 0};
take(<<"\r">>, _) ->
    {more, <<"\r">>, 0};
take(Buffer, Seen) ->
    From = max(0, Seen - 3),
    case binary:match(Buffer, <<"\r\n\r\n">>, [{scope, {From, byte_size(Buffer) - From}}]) of
        {End, 4} when End =< ?MAX_HEAD ->
            <<Head:End/binary, _:4/binary, Rest/binary>> = Buffer,
            try parse(binary:split(Head, <<"\r\n">>, [global])) of
                Parsed -> {ok, Parsed, Rest}
            catch
                throw:{refused, _, _} = Refusal -> Refusal
            end;
        nomatch when byte_size(Buffer) =< ?MAX_HEAD -> unfinished(Buffer, Seen);
        _ ->
            Text = io_lib:format("The head of the request has more than ~b bytes", [?MAX_HEAD]),
            {refused, 431, iolist_to_binary(Text)}
    end.

%% A client that does not speak HTTP may never send the end of a head, so it is refused at once.
unfinished(Buffer, Seen) ->
    case is_token(binary:part(Buffer, 0, 1)) andalso not has_bare_line(Buffer, Seen) of
        true -> {more, Buffer, byte_size(Buffer)};
        false -> {refused, 400, <<"This is no HTTP">>}
    end.

has_bare_line(Buffer, From) ->
    case binary:match(Buffer, <<"\n">>, [{scope, {From, byte_size(Buffer) - From}}]) of
        nomatch -> false;
        {0, 1} -> true;
        {At, 1} -> binary:at(Buffer, At - 1) /= $\r orelse has_bare_line(Buffer, At + 1)
    end.

parse([First | Fields]) ->
    Head = lists:foldl(fun field/2, request_line(binary:split(First, <<" ">>, [global])), Fields),
    framed(Head).

request_line([Method, Target, <<"HTTP/", Version/binary>>]) when Target /= <<>> ->
    is_token(Method) andalso is_visible(Target) orelse refuse(400, <<"This is no HTTP">>),
    #{method => method(Method), target => Target, version => version(Version), hosts => 0, length => none,
      coded => false, connection => [], expects => false, fields => []};
request_line(_) ->
    refuse(400, <<"This is no HTTP">>).

method(<<"GET">>) -> 'GET';
method(<<"HEAD">>) -> 'HEAD';
method(<<"POST">>) -> 'POST';
method(Other) -> Other.

version(<<"1.1">>) -> {1, 1};
version(<<"1.0">>) -> {1, 0};
version(<<Major, $., Minor>>) when Major >= $0, Major =< $9, Minor >= $0, Minor =< $9 ->
    refuse(505, <<"This server speaks HTTP/1.1">>);
version(_) -> refuse(400, <<"This is no HTTP">>).

%% A continuation line begins with a blank, which no field name contains.
field(Line, Head) ->
    case binary:split(Line, <<":">>) of
        [Name, Value] ->
            is_token(Name) andalso is_text(Value) orelse refuse(400, <<"A header field is malformed">>),
            field(string:lowercase(Name), trim(Value), Head);
        _ -> refuse(400, <<"A header field is malformed">>)
    end.

field(<<"content-length">>, Value, #{length := none} = Head) -> Head#{length := number(Value)};
field(<<"content-length">>, _, _) -> refuse(400, <<"The request has more than one Content-Length">>);
field(<<"transfer-encoding">>, _, Head) -> Head#{coded := true};
field(<<"host">>, _, #{hosts := Hosts} = Head) -> Head#{hosts := Hosts + 1};
field(<<"connection">>, Value, #{connection := Words} = Head) -> Head#{connection := words(Value) ++ Words};
field(<<"expect">>, Value, Head) -> Head#{expects := string:lowercase(Value) == <<"100-continue">>};
field(Name, Value, #{fields := Fields} = Head)
  when Name == <<"ttl">>; Name == <<"topic">>; Name == <<"trace">>; Name == <<"urgency">>; Name == <<"authorization">> ->
    Head#{fields := [{Name, Value} | Fields]};
field(_, _, Head) -> Head.

number(Value) ->
    byte_size(Value) > 0 andalso byte_size(Value) =< ?MAX_DIGITS
        andalso lists:all(fun(Char) -> Char >= $0 andalso Char =< $9 end, binary_to_list(Value))
        orelse refuse(400, <<"The Content-Length is no number of bytes">>),
    binary_to_integer(Value).

words(Value) ->
    [string:lowercase(trim(Word)) || Word <- binary:split(Value, <<",">>, [global])].

%% The result for the listener: where the body ends, and whether another request may follow it.
framed(#{coded := true, length := none}) ->
    refuse(411, <<"Send the body with its Content-Length, without a transfer coding">>);
framed(#{coded := true}) ->
    refuse(400, <<"The request has a Content-Length and a transfer coding">>);
framed(#{hosts := Hosts, version := Version}) when Hosts > 1; Hosts == 0, Version == {1, 1} ->
    refuse(400, <<"A request has one Host">>);
framed(#{method := Method, target := Target, version := Version, length := Length, connection := Words} = Head) ->
    Keep = not lists:member(<<"close">>, Words)
        andalso (Version == {1, 1} orelse lists:member(<<"keep-alive">>, Words)),
    #{method => Method, target => Target, version => Version, keep => Keep, fields => maps:get(fields, Head),
      length => case Length of none -> 0; _ -> Length end,
      expects => maps:get(expects, Head) andalso Version == {1, 1}}.

refuse(Status, Text) ->
    throw({refused, Status, Text}).

trim(<<Blank, Rest/binary>>) when Blank == $\s; Blank == $\t ->
    trim(Rest);
trim(Value) when Value /= <<>> ->
    case binary:last(Value) of
        Blank when Blank == $\s; Blank == $\t -> trim(binary:part(Value, 0, byte_size(Value) - 1));
        _ -> Value
    end;
trim(<<>>) ->
    <<>>.

is_token(<<>>) -> false;
is_token(Name) -> lists:all(fun is_token_char/1, binary_to_list(Name)).

is_token_char(Char) when Char >= $a, Char =< $z; Char >= $A, Char =< $Z; Char >= $0, Char =< $9 -> true;
is_token_char(Char) -> lists:member(Char, "!#$%&'*+-.^_`|~").

is_visible(Target) ->
    lists:all(fun(Char) -> Char > 16#20 andalso Char < 16#7f end, binary_to_list(Target)).

is_text(Value) ->
    lists:all(fun(Char) -> Char >= 16#20 andalso Char /= 16#7f orelse Char == $\t end, binary_to_list(Value)).
