// SPDX-License-Identifier: GPL-3.0-only
// The diagnostics log: every line goes to standard error and to the system log, cut at 511 characters.
#pragma once

#include <cstdio>

// `function` is the plain name of the calling function, `line` its source line. printf-style.
void PrvPrintErr(const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void PrvPrintDbg(const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void PrintDbgRelease(const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void glooxDbg(const char* function, int line, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Writes the text with its control characters escaped, as the log does; a text of others forges no line.
void printEscaped(FILE* stream, const char* text);

// Ends the text at the first newline within the first `length` bytes of `buffer`.
void strip_newline(char* buffer, int length);
// Writes `character` over the first newline within the first `length` bytes of `buffer`.
void replace_newline(char* buffer, int length, char character);
