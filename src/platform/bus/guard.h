// SPDX-License-Identifier: GPL-3.0-only
// Calls from the bus library, which is C, into the service's functions: no exception may pass through it.
#pragma once

#include <exception>

#include "util/log.h"

// Runs one of the service's functions for the request or reply of `method`. An exception ends only the
// work on that message.
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
