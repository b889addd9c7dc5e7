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

char watchedPath[256];
std::function<void()>* afterRead;

bool isBelow(int descriptor, const char* prefix) {
    char link[64], path[256];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    ssize_t length = readlink(link, path, sizeof path - 1);
    if (length < 0)
        return false;
    path[length] = '\0';
    return std::strncmp(path, prefix, std::strlen(prefix)) == 0;
}

bool strikes(int descriptor) {
    return fault.error && isBelow(descriptor, fault.prefix);
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
    ssize_t got = syscall(SYS_read, descriptor, buffer, count);
    if (got > 0 && afterRead && isBelow(descriptor, watchedPath)) {
        std::function<void()>* then = afterRead;
        afterRead = nullptr;
        (*then)();
        delete then;
    }
    return got;
}

AfterRead::AfterRead(const std::string& path, std::function<void()> then) {
    std::snprintf(watchedPath, sizeof watchedPath, "%s", path.c_str());
    afterRead = new std::function<void()>(std::move(then));
}

AfterRead::~AfterRead() {
    delete afterRead;
    afterRead = nullptr;
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
