// SPDX-License-Identifier: GPL-3.0-only
// Lets reads of a test program fail: while one of these lives, read() gives `error` for every file whose path
// begins with `prefix`, after so many bytes of it. The open succeeds, as with a process that ends right
// after.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

class FailingReads {
  public:
    FailingReads(const std::string& prefix, int error, size_t afterBytes = 0);
    ~FailingReads();
    FailingReads(const FailingReads&) = delete;
    FailingReads& operator=(const FailingReads&) = delete;

    // How many reads have failed; a test that asserts on none has shown nothing.
    size_t failures() const;
};

// Calls `then` once, right after a read of such a file has given something.
class AfterRead {
  public:
    AfterRead(const std::string& path, std::function<void()> then);
    ~AfterRead();
    AfterRead(const AfterRead&) = delete;
    AfterRead& operator=(const AfterRead&) = delete;
};
