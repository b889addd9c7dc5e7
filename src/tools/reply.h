// SPDX-License-Identifier: GPL-3.0-only
// The outcome of a call, with the message and the exit code for the user. Keeps no state.
#pragma once

#include <string>

#include "tools/exitcode.h"

struct Reply {
    Exit exit = Exit::NotConnected;
    std::string payload;  // the answer as received; "" when there was none
    std::string problem;  // what was wrong and what to do about it; "" on success
};

// Reads the service's own result: "returnValue", "errorCode" and "errorText".
Reply judgeAnswer(const std::string& payload);
// A bus error instead of an answer. `service` is the bus name that was called.
Reply judgeBusError(const std::string& service, const std::string& errorName, const std::string& payload);
Reply lostBus();
Reply timedOut(const std::string& service, unsigned seconds);
// The bus could not be reached; `reason` is the bus library's.
Reply noBus(const std::string& reason);
