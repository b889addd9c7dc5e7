// SPDX-License-Identifier: GPL-3.0-only
// What the contract of the preferences store needs of an engine besides the QP calls.
#pragma once

#include <memory>

// Starts with an empty store and leaves nothing behind.
class PrefsEngine {
  public:
    virtual ~PrefsEngine() = default;
    // The process ends without freeing its handles, and a new one starts.
    virtual void restart() = 0;
};

std::unique_ptr<PrefsEngine> makePrefsEngine();
