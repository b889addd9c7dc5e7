// SPDX-License-Identifier: GPL-3.0-only
// What the manager of the process's unit is told: that it serves, and that its main loop turns. Without such a manager
// nothing is sent. Nothing survives a restart.
#pragma once

#include <glib.h>

// Says that the process serves (READY=1). Where the unit has WatchdogSec=, adds a source to the default main context
// that says WATCHDOG=1 for as long as its loop turns, and returns its id; otherwise 0. A loop that turns anyway is
// not woken; one at rest wakes once in half of WatchdogSec, and never the machine.
guint reportReady();
