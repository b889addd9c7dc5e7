// SPDX-License-Identifier: GPL-3.0-only
// JSON texts on the wire: characters that D-Bus strings cannot carry are written as escapes.
#pragma once

#include <string>

#include "platform/bus/qs.h"

// The longest payload that is sent. Every bus daemon accepts it; a daemon closes the connection of a client
// that sends a longer one.
inline constexpr size_t kLongestPayload = 16 * 1024 * 1024;

// The form of `text` that is sent: `text` itself, or `storage` when some code points had to be written as \u
// escapes. Null, with the reason in `error`, for a null text, one that is not UTF-8 and one that is too long.
const char* busWireText(const char* text, std::string& storage, QSError* error);

// True when the payload is a JSON object whose "subscribe" is true.
bool busAsksToSubscribe(const char* payload);
