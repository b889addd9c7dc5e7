// SPDX-License-Identifier: GPL-3.0-only
// Counts the data syncs of this process, and lets them fail: the test program's own fsync and fdatasync
// override those of the C library.
#pragma once

struct Syncs {
    int count = 0;
    int failNext = 0;  // so many of the next ones fail with EIO
};

Syncs& syncs();
