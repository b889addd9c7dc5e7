// SPDX-License-Identifier: GPL-3.0-only
// The fsync() and write() of this test program.
#include "tests/unit/delivery/synced.h"

#include <sys/syscall.h>
#include <unistd.h>

Syncs& syncs() {
    static Syncs recorded;
    return recorded;
}

namespace {

std::string openedPath(int descriptor) {
    std::error_code none;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), none).string();
}

}  // namespace

extern "C" ssize_t write(int descriptor, const void* bytes, size_t length) {
    const std::string watched = syncs().watched.string();
    if (!watched.empty() && openedPath(descriptor).starts_with(watched))
        ++syncs().writes;
    return syscall(SYS_write, descriptor, bytes, length);
}

extern "C" int fsync(int descriptor) {
    std::error_code none;
    const std::filesystem::path& watched = syncs().watched;
    const bool inPlace = std::filesystem::exists(watched, none);
    syncs().all.push_back(
        {openedPath(descriptor), inPlace, inPlace ? std::filesystem::file_size(watched, none) : 0});
    return static_cast<int>(syscall(SYS_fsync, descriptor));
}
