// SPDX-License-Identifier: GPL-3.0-only
// Budgets of the log. The one that pays now is kept for the process, which writes from one thread.
#include "util/logbudget.h"

#include <time.h>

#include <algorithm>

namespace {

constexpr int64_t kLine = 20 * 1000;  // microseconds that pay for one
constexpr int64_t kMost = 1000 * kLine;

LogBudget* payer = nullptr;

int64_t microseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

}  // namespace

bool LogBudget::take(int64_t now, unsigned long& leftOut) {
    const int64_t used = std::max(m_usedUntil, now) + kLine;
    if (used > now + kMost) {
        m_leftOut++;
        return false;
    }
    m_usedUntil = used;
    leftOut = m_leftOut;
    m_leftOut = 0;
    return true;
}

bool LogBudget::isFull(int64_t now) const {
    return m_usedUntil <= now;
}

LogPayer::LogPayer(LogBudget& budget) : m_before(payer) {
    payer = &budget;
}

LogPayer::~LogPayer() {
    payer = m_before;
}

bool LogPayer::pays() {
    return payer != nullptr;
}

bool LogPayer::mayWrite(unsigned long& leftOut) {
    leftOut = 0;
    return !payer || payer->take(microseconds(), leftOut);
}
