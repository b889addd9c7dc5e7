// SPDX-License-Identifier: GPL-3.0-only
// The fsync() of this test program.
#include "tests/unit/delivery/synced.h"

#include <sys/syscall.h>
#include <unistd.h>

Syncs& syncs() {
    static Syncs recorded;
    return recorded;
}

extern "C" int fsync(int descriptor) {
    std::error_code none;
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const std::filesystem::path& watched = syncs().watched;
    const bool inPlace = std::filesystem::exists(watched, none);
    syncs().all.push_back({std::filesystem::read_symlink(link, none), inPlace,
                           inPlace ? std::filesystem::file_size(watched, none) : 0});
    return static_cast<int>(syscall(SYS_fsync, descriptor));
}
