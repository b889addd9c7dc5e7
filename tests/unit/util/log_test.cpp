// SPDX-License-Identifier: GPL-3.0-only
// The diagnostics log: both outputs of every entry point, the cut at 511 characters, and the newline helpers.
#include "util/log.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "tests/fakes/logcapture.h"
#include "tests/fakes/systemlog.h"

namespace {

using Entry = void (*)(CallSite, const char*, ...);

struct EntryPoint {
    const char* name;
    Entry write;
    int priority;
};

class LogEntry : public testing::TestWithParam<EntryPoint> {
  protected:
    LogEntry() { systemLog().clear(); }
};

TEST_P(LogEntry, WritesTheLineToStandardErrorAndToTheSystemLogAtItsPriority) {
    LogCapture log;
    GetParam().write({"handler", 42}, "answer %d for %s", 7, "node");
    EXPECT_EQ(log.raw(), "[handler: 42]: answer 7 for node\n");
    EXPECT_EQ(systemLog(),
              (std::vector<SystemLogLine>{{GetParam().priority, "[handler: 42]: answer 7 for node"}}));
}

TEST_P(LogEntry, CutsAMessageOf600CharactersToItsFirst511) {
    LogCapture log;
    GetParam().write({"handler", 1}, "%s", (std::string(511, 'a') + std::string(89, 'b')).c_str());
    EXPECT_EQ(log.raw(), "[handler: 1]: " + std::string(511, 'a') + "\n");
    EXPECT_EQ(systemLog().at(0).text, "[handler: 1]: " + std::string(511, 'a'));
}

TEST_P(LogEntry, WritesAMessageOf511CharactersWhole) {
    LogCapture log;
    GetParam().write({"handler", 1}, "%s", std::string(511, 'a').c_str());
    EXPECT_EQ(log.raw(), "[handler: 1]: " + std::string(511, 'a') + "\n");
}

TEST_P(LogEntry, KeepsTheNewlineOfTheFormat) {
    LogCapture log;
    GetParam().write({"handler", 1}, "Malformed json packet? \n");
    EXPECT_EQ(log.raw(), "[handler: 1]: Malformed json packet? \n\n");
    EXPECT_EQ(systemLog().at(0).text, "[handler: 1]: Malformed json packet? \n");
}

TEST_P(LogEntry, EscapesTheControlCharactersOfArguments) {
    LogCapture log;
    GetParam().write({"handler", 1}, "got %s.",
                     "a\n[main: 9]: PUBSUB SERVICE EXITS BECAUSE OF ERRORS\r\t\x1b[2J\x7f\xc2\x9b");
    const std::string expected =
        "[handler: 1]: got a\\n[main: 9]: PUBSUB SERVICE EXITS BECAUSE OF ERRORS\\r\\t"
        "\\x1b[2J\\x7f\\xc2\\x9b.";
    EXPECT_EQ(log.raw(), expected + "\n");
    EXPECT_EQ(systemLog().at(0).text, expected);
}

TEST_P(LogEntry, EscapesThoseOfArgumentsAndKeepsThoseOfTheFormat) {
    LogCapture log;
    GetParam().write({"handler", 1}, "one: %s\ntwo:\t%s\n", "a\nb\n", "\xff\n\xff");
    EXPECT_EQ(systemLog().at(0).text, "[handler: 1]: one: a\\nb\\n\ntwo:\t\xff\\n\xff\n");
}

TEST_P(LogEntry, KeepsBackslashesAndEveryOtherCharacter) {
    LogCapture log;
    GetParam().write({"handler", 1}, "%s", "\\n \xc3\xbc \xc2\xa0 \xf0\x9f\x98\x80 %d \xc2");
    EXPECT_EQ(log.raw(), "[handler: 1]: \\n \xc3\xbc \xc2\xa0 \xf0\x9f\x98\x80 %d \xc2\n");
}

TEST_P(LogEntry, CutsAtTheSameBoundWithEscapesAndCutsNoEscape) {
    LogCapture log;
    GetParam().write({"handler", 1}, "a%s", std::string(600, '\n').c_str());
    std::string escapes;
    for (int i = 0; i < 255; ++i)
        escapes += "\\n";
    EXPECT_EQ(log.raw(), "[handler: 1]: a" + escapes + "\n");
    log.clear();
    GetParam().write({"handler", 1}, "ab%s", std::string(600, '\n').c_str());
    EXPECT_EQ(log.raw(), "[handler: 1]: ab" + escapes.substr(2) + "\n");
}

TEST_P(LogEntry, DoesNotReadTheMessageAsAFormatAgain) {
    LogCapture log;
    GetParam().write({"handler", 1}, "%s", "100%s %n");
    EXPECT_EQ(log.raw(), "[handler: 1]: 100%s %n\n");
    EXPECT_EQ(systemLog().at(0).text, "[handler: 1]: 100%s %n");
}

INSTANTIATE_TEST_SUITE_P(AllEntryPoints, LogEntry,
                         testing::Values(EntryPoint{"PrvPrintErr", PrvPrintErr, LOG_ERR},
                                         EntryPoint{"glooxDbg", glooxDbg, LOG_ERR},
                                         EntryPoint{"PrvPrintDbg", PrvPrintDbg, LOG_INFO},
                                         EntryPoint{"PrintDbgRelease", PrintDbgRelease, LOG_INFO}),
                         [](const auto& entry) { return entry.param.name; });

int helperThatLogs(const char* text, CallSite site = {}) {
    PrvPrintErr(site, "%s", text);
    return site.line;
}

int operationThatLogs() {
    PrvPrintErr({}, "own");
    const int line = __LINE__ - 1;
    return line;
}

int operationWithAHelper(int& line) {
    line = __LINE__ + 1;
    return helperThatLogs("helper's");
}

TEST(CallSite, OfBracesIsTheFunctionAndLineOfTheCall) {
    LogCapture log;
    const int line = operationThatLogs();
    EXPECT_EQ(log.raw(), "[operationThatLogs: " + std::to_string(line) + "]: own\n");
}

TEST(CallSite, OfAHelperIsThatOfItsCaller) {
    LogCapture log;
    int line = 0;
    EXPECT_EQ(operationWithAHelper(line), line);
    EXPECT_EQ(log.raw(), "[operationWithAHelper: " + std::to_string(line) + "]: helper's\n");
}

TEST(StripNewline, CutsTheTextAtTheFirstNewline) {
    char buffer[] = "abc\ndef";
    strip_newline(buffer, 8);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_STREQ(buffer + 4, "def");
}

TEST(StripNewline, LooksNoFurtherThanTheLength) {
    char buffer[] = "abc\ndef";
    strip_newline(buffer, 2);
    EXPECT_STREQ(buffer, "abc\ndef");
    strip_newline(buffer, 3);
    EXPECT_STREQ(buffer, "abc\ndef");
    strip_newline(buffer, 4);
    EXPECT_STREQ(buffer, "abc");
}

TEST(StripNewline, LooksAtTheOneByteOfALengthOfOne) {
    char buffer[] = "\nabc";
    strip_newline(buffer, 1);
    EXPECT_STREQ(buffer, "");
    EXPECT_STREQ(buffer + 1, "abc");
}

TEST(StripNewline, ChangesNothingForALengthBelowOne) {
    char buffer[] = "\nabc";
    strip_newline(buffer, 0);
    strip_newline(buffer, -1);
    EXPECT_STREQ(buffer, "\nabc");
}

TEST(StripNewline, ChangesNothingWithoutANewline) {
    char buffer[] = "abc";
    strip_newline(buffer, 4);
    EXPECT_STREQ(buffer, "abc");
}

TEST(ReplaceNewline, WritesTheCharacterOverTheFirstNewlineOnly) {
    char buffer[] = "a\nb\nc";
    replace_newline(buffer, 6, ' ');
    EXPECT_STREQ(buffer, "a b\nc");
}

TEST(ReplaceNewline, LooksNoFurtherThanTheLength) {
    char buffer[] = "a\nb";
    replace_newline(buffer, 1, ' ');
    replace_newline(buffer, 0, ' ');
    EXPECT_STREQ(buffer, "a\nb");
}

}  // namespace
