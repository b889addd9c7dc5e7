// SPDX-License-Identifier: GPL-3.0-only
// The system log of the tests: the program's own syslog() replaces the C library's and keeps the lines.
// Opening or masking the system log adds a line that no test expects.
#pragma once

#include <string>
#include <vector>

struct SystemLogLine {
    int priority;
    std::string text;
    bool operator==(const SystemLogLine&) const = default;
};

// Every line since the start of the program, or since it was cleared.
std::vector<SystemLogLine>& systemLog();
// While true, no lines are kept and nothing is allocated.
void muteSystemLog(bool mute);
