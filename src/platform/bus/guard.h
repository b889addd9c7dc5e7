// SPDX-License-Identifier: GPL-3.0-only
// The border between the service's functions and the bus library, which is C: no exception may cross it.
#pragma once

#include <exception>

#include "util/log.h"

// Runs one of the service's functions for the request or reply of `method`. What it throws ends its work on
// that message alone.
template <typename Function>
void busRunGuarded(const char* method, Function function) noexcept {
    try {
        function();
    } catch (const std::exception& error) {
        PrvPrintErr({}, "Handling %s failed: %s", method, error.what());
    } catch (...) {
        PrvPrintErr({}, "Handling %s failed", method);
    }
}
