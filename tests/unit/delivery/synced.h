// SPDX-License-Identifier: GPL-3.0-only
// What this test program synced to the disk: its own fsync stands before the C library's, for GLib too.
#pragma once

#include <filesystem>
#include <vector>

struct Synced {
    std::filesystem::path path;
    // Of Syncs::watched by then: whether it stood there, and its size.
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
