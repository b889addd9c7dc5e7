// SPDX-License-Identifier: GPL-3.0-only
// The C library's read, taken over by the test program that links this file: the standard library's streams
// and our own code read by it.
#include "tests/faults/failingreads.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

struct Fault {
    char prefix[256];
    int error;
    size_t left;  // bytes that are still given
    size_t failures;
};
Fault fault;

bool strikes(int descriptor) {
    if (!fault.error)
        return false;
    char link[64], path[256];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    ssize_t length = readlink(link, path, sizeof path - 1);
    if (length < 0)
        return false;
    path[length] = '\0';
    return std::strncmp(path, fault.prefix, std::strlen(fault.prefix)) == 0;
}

}  // namespace

extern "C" ssize_t read(int descriptor, void* buffer, size_t count) {
    int kept = errno;
    if (strikes(descriptor)) {
        if (!fault.left) {
            fault.failures++;
            errno = fault.error;
            return -1;
        }
        count = std::min(count, fault.left);
        fault.left -= count;
    }
    errno = kept;
    return syscall(SYS_read, descriptor, buffer, count);
}

FailingReads::FailingReads(const std::string& prefix, int error, size_t afterBytes) {
    std::snprintf(fault.prefix, sizeof fault.prefix, "%s", prefix.c_str());
    fault.left = afterBytes;
    fault.failures = 0;
    fault.error = error;
}

FailingReads::~FailingReads() {
    fault.error = 0;
}

size_t FailingReads::failures() const {
    return fault.failures;
}
