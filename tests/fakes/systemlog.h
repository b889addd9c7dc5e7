// SPDX-License-Identifier: GPL-3.0-only
// The system log of the tests: the program's own syslog() stands in for the C library's and keeps what it is
// given. Who opens or masks the system log leaves a line that no test expects.
#pragma once

#include <string>
#include <vector>

struct SystemLogLine {
    int priority;
    std::string text;
    bool operator==(const SystemLogLine&) const = default;
};

// Every line since the start of the program, or since somebody cleared it.
std::vector<SystemLogLine>& systemLog();
// From now on nothing is kept, and nothing allocated for it; `false` ends that.
void muteSystemLog(bool mute);
