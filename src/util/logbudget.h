// SPDX-License-Identifier: GPL-3.0-only
// How much one cause may write into the log. Lines that are written while nobody is named as their cause have
// no bound.
#pragma once

#include <cstdint>

// Of one cause: 1,000 lines at once, and 50 a second.
class LogBudget {
  public:
    // True when a line may be written now, at `now` microseconds of a clock that never goes back; `leftOut`
    // then says how many lines before it were not.
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
