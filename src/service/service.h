// SPDX-License-Identifier: GPL-3.0-only
// The life of the service from start-up to the end of its main loop.
#pragma once

#include "util/log.h"

// Starts the service and runs it until the main loop ends. Returns the exit status, which is always 0: the
// supervisor restarts the process in any case.
int runService(CallSite entry = {});
