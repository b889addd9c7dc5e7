// SPDX-License-Identifier: GPL-3.0-only
// The delay before a reconnect attempt, drawn so that many devices do not come back at once.
#pragma once

#include <cstdint>

// Seconds, uniformly distributed from `min` to `max` - 1. Reseeds the standard generator at each call.
int32_t generateRandomDelay(int32_t min, int32_t max);
