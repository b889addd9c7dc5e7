// SPDX-License-Identifier: GPL-3.0-only
// Waiting for what timers of the default main context bring about.
#pragma once

#include <glib.h>
#include <gtest/gtest.h>

// Lets the loop run, with its timers, until the condition holds; fails the test after ten seconds.
template <class Condition>
void waitFor(Condition condition) {
    bool late = false;
    const auto expire = [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
    };
    // A source of its own: without another one an iteration would never return.
    const guint timer = g_timeout_add_seconds(10, expire, &late);
    while (!condition() && !late)
        g_main_context_iteration(nullptr, TRUE);
    if (!late)
        g_source_remove(timer);
    EXPECT_TRUE(condition());
}
