// SPDX-License-Identifier: GPL-3.0-only
// The system log of the tests.
#include "tests/fakes/systemlog.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

namespace {

bool muted = false;

}  // namespace

std::vector<SystemLogLine>& systemLog() {
    static std::vector<SystemLogLine> lines;
    return lines;
}

void muteSystemLog(bool mute) {
    muted = mute;
}

extern "C" void openlog(const char*, int, int) {
    systemLog().push_back({-1, "openlog"});
}

extern "C" int setlogmask(int) {
    systemLog().push_back({-1, "setlogmask"});
    return 0xff;
}

extern "C" void syslog(int priority, const char* format, ...) {
    if (muted)
        return;
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    systemLog().push_back({priority, text});
}
