// SPDX-License-Identifier: GPL-3.0-only
// Two clocks of the kernel; neither needs a system call.
#include "util/clock.h"

#include <ctime>

namespace {

constexpr int64_t kMicroseconds = 1'000'000;

int64_t read(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return now.tv_sec * kMicroseconds + now.tv_nsec / 1'000;
}

}  // namespace

int64_t bootTime() {
    return read(CLOCK_BOOTTIME);
}

int64_t unixTimeOf(int64_t bootMoment) {
    return (read(CLOCK_REALTIME) - (bootTime() - bootMoment)) / kMicroseconds;
}
