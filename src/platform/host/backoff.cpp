// SPDX-License-Identifier: GPL-3.0-only
// Durations and their distribution.
#include "platform/host/backoff.h"

#include <algorithm>
#include <charconv>
#include <random>
#include <string_view>

namespace {

constexpr int64_t kShortest = 100;
constexpr int64_t kLongest = 24 * 3'600'000;
constexpr unsigned kMostDoublings = 30;  // more would overflow; the longest delay is reached long before

struct Unit {
    std::string_view name;
    int64_t milliseconds;
};
constexpr Unit kUnits[] = {{.name = "ms", .milliseconds = 1},
                           {.name = "s", .milliseconds = 1'000},
                           {.name = "min", .milliseconds = 60'000},
                           {.name = "h", .milliseconds = 3'600'000}};

bool parseDuration(std::string_view text, int64_t& milliseconds) {
    uint32_t count = 0;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (fault != std::errc())
        return false;
    const std::string_view name(end, static_cast<size_t>(text.data() + text.size() - end));
    for (const Unit& unit : kUnits) {
        if (unit.name == name) {
            milliseconds = count * unit.milliseconds;
            return true;
        }
    }
    return false;
}

}  // namespace

bool parseDelayRange(const std::string& text, DelayRange& range, std::string& wanted) {
    const std::string_view whole = text;
    const size_t blank = whole.find(' ');
    const size_t second = whole.find_first_not_of(' ', blank);
    DelayRange read;
    if (blank == std::string_view::npos || second == std::string_view::npos ||
        !parseDuration(whole.substr(0, blank), read.first) ||
        !parseDuration(whole.substr(second), read.longest))
        wanted = "the first and the longest delay, each a whole number and ms, s, min or h, such as 5s 5min";
    else if (read.first < kShortest || read.longest > kLongest)
        wanted = "two delays from 100ms to 24h";
    else if (read.longest < read.first)
        wanted = "the first delay and then the longest, which is shorter here";
    else
        range = read;
    return wanted.empty();
}

int64_t drawDelay(const DelayRange& range, unsigned failed) {
    const int64_t bound = std::min(range.longest, range.first << std::min(failed, kMostDoublings));
    std::random_device random;
    return std::uniform_int_distribution<int64_t>(0, bound)(random);
}

void Backoff::lost(int64_t now) {
    if (now - m_connectedAt >= m_range.lasting * 1'000)
        m_failed = 0;
}
