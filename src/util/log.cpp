// SPDX-License-Identifier: GPL-3.0-only
// The diagnostics log: one line to standard error and one to the system log for every message.
//
// Keeps who takes the place of syslog(), and allocates nothing itself. Control characters that
// came with an argument are escaped; those of a format are ours. The system log is never opened here: its
// defaults apply. No switch turns the log off; what one cause may write is bounded (logbudget.h).
#include "util/log.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "util/logbudget.h"

namespace {

constexpr int kMessageSize = 512;  // with the terminating zero: longer messages are cut
constexpr int kFormatSize = 1024;  // longer than every format in use
LogSink systemLog = nullptr;
constexpr char kMark = '\xff';

bool isControl(char character) {
    return static_cast<unsigned char>(character) < 0x20 || character == '\x7f';
}

// Writes the escape of the control character at `text` and returns its length in `text`, 0 when it is none.
// Terminals also obey those of U+0080 to U+009F.
int escape(const char* text, char (&escaped)[12]) {
    const auto byte = [text](int at) { return static_cast<unsigned char>(text[at]); };
    if (byte(0) == 0xc2 && byte(1) >= 0x80 && byte(1) < 0xa0) {
        snprintf(escaped, sizeof escaped, "\\xc2\\x%02x", byte(1));
        return 2;
    }
    if (!isControl(text[0]))
        return 0;
    static constexpr char kNamed[] = "\n\r\t", kNames[] = "nrt";
    if (const char* named = strchr(kNamed, text[0]))
        snprintf(escaped, sizeof escaped, "\\%c", kNames[named - kNamed]);
    else
        snprintf(escaped, sizeof escaped, "\\x%02x", byte(0));
    return 1;
}

// Where `marked`, written with marks for the control characters of the format, differs from `message`, they
// are ours and stay; all others came with an argument and would forge lines.
void escapeForeign(const char* message, const char* marked, char (&out)[kMessageSize]) {
    int length = 0;
    char escaped[12];
    while (*message) {
        const int taken = *message == *marked ? escape(message, escaped) : 0;
        const int size = taken ? static_cast<int>(strlen(escaped)) : 1;
        if (length + size >= kMessageSize)
            break;
        memcpy(out + length, taken ? escaped : message, static_cast<size_t>(size));
        length += size;
        message += taken ? taken : 1;
        marked += taken ? taken : 1;
    }
    out[length] = '\0';
}

// False when the format has no control characters.
bool markFormat(const char* format, char (&marked)[kFormatSize]) {
    bool found = false;
    size_t length = 0;
    for (; format[length] && length + 1 < sizeof marked; ++length) {
        const bool control = isControl(format[length]);
        marked[length] = control ? kMark : format[length];
        found = found || control;
    }
    marked[length] = '\0';
    return found && !format[length];
}

void writeLine(int priority, CallSite site, const char* text) {
    char line[2 * kMessageSize];
    snprintf(line, sizeof line, "[%s: %d]: %s", site.function, site.line, text);
    fprintf(stderr, "%s\n", line);
    if (!systemLog || !systemLog(priority, site, line))
        syslog(priority, "%s", line);
}

__attribute__((format(printf, 3, 0))) void write(int priority, CallSite site, const char* format,
                                                 va_list arguments) {
    unsigned long leftOut = 0;
    if (!LogPayer::mayWrite(leftOut))
        return;
    if (leftOut) {
        char text[64];
        snprintf(text, sizeof text, "%lu lines of the same cause were left out", leftOut);
        writeLine(priority, {}, text);
    }
    char message[kMessageSize], marked[kMessageSize], escaped[kMessageSize], markedFormat[kFormatSize];
    va_list again;
    va_copy(again, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): every caller has started the list
    vsnprintf(message, sizeof message, format, arguments);
    const bool hasOwn = markFormat(format, markedFormat);
    if (hasOwn) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        vsnprintf(marked, sizeof marked, markedFormat, again);
#pragma GCC diagnostic pop
    }
    va_end(again);
    escapeForeign(message, hasOwn ? marked : message, escaped);
    writeLine(priority, site, escaped);
}

char* firstNewline(char* buffer, int length) {
    return length < 1 ? nullptr : static_cast<char*>(memchr(buffer, '\n', static_cast<size_t>(length)));
}

}  // namespace

void PrvPrintErr(CallSite site, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write(LOG_ERR, site, format, arguments);
    va_end(arguments);
}

void PrvPrintDbg(CallSite site, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write(LOG_INFO, site, format, arguments);
    va_end(arguments);
}

void PrintDbgRelease(CallSite site, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write(LOG_INFO, site, format, arguments);
    va_end(arguments);
}

void glooxDbg(CallSite site, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write(LOG_ERR, site, format, arguments);
    va_end(arguments);
}

void setLogSink(LogSink sink) {
    systemLog = sink;
}

void printEscaped(FILE* stream, const char* text) {
    char escaped[12];
    while (*text) {
        const int taken = escape(text, escaped);
        if (taken)
            fputs(escaped, stream);
        else
            fputc(*text, stream);
        text += taken ? taken : 1;
    }
}

void strip_newline(char* buffer, int length) {
    replace_newline(buffer, length, '\0');
}

void replace_newline(char* buffer, int length, char character) {
    if (char* newline = firstNewline(buffer, length))
        *newline = character;
}
