// SPDX-License-Identifier: GPL-3.0-only
// The diagnostics log allocates nothing, however long its message.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/fakes/logcapture.h"
#include "tests/fakes/systemlog.h"
#include "util/log.h"

namespace {

// Every function that allocates from the heap, in C++ or in C.
long allocations = 0;

}  // namespace

#ifdef __SANITIZE_ADDRESS__
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void*, std::size_t),
                                                         void (*freed)(const volatile void*));
[[maybe_unused]] static const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t) { ++allocations; }, [](const volatile void*) {});
#else
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* malloc(std::size_t size) {
    ++allocations;
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    ++allocations;
    return __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) {
    ++allocations;
    return __libc_realloc(memory, size);
}
}
#endif

namespace {

TEST(LogAllocation, NeverHappens) {
    const std::string shortText = "short", longText(600, 'a'), controls = "a\n\x1b";
    LogCapture log;
    muteSystemLog(true);
    const long before = allocations;
    for (const std::string* text : {&shortText, &longText, &controls})
        for (auto* write : {PrvPrintErr, PrvPrintDbg, PrintDbgRelease, glooxDbg}) {
            write({"handler", 1}, "%s", text->c_str());
            write({"handler", 1}, "%s %d\n", text->c_str(), 5);
        }
    const long after = allocations;
    muteSystemLog(false);
    EXPECT_EQ(after, before);
    EXPECT_EQ(log.records().size(), 24u);
    const long counted = allocations;
    std::free(std::malloc(10));
    EXPECT_EQ(allocations, counted + 1) << "what C takes is counted";
    delete new std::string;
    EXPECT_EQ(allocations, counted + 2) << "and what C++ takes";
}

}  // namespace
