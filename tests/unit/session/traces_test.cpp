// SPDX-License-Identifier: GPL-3.0-only
// Traces: what is recorded of which items, and its bounds.
#include "session/traces.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;

std::vector<std::string> names(const Traces& traces, const std::string& itemId) {
    std::vector<std::string> all;
    for (const Traces::Station& each : traces.of(itemId))
        all.push_back(each.name + (each.to.empty() ? "" : "/" + each.to));
    return all;
}

TEST(Traces, RecordTheStationsOfMarkedItemsInTheirOrder) {
    Traces traces;
    traces.append("trace-1", "received");
    traces.append("trace-2", "received");
    traces.append("trace-1", "handed on", "cache");
    EXPECT_THAT(names(traces, "trace-1"), ElementsAre("received", "handed on/cache"));
    EXPECT_THAT(names(traces, "trace-2"), ElementsAre("received"));
    EXPECT_GT(traces.of("trace-1").front().at, 1'000'000'000'000'000);  // in 2001
    EXPECT_LE(traces.of("trace-1")[0].at, traces.of("trace-1")[1].at);
}

TEST(Traces, RecordNothingOfOtherItemsAndOfLongIds) {
    Traces traces;
    const std::string longest = "trace-" + std::string(74, 'a');
    for (const std::string& id : {std::string("i1"), std::string("Trace-1"), std::string(), longest + "a"}) {
        traces.append(id, "received");
        EXPECT_THAT(names(traces, id), ElementsAre()) << id;
    }
    traces.append(longest, "received");
    EXPECT_THAT(names(traces, longest), ElementsAre("received"));
}

TEST(Traces, KeepTheNewestItems) {
    Traces traces;
    for (std::size_t i = 0; i <= Traces::kItems; ++i)
        traces.append("trace-" + std::to_string(i), "received");
    EXPECT_THAT(names(traces, "trace-0"), ElementsAre());
    EXPECT_THAT(names(traces, "trace-1"), ElementsAre("received"));
}

TEST(Traces, KeepTheFirstStationsOfAnItem) {
    Traces traces;
    traces.append("trace-1", "received");
    for (std::size_t i = 0; i < Traces::kStations; ++i)
        traces.append("trace-1", "known already");
    EXPECT_EQ(traces.of("trace-1").size(), Traces::kStations);
    EXPECT_EQ(traces.of("trace-1").front().name, "received");
}

TEST(Traces, RememberOnceWhenTheServerWasAsked) {
    Traces traces;
    traces.setAsked("1");
    EXPECT_FALSE(traces.takeAsked("2"));
    EXPECT_GT(traces.takeAsked("1").value_or(0), 1'000'000'000'000'000);
    EXPECT_FALSE(traces.takeAsked("1"));
    for (std::size_t i = 0; i <= Traces::kItems; ++i)
        traces.setAsked(std::to_string(i));
    EXPECT_FALSE(traces.takeAsked("0"));
    EXPECT_TRUE(traces.takeAsked("1"));
}

TEST(Traces, TakeMarksOfTheBase64UrlAlphabet) {
    EXPECT_TRUE(Traces::isMark("azAZ09-_azAZ09-_"));
    EXPECT_TRUE(Traces::isMark(std::string(32, 'a')));
    for (const std::string& mark :
         {std::string(15, 'a'), std::string(33, 'a'), std::string(16, '+'), std::string(16, '/'),
          std::string(16, '='), std::string("aaaaaaaaaaaaaa\xc3\xa4")})
        EXPECT_FALSE(Traces::isMark(mark)) << mark;
}

}  // namespace
