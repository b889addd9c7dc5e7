// SPDX-License-Identifier: GPL-3.0-only
// The delays between attempts to connect: their texts, their growth, and how evenly they spread many clients.
#include "platform/host/backoff.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace {

constexpr int64_t kSecond = 1'000'000;  // of the boot-time clock
constexpr DelayRange kRange{.first = 5'000, .longest = 300'000};

std::string parse(const std::string& text) {
    DelayRange range{.first = 1, .longest = 2};
    std::string wanted;
    if (parseDelayRange(text, range, wanted))
        return std::to_string(range.first) + " " + std::to_string(range.longest);
    EXPECT_EQ(range, (DelayRange{.first = 1, .longest = 2})) << "a refused text changes nothing";
    return wanted;
}

TEST(DelayRangeText, HasTwoNumbersWithTheirUnits) {
    EXPECT_EQ(parse("5s 5min"), "5000 300000");
    EXPECT_EQ(parse("100ms  24h"), "100 86400000");
    EXPECT_EQ(parse("1min 60s"), "60000 60000");
}

TEST(DelayRangeText, IsRefusedWhenItIsAnythingElse) {
    for (const char* text :
         {"", "5s", "5 5min", "5s 5", "5s 5min 1h", "5s,5min", "5s 5m", "-5s 5min", "+5s 5min", "5.5s 5min",
          "5S 5min", "5 s 5min", " 5s 5min", "5s ", "s min", "5s 5minutes", "4294967296s 5h", "0x5s 5min"})
        EXPECT_EQ(parse(text),
                  "the first and the longest delay, each a whole number and ms, s, min or h, such as 5s 5min")
            << text;
}

TEST(DelayRangeText, IsRefusedOutsideItsBounds) {
    EXPECT_EQ(parse("99ms 5min"), "two delays from 100ms to 24h");
    EXPECT_EQ(parse("0s 5min"), "two delays from 100ms to 24h");
    EXPECT_EQ(parse("5s 1441min"), "two delays from 100ms to 24h");
    EXPECT_EQ(parse("5min 5s"), "the first delay and then the longest, which is shorter here");
}

// The bound of the delays after so many failed attempts, as the largest of many draws.
int64_t largest(unsigned failed) {
    int64_t found = 0;
    for (int draw = 0; draw < 2'000; ++draw) {
        const int64_t delay = drawDelay(kRange, failed);
        EXPECT_GE(delay, 0);
        found = std::max(found, delay);
    }
    return found;
}

TEST(Delay, DoublesWithEachFailedAttemptUpToTheLongest) {
    for (const auto& [failed, bound] : {std::pair{0u, 5'000},
                                       {1u, 10'000},
                                       {2u, 20'000},
                                       {5u, 160'000},
                                       {6u, 300'000},
                                       {7u, 300'000},
                                       {1'000u, 300'000}}) {
        const int64_t found = largest(failed);
        EXPECT_LE(found, bound) << failed;
        // That 2,000 even draws all stay below 95 % of the bound happens once in 10^44 runs.
        EXPECT_GT(found, bound * 0.95) << failed;
    }
}

// 10,000 clients in bins of a hundredth of the time, against the chi-square quantile for one in a million.
TEST(Delay, SpreadsTenThousandClientsEvenly) {
    for (const unsigned failed : {0u, 3u, 20u}) {
        const int64_t bound = std::min<int64_t>(300'000, int64_t{5'000} << std::min(failed, 10u));
        std::array<int, 100> bins{};
        for (int client = 0; client < 10'000; ++client)
            ++bins.at(static_cast<size_t>(drawDelay(kRange, failed) * 100 / (bound + 1)));
        double sum = 0;
        for (const int count : bins)
            sum += (count - 100.0) * (count - 100.0) / 100.0;
        EXPECT_LT(sum, 181.0) << failed;  // 99 degrees of freedom
    }
}

// The bound of the next delay, found as above.
int64_t boundOf(const Backoff& backoff) {
    int64_t found = 0;
    for (int draw = 0; draw < 500; ++draw)
        found = std::max(found, backoff.draw());
    return found;
}

TEST(Backoff, GrowsWithAttemptsAndNotWithDraws) {
    Backoff backoff(kRange);
    EXPECT_LE(boundOf(backoff), 5'000);
    for (int attempt = 0; attempt < 3; ++attempt)
        backoff.attempted();
    EXPECT_GT(boundOf(backoff), 35'000);
}

TEST(Backoff, BeginsAgainAfterAConnectionOfAMinute) {
    Backoff backoff(kRange);
    for (int attempt = 0; attempt < 5; ++attempt)
        backoff.attempted();
    backoff.connected(100 * kSecond);
    backoff.lost(159 * kSecond);
    EXPECT_GT(boundOf(backoff), 100'000) << "a connection that did not last";
    backoff.connected(200 * kSecond);
    backoff.lost(260 * kSecond);
    EXPECT_LE(boundOf(backoff), 5'000);
}

}  // namespace
