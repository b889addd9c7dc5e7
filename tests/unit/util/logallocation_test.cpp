// SPDX-License-Identifier: GPL-3.0-only
// The diagnostics log allocates nothing, however long its message.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

#include "tests/fakes/logcapture.h"
#include "tests/fakes/systemlog.h"
#include "util/log.h"

namespace {

long allocations = 0;

}  // namespace

// Counts every object that C++ makes on the heap.
void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

TEST(LogAllocation, NeverHappens) {
    const std::string shortText = "short", longText(600, 'a');
    LogCapture log;
    muteSystemLog(true);
    const long before = allocations;
    for (const std::string* text : {&shortText, &longText})
        for (auto* write : {PrvPrintErr, PrvPrintDbg, PrintDbgRelease, glooxDbg})
            write("handler", 1, "%s", text->c_str());
    const long after = allocations;
    muteSystemLog(false);
    EXPECT_EQ(after, before);
    EXPECT_EQ(log.records().size(), 8u);
    EXPECT_GT(allocations, after) << "the count counts";
}

}  // namespace
