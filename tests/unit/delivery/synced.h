// SPDX-License-Identifier: GPL-3.0-only
// Records what this test program syncs to disk: its own fsync() replaces the C library's, for GLib too.
#pragma once

#include <filesystem>
#include <vector>

struct Synced {
    std::filesystem::path path;
    // At that time: whether Syncs::watched existed, and its size.
    bool inPlace;
    std::uintmax_t size;
};

struct Syncs {
    std::filesystem::path watched;
    std::vector<Synced> all;
    // Forgets what was synced before.
    void watch(const std::filesystem::path& file) {
        watched = file;
        all.clear();
    }
};

Syncs& syncs();
