// SPDX-License-Identifier: GPL-3.0-only
#include "platform/bus/share.h"

#include <gtest/gtest.h>

namespace {

constexpr size_t kMost = 12'000'000;
constexpr size_t kStep = 1000;

// Adds for the user as long as there is room, and returns how much that was.
size_t fill(Share& share, unsigned user) {
    size_t added = 0;
    for (; share.available(user) >= kStep; added += kStep)
        share.add(user, kStep);
    return added;
}

}  // namespace

TEST(Share, LeavesEachFurtherUserItsPartWhateverTheOthersTake) {
    Share share(kMost);
    size_t total = 0;
    for (unsigned user = 1; user <= 20; user++) {
        const size_t part = kMost / (user * (user + 1));
        const size_t taken = fill(share, user);
        EXPECT_GE(taken + kStep, part) << user;
        EXPECT_LE(taken, part + kStep) << user;
        total += taken;
        EXPECT_EQ(share.total(), total);
        EXPECT_LT(total, kMost);
    }
    for (unsigned user = 1; user <= 20; user++)
        EXPECT_LT(share.available(user), kStep) << user;
}

TEST(Share, OfOneUserAloneIsHalf) {
    Share share(kMost);
    EXPECT_EQ(share.available(1), kMost);
    share.add(1, kMost / 4);
    EXPECT_EQ(share.available(1), kMost / 2);
    share.add(1, kMost / 4);
    EXPECT_EQ(share.available(1), 0u);
    EXPECT_EQ(share.available(2), kMost / 4);
}

TEST(Share, ForgetsAUserThatHoldsNothingMore) {
    Share share(kMost);
    for (unsigned user = 0; user < 9; user++)
        share.add(user, kStep);
    EXPECT_LE(share.available(9), kMost / 10);
    for (unsigned user = 0; user < 9; user++)
        share.take(user, kStep);
    EXPECT_EQ(share.total(), 0u);
    EXPECT_EQ(share.available(9), kMost);
    share.add(9, 0);
    EXPECT_EQ(share.available(10), kMost);
}

TEST(Share, TakesNoMoreThanTheUserHolds) {
    Share share(kMost);
    share.add(1, 5 * kStep);
    share.add(2, 3 * kStep);
    share.take(1, 2 * kStep);
    EXPECT_EQ(share.total(), 6 * kStep);
    share.take(3, kStep);
    EXPECT_EQ(share.total(), 6 * kStep);
    share.take(1, 100 * kStep);
    EXPECT_EQ(share.total(), 3 * kStep);
    share.take(2, 3 * kStep);
    EXPECT_EQ(share.total(), 0u);
}

TEST(Share, ThatIsOverdrawnHasNoRoom) {
    Share share(kMost);
    share.add(1, 2 * kMost);
    EXPECT_EQ(share.available(1), 0u);
    EXPECT_EQ(share.available(2), 0u);
}
