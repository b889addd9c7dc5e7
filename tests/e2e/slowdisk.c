// SPDX-License-Identifier: GPL-3.0-only
// Preloaded into the service: each sync takes 10 ms longer, or DELAY_US, as on the flash of a small device.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <time.h>

#ifndef DELAY_US
#define DELAY_US 10000
#endif

static int slowly(const char *name, int descriptor) {
    const struct timespec delay = {0, DELAY_US * 1000L};
    nanosleep(&delay, 0);
    return ((int (*)(int))dlsym(RTLD_NEXT, name))(descriptor);
}

int fsync(int descriptor) {
    return slowly("fsync", descriptor);
}

int fdatasync(int descriptor) {
    return slowly("fdatasync", descriptor);
}
