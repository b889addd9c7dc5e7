// SPDX-License-Identifier: GPL-3.0-only
// The random delays: their range, their distribution, and the source of their seed.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "session/alarms.h"

namespace {

// All bits that were set in any seed.
unsigned seededBits = 0;

}  // namespace

extern "C" void srand(unsigned seed) {
    seededBits |= seed;
    reinterpret_cast<void (*)(unsigned)>(dlsym(RTLD_NEXT, "srand"))(seed);
}

namespace {

TEST(RandomDelay, HasASeedOfFourBytes) {
    seededBits = 0;
    for (int draw = 0; draw < 200; ++draw)
        generateRandomDelay(0, 10);
    EXPECT_EQ(seededBits, 0xffffffffu);
}

TEST(RandomDelay, StaysInItsRange) {
    for (int draw = 0; draw < 2000; ++draw) {
        const int32_t delay = generateRandomDelay(10, 13);
        EXPECT_GE(delay, 10);
        EXPECT_LT(delay, 13);
    }
}

TEST(RandomDelay, OfAnEmptyRangeIsItsBeginning) {
    EXPECT_EQ(generateRandomDelay(5, 5), 5);
    EXPECT_EQ(generateRandomDelay(5, 4), 5);
    EXPECT_EQ(generateRandomDelay(5, 6), 5);
}

// Two draws that would be equal if the generator were left as it is.
bool drawsAnew() {
    for (int round = 0; round < 1000; ++round) {
        srand(1);
        const int32_t first = generateRandomDelay(0, INT32_MAX);
        srand(1);
        if (generateRandomDelay(0, INT32_MAX) != first)
            return true;
    }
    return false;
}

TEST(RandomDelay, SeedsTheGeneratorAnewAtEachDraw) {
    EXPECT_TRUE(drawsAnew());
}

TEST(RandomDelay, IsSeededByTheClockWithoutARandomDevice) {
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    rlimit none = old;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int opened = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    const bool anew = drawsAnew();
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(opened, -1) << "or this test shows nothing";
    EXPECT_TRUE(anew);
}

TEST(RandomDelay, LeavesNoDescriptorOpen) {
    const int before = dup(0);
    close(before);
    for (int draw = 0; draw < 10; ++draw)
        generateRandomDelay(300, 1200);
    const int after = dup(0);
    close(after);
    EXPECT_EQ(before, after);
}

TEST(RandomDelay, SupportsTheWidestRange) {
    for (int draw = 0; draw < 100; ++draw)
        EXPECT_LT(generateRandomDelay(INT32_MIN, INT32_MAX), INT32_MAX);
}

// 1,000 draws in bins of one minute, against the chi-square quantile for one in a million: a uniform delay
// fails once in a million runs.
template <std::size_t kMinutes>
double chiSquare(int32_t min, int32_t max) {
    constexpr int kDraws = 1000;
    std::array<int, kMinutes> bins{};
    for (int draw = 0; draw < kDraws; ++draw)
        ++bins.at(static_cast<std::size_t>((generateRandomDelay(min, max) - min) / 60));
    const double expected = static_cast<double>(kDraws) / kMinutes;
    double sum = 0;
    for (const int count : bins)
        sum += (count - expected) * (count - expected) / expected;
    return sum;
}

TEST(RandomDelay, SpreadsShortDelaysEvenlyByTheMinute) {
    EXPECT_LT(chiSquare<15>(300, 1200), 56.0);  // 14 degrees of freedom
}

TEST(RandomDelay, SpreadsLongDelaysEvenlyByTheMinute) {
    EXPECT_LT(chiSquare<30>(3600, 5400), 81.5);  // 29 degrees of freedom
}

}  // namespace
