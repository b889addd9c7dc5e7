// SPDX-License-Identifier: GPL-3.0-only
// Counts the data syncs of this process, and lets them fail.
#include "tests/unit/prefs/syscalls.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

Syncs& syncs() {
    static Syncs counted;
    return counted;
}

namespace {

int sync(long call, int descriptor) {
    ++syncs().count;
    if (syncs().failNext > 0) {
        --syncs().failNext;
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(call, descriptor));
}

}  // namespace

extern "C" int fsync(int descriptor) {
    return sync(SYS_fsync, descriptor);
}

extern "C" int fdatasync(int descriptor) {
    return sync(SYS_fdatasync, descriptor);
}
