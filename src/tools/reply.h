// SPDX-License-Identifier: GPL-3.0-only
// What came of a call, and the words and exit code that a person gets for it. Keeps no state.
#pragma once

#include <string>

#include "tools/exitcode.h"

struct Reply {
    Exit exit = Exit::NotConnected;
    std::string payload;  // the answer as it came; "" when there was none
    std::string problem;  // what was wrong and what to do; "" when nothing was
};

// Reads the service's own verdict: "returnValue", "errorCode" and "errorText".
Reply judgeAnswer(const std::string& payload);
// A bus error in place of an answer. `service` is the bus name that was called. A method that gives no answer
// at all (an alarm target) has done its work: that is no failure.
Reply judgeBusError(const std::string& service, const std::string& errorName, const std::string& payload);
Reply lostBus();
Reply timedOut(const std::string& service, unsigned seconds);
// The bus itself could not be reached; `words` are the bus library's.
Reply noBus(const std::string& words);
