// SPDX-License-Identifier: GPL-3.0-only
// The daemon's log. Keeps no state.
#include "platform/host/log.h"

#include <cstdarg>
#include <cstdio>

void logLine(const char* format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    fprintf(stderr, "zelt-host: %s\n", line);
}
