%% SPDX-License-Identifier: GPL-3.0-only
%% The metrics as samples, and as text in the exposition format of Prometheus, version 0.0.4. Keeps no state.
-module(pubsub_device_exposition).

-export([samples/0, text/0, escaped/1]).

-include("pubsub_device_metrics.hrl").

-define(PREFIX, "pubsub_device_").

%% {Family, [{Name, [{Label, Value}], Number}]} for each metric; names, labels and numbers are texts.
samples() ->
    Gauges = maps:from_list(pubsub_device_gauges:values()),
    [{Family, samples(Family, Gauges)} || Family <- pubsub_device_metrics:families()].

samples(#family{kind = histogram, key = Key} = Family, _) ->
    {Counts, Sum} = pubsub_device_metrics:histogram(Key),
    Cumulative = tl(lists:reverse(lists:foldl(fun(Count, [Last | _] = Sums) -> [Last + Count | Sums] end, [0], Counts))),
    Bounds = [seconds(Bound) || Bound <- pubsub_device_metrics:bounds()] ++ ["+Inf"],
    [{name(Family, "_bucket"), [{"le", Bound}], integer_to_list(Count)}
     || {Bound, Count} <- lists:zip(Bounds, Cumulative)]
        ++ [{name(Family, "_sum"), [], seconds(Sum)}, {name(Family, "_count"), [], integer_to_list(lists:last(Cumulative))}];
samples(#family{kind = gauge, key = Key, values = []} = Family, Gauges) ->
    [{name(Family, ""), [], integer_to_list(Number)} || {ok, Number} <- [maps:find(Key, Gauges)]];
samples(#family{kind = gauge, key = Key, label = Label, values = Values} = Family, Gauges) ->
    [{name(Family, ""), [{Label, text(Value)}], integer_to_list(maps:get({Key, Value}, Gauges, 0))} || Value <- Values];
samples(#family{key = Key, values = []} = Family, _) ->
    [{name(Family, ""), [], integer_to_list(pubsub_device_metrics:value(Key))}];
samples(#family{key = Key, label = Label, values = Values} = Family, _) ->
    [{name(Family, ""), [{Label, text(Value)}], integer_to_list(pubsub_device_metrics:value({Key, Value}))}
     || Value <- Values].

name(#family{name = Name}, Suffix) -> ?PREFIX ++ Name ++ Suffix.

text(Value) when is_atom(Value) -> atom_to_list(Value);
text(Value) -> integer_to_list(Value).

%% Exact, without trailing zeros: a bound is a label, which has to be the same in every version.
seconds(Microseconds) ->
    Text = lists:flatten(io_lib:format("~b.~6..0b", [Microseconds div 1000000, Microseconds rem 1000000])),
    string:trim(string:trim(Text, trailing, "0"), trailing, ".").

text() ->
    [[["# HELP ", name(Family, ""), $\s, escaped_help(Family#family.help), $\n,
       "# TYPE ", name(Family, ""), $\s, type(Family#family.kind), $\n],
      [[Name, labels(Labels), $\s, Number, $\n] || {Name, Labels, Number} <- Samples]]
     || {Family, Samples} <- samples()].

type(level) -> "gauge";
type(Kind) -> atom_to_list(Kind).

labels([]) -> "";
labels(Labels) -> [${, lists:join($,, [[Label, "=\"", escaped(Value), $"] || {Label, Value} <- Labels]), $}].

escaped(Value) -> lists:flatmap(fun($") -> "\\\""; (Char) -> escaped_help([Char]) end, Value).

escaped_help(Text) ->
    lists:flatmap(fun($\\) -> "\\\\"; ($\n) -> "\\n"; (Char) -> [Char] end, Text).
