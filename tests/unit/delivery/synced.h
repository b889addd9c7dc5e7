// SPDX-License-Identifier: GPL-3.0-only
// Records what this test program syncs to disk, and counts its writes: its own fsync() and write() replace
// those of the C library, for GLib too.
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
    int writes = 0;  // to files whose name begins as that of the watched one
    // Forgets what was synced before.
    void watch(const std::filesystem::path& file) {
        watched = file;
        all.clear();
        writes = 0;
    }
};

Syncs& syncs();
