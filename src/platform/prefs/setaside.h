// SPDX-License-Identifier: GPL-3.0-only
// Moving a damaged database out of the way without losing it or an earlier one.
#pragma once

#include <string>

// Renames FILE to FILE.damaged-N with the first free N, its write-ahead log to FILE.damaged-N-wal. Gives the
// new name, or "" when the file cannot be moved; both outcomes are logged.
std::string setDamagedFileAside(const std::string& appId, const std::string& file);
