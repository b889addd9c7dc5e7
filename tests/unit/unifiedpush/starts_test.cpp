// SPDX-License-Identifier: GPL-3.0-only
// How many applications are started at once.
#include "unifiedpush/starts.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Places : public testing::Test {
  protected:
    Places() {
        starts.onPlace = [this](const std::string& service) {
            if (starts.take(service))
                begun.push_back(service);
        };
        for (const char* service : {"a", "b", "c", "d"})
            EXPECT_TRUE(starts.take(service));
    }
    Starts starts;
    std::vector<std::string> begun;
};

TEST_F(Places, AreFourAndTheNextOneGetsTheFirstThatIsFree) {
    EXPECT_FALSE(starts.take("f"));
    EXPECT_FALSE(starts.take("e"));
    EXPECT_THAT(begun, IsEmpty());
    starts.release("b");
    EXPECT_THAT(begun, ElementsAre("e"));
    starts.release("a");
    EXPECT_THAT(begun, ElementsAre("e", "f"));
}

TEST_F(Places, AreOneForEachApplication) {
    EXPECT_TRUE(starts.take("a"));
    starts.release("a");
    EXPECT_TRUE(starts.take("e"));
}

TEST_F(Places, AreNotKeptForWhoeverDoesNotWaitAnyLonger) {
    EXPECT_FALSE(starts.take("e"));
    starts.release("e");
    starts.release("a");
    EXPECT_THAT(begun, IsEmpty());
}

TEST_F(Places, OfApplicationsThatHangAreFreeAfterSomeTime) {
    EXPECT_FALSE(starts.take("e"));
    const gint64 deadline = g_get_monotonic_time() + (Starts::kPatience + 5000) * 1000;
    while (begun.empty() && g_get_monotonic_time() < deadline)
        g_main_context_iteration(nullptr, TRUE);
    EXPECT_THAT(begun, ElementsAre("e"));
}

}  // namespace
