// SPDX-License-Identifier: GPL-3.0-only
// Moments that are compared or reported later. Kept on the boot-time clock, which runs on during suspend and
// never jumps.
#pragma once

#include <cstdint>

// Microseconds of the boot-time clock.
int64_t bootTime();
// The same moment in Unix time, in seconds, as the wall clock stands now.
int64_t unixTimeOf(int64_t bootMoment);
