// SPDX-License-Identifier: GPL-3.0-only
// The diagnostics log: every line goes to standard error and to the system log, cut at 511 characters.
#pragma once

#include <cstdio>

// Where a log line comes from: the plain name of a function and a line in it. `{}` at a call is the place of
// that call. A helper that logs for its caller takes `CallSite site = {}` and passes it on, so that its lines
// carry the name of the operation.
struct CallSite {
    // Not explicit: `{}` stands for it at a call.
    constexpr CallSite(const char* callingFunction = __builtin_FUNCTION(), int callingLine = __builtin_LINE())
        : function(callingFunction), line(callingLine) {}

    const char* function;
    int line;
};

// printf-style.
void PrvPrintErr(CallSite site, const char* format, ...) __attribute__((format(printf, 2, 3)));
void PrvPrintDbg(CallSite site, const char* format, ...) __attribute__((format(printf, 2, 3)));
void PrintDbgRelease(CallSite site, const char* format, ...) __attribute__((format(printf, 2, 3)));
void glooxDbg(CallSite site, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Takes the place of syslog(), with the syslog priority; false when it could not take the line, which goes to
// syslog() then. Null for syslog() alone, as at the start.
using LogSink = bool (*)(int priority, CallSite site, const char* line);
void setLogSink(LogSink sink);

// Writes the text with its control characters escaped, as the log does, so that foreign text
// cannot forge lines.
void printEscaped(FILE* stream, const char* text);

// Ends the text at the first newline within the first `length` bytes of `buffer`.
void strip_newline(char* buffer, int length);
// Writes `character` over the first newline within the first `length` bytes of `buffer`.
void replace_newline(char* buffer, int length, char character);
