// SPDX-License-Identifier: GPL-3.0-only
#include "util/logbudget.h"

#include <gtest/gtest.h>

#include "util/log.h"

TEST(LogBudget, HasAThousandLinesAtOnceAndFiftyASecond) {
    LogBudget budget;
    unsigned long leftOut = 0;
    int written = 0;
    for (int i = 0; i < 5000; i++)
        written += budget.take(1, leftOut);
    EXPECT_EQ(written, 1000);
    EXPECT_FALSE(budget.isFull(1'000'001));
    written = 0;
    for (int i = 0; i < 5000; i++)
        written += budget.take(1'000'001, leftOut);
    EXPECT_EQ(written, 50);
    EXPECT_TRUE(budget.isFull(60'000'000));
}

TEST(LogBudget, TellsHowManyLinesWereLeftOut) {
    LogBudget budget;
    unsigned long leftOut = 0;
    for (int i = 0; i < 1003; i++)
        budget.take(1, leftOut);
    ASSERT_TRUE(budget.take(20'001, leftOut));
    EXPECT_EQ(leftOut, 3u);
    ASSERT_TRUE(budget.take(40'001, leftOut));
    EXPECT_EQ(leftOut, 0u);
}

TEST(LogBudget, BoundsTheLinesOfItsCauseAlone) {
    testing::internal::CaptureStderr();
    {
        LogBudget budget;
        LogPayer payer(budget);
        for (int i = 0; i < 3000; i++)
            PrvPrintErr({"f", 1}, "paid");
    }
    for (int i = 0; i < 2000; i++)
        PrvPrintErr({"f", 1}, "free");
    const std::string text = testing::internal::GetCapturedStderr();
    auto count = [&](const std::string& word) {
        size_t found = 0;
        for (size_t at = 0; (at = text.find(word, at)) != std::string::npos; at++)
            found++;
        return found;
    };
    EXPECT_GE(count(": paid"), 1000u);
    EXPECT_LE(count(": paid"), 2000u);
    EXPECT_EQ(count(": free"), 2000u);
}
