// SPDX-License-Identifier: GPL-3.0-only
// The fields that a log line has in the journal, and what takes lines when the journal does not.
#include "platform/manager/journal.h"

#include <gmock/gmock.h>
#include <sys/uio.h>
#include <syslog.h>

#include <cstdarg>
#include <filesystem>
#include <string>
#include <vector>

#include "util/log.h"
#include "util/logsubject.h"

namespace {

using Lines = std::vector<std::string>;
Lines fields;    // of the last line in the journal
Lines syslines;  // what syslog() was given
int answer = 0;  // of the journal

}  // namespace

// Instead of the library's and the system's own.
extern "C" int sd_journal_sendv(const iovec* parts, int count) {
    fields.clear();
    for (int i = 0; i < count; ++i)
        fields.emplace_back(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
    return answer;
}
extern "C" void syslog(int, const char* format, ...) {
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    syslines.emplace_back(text);
}

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class Journal : public testing::Test {
  protected:
    ~Journal() override {
        setLogSink(nullptr);
        setLogState("");
        fields.clear();
        syslines.clear();
        answer = 0;
    }
    static void log() { PrvPrintErr({"somewhere", 7}, "text %d", 5); }
};

TEST_F(Journal, HasTheLineAndItsPlace) {
    logToJournal(std::filesystem::temp_directory_path().c_str());
    log();
    EXPECT_THAT(fields, ElementsAre("MESSAGE=[somewhere: 7]: text 5", "PRIORITY=3", "CODE_FUNC=somewhere",
                                    "CODE_LINE=7"));
    PrvPrintDbg({"somewhere", 8}, "more");
    EXPECT_THAT(fields, Contains("PRIORITY=6"));
    EXPECT_THAT(syslines, IsEmpty());
}

TEST_F(Journal, HasWhatALineIsAbout) {
    logToJournal(std::filesystem::temp_directory_path().c_str());
    setLogState("connected");
    const std::string node = "/a\n/b", item = "i1", other = "/c";
    {
        const LogSubject subject(node, item);
        log();
        EXPECT_THAT(fields, Contains("PUBSUB_NODE=/a\n/b"));
        EXPECT_THAT(fields, Contains("PUBSUB_ITEM=i1"));
        EXPECT_THAT(fields, Contains("PUBSUB_STATE=connected"));
        {
            const LogSubject inner(other);
            log();
            EXPECT_THAT(fields, Contains("PUBSUB_NODE=/c"));
            EXPECT_THAT(fields, Not(Contains(StartsWith("PUBSUB_ITEM"))));
        }
        log();
        EXPECT_THAT(fields, Contains("PUBSUB_NODE=/a\n/b"));
    }
    log();
    EXPECT_THAT(fields, Not(Contains(StartsWith("PUBSUB_NODE"))));
}

TEST_F(Journal, LeavesTheSystemLogWhatItCannotTake) {
    logToJournal(std::filesystem::temp_directory_path().c_str());
    answer = -5;
    log();
    EXPECT_THAT(syslines, ElementsAre("[somewhere: 7]: text 5"));
}

TEST_F(Journal, IsLeftAloneWhereNoneListens) {
    logToJournal("/nowhere/journal/socket");
    log();
    EXPECT_THAT(syslines, ElementsAre("[somewhere: 7]: text 5"));
    EXPECT_THAT(fields, IsEmpty());
}

}  // namespace
