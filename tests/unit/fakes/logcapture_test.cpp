// SPDX-License-Identifier: GPL-3.0-only
// The log capture returns texts as they were written, with newlines at their end.
#include <gmock/gmock.h>

#include "tests/fakes/logcapture.h"
#include "util/log.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(LogCaptureTest, GivesTextsWithoutFunctionAndLine) {
    LogCapture log;
    PrvPrintErr({"first", 12}, "one %d", 1);
    PrvPrintDbg({"second", 3}, "two");
    EXPECT_THAT(log.texts(), ElementsAre("one 1", "two"));
    EXPECT_THAT(log.lines(), ElementsAre("first: one 1", "second: two"));
    EXPECT_EQ(log.records().front().line, 12);
}

TEST(LogCaptureTest, KeepsTheNewlinesOfAText) {
    LogCapture log;
    PrvPrintErr({"f", 1}, "Malformed json packet? \n");
    PrvPrintErr({"f", 2}, "status: %d\nissuer: x\n", 4);
    EXPECT_THAT(log.texts(), ElementsAre("Malformed json packet? \n", "status: 4\nissuer: x\n"));
}

TEST(LogCaptureTest, BeginsAnewAfterATake) {
    LogCapture log;
    PrvPrintErr({"f", 1}, "before");
    EXPECT_THAT(log.takeTexts(), ElementsAre("before"));
    EXPECT_THAT(log.texts(), IsEmpty());
    PrvPrintErr({"f", 2}, "after");
    EXPECT_TRUE(log.contains("after"));
    EXPECT_FALSE(log.contains("before"));
}

TEST(LogCaptureTest, LeavesOtherLinesOfStandardErrorOut) {
    LogCapture log;
    std::fputs("bus error -2: no subscriber\n", stderr);
    PrvPrintErr({"f", 1}, "text");
    EXPECT_THAT(log.texts(), ElementsAre("text"));
    EXPECT_EQ(log.raw(), "bus error -2: no subscriber\n[f: 1]: text\n");
}

TEST(LogCaptureTest, GivesStandardErrorBackToAnOuterCapture) {
    LogCapture outer;
    {
        LogCapture inner;
        PrvPrintErr({"f", 1}, "inside");
        EXPECT_THAT(inner.texts(), ElementsAre("inside"));
    }
    PrvPrintErr({"f", 2}, "outside");
    EXPECT_THAT(outer.texts(), ElementsAre("outside"));
}
