// SPDX-License-Identifier: GPL-3.0-only
// The system log of the tests.
#include "tests/fakes/systemlog.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

std::vector<SystemLogLine>& systemLog() {
    static std::vector<SystemLogLine> lines;
    return lines;
}

extern "C" void syslog(int priority, const char* format, ...) {
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    systemLog().push_back({priority, text});
}
