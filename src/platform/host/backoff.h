// SPDX-License-Identifier: GPL-3.0-only
// The delays between attempts to get a connection back. In memory only: a restart begins with the first delay.
#pragma once

#include <cstdint>
#include <string>

// In milliseconds.
struct DelayRange {
    int64_t first = 5'000;
    int64_t longest = 300'000;
    int64_t lasting = 60'000;  // a connection that lasted so long begins the delays again
    bool operator==(const DelayRange&) const = default;
};

// Reads the first and the longest delay, such as "5s 5min"; false with what the text must be.
bool parseDelayRange(const std::string& text, DelayRange& range, std::string& wanted);

// The delay before an attempt that follows `failed` ones, uniformly distributed from 0 to a bound: the first
// delay, doubled for each of them, at most the longest. From 0, because clients that were disconnected at the
// same moment have to come back evenly spread over the whole time.
int64_t drawDelay(const DelayRange& range, unsigned failed);

class Backoff {
  public:
    explicit Backoff(const DelayRange& range) : m_range(range) {}

    int64_t draw() const { return drawDelay(m_range, m_failed); }
    // An attempt is made; it counts as failed until a connection has lasted.
    void attempted() { ++m_failed; }
    // Times are microseconds of the boot-time clock. A connection that is lost before it lasted counts as a
    // failed attempt, so that two devices that end each other's session slow down.
    void connected(int64_t now) { m_connectedAt = now; }
    void lost(int64_t now);

  private:
    DelayRange m_range;
    unsigned m_failed = 0;
    int64_t m_connectedAt = 0;
};
