// SPDX-License-Identifier: GPL-3.0-only
// The daemon's log: one line on standard error, which the systemd unit sends to the journal.
#pragma once

// printf-style, without a newline.
void logLine(const char* format, ...) __attribute__((format(printf, 1, 2)));
