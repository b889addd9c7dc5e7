// SPDX-License-Identifier: GPL-3.0-only
// How much one cause may write into the log. Lines without a cause have no bound.
#pragma once

#include <cstdint>

// For one cause: a burst of 1,000 lines, and 50 per second.
class LogBudget {
  public:
    // True when a line may be written now, at `now` microseconds of a monotonic clock; `leftOut` is
    // then the number of lines suppressed before it.
    bool take(int64_t now, unsigned long& leftOut);
    bool isFull(int64_t now) const;

  private:
    int64_t m_usedUntil = 0;  // the time at which all that was written is paid for
    unsigned long m_leftOut = 0;
};

// While it lives, lines are paid for by this budget.
class LogPayer {
  public:
    explicit LogPayer(LogBudget& budget);
    ~LogPayer();
    LogPayer(const LogPayer&) = delete;
    LogPayer& operator=(const LogPayer&) = delete;

    // True while one lives.
    static bool pays();
    // For the log: whether a line may be written now.
    static bool mayWrite(unsigned long& leftOut);

  private:
    LogBudget* m_before;
};
