// SPDX-License-Identifier: GPL-3.0-only
// JSON texts on the wire: which code points a D-Bus string bears, and the escapes of those that it does not.
#pragma once

#include <string>

#include "platform/bus/qs.h"

// The longest payload that is sent. Every bus daemon takes it; one that is too long for the daemon would cost
// the connection.
inline constexpr size_t kLongestPayload = 16 * 1024 * 1024;

// The form of `text` that goes on the wire: `text` itself, or `storage` when some code points had to be
// written as \u escapes. Null, with the reason in `error`, for a null text, one that is not UTF-8 and one
// that is too long.
const char* busWireText(const char* text, std::string& storage, QSError* error);

// True when the payload is a JSON object whose "subscribe" is true.
bool busAsksToSubscribe(const char* payload);
