// SPDX-License-Identifier: GPL-3.0-only
// The diagnostics log: one line to standard error and one to the system log for every message.
//
// Keeps no state and allocates nothing, so that a line can be written from anywhere. The system log is never
// opened here: its defaults apply. No switch turns the log off.
#include "util/log.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kMessageSize = 512;  // with the terminating zero: longer messages are cut

__attribute__((format(printf, 4, 0))) void write(int priority, const char* function, int line,
                                                 const char* format, va_list arguments) {
    char message[kMessageSize];
    vsnprintf(message, sizeof message, format, arguments);
    message[sizeof message - 1] = '\0';
    fprintf(stderr, "[%s: %d]: %s\n", function, line, message);
    syslog(priority, "[%s: %d]: %s", function, line, message);
}

char* firstNewline(char* buffer, int length) {
    return length < 1 ? nullptr : static_cast<char*>(memchr(buffer, '\n', static_cast<size_t>(length)));
}

}  // namespace

void PrvPrintErr(const char* function, int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write(LOG_ERR, function, line, format, arguments);
    va_end(arguments);
}

void PrvPrintDbg(const char* function, int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write(LOG_INFO, function, line, format, arguments);
    va_end(arguments);
}

void PrintDbgRelease(const char* function, int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write(LOG_INFO, function, line, format, arguments);
    va_end(arguments);
}

void glooxDbg(const char* function, int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write(LOG_ERR, function, line, format, arguments);
    va_end(arguments);
}

void strip_newline(char* buffer, int length) {
    replace_newline(buffer, length, '\0');
}

void replace_newline(char* buffer, int length, char character) {
    if (char* newline = firstNewline(buffer, length))
        *newline = character;
}
