// SPDX-License-Identifier: GPL-3.0-only
// Alarms: what `set` requires, which are due, and the rest of their delay after a restart or a reboot.
#include "platform/host/alarmtable.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/faults/failingreads.h"

namespace {

constexpr int64_t kSecond = 1000000;

Alarm alarm(const char* key, int64_t deadline, bool wakeup = true, int64_t seconds = 600) {
    return {key, "zelt://com.zelt.test/ring", "{}", wakeup, seconds, deadline};
}

TEST(Delays, AreHoursMinutesAndSecondsOfTwoDigits) {
    int64_t seconds = -1;
    for (auto [text, value] :
         {std::pair{"00:00:00", 0}, std::pair{"00:05:00", 300}, std::pair{"00:25:00", 1500},
          std::pair{"01:12:07", 4327}, std::pair{"99:59:59", 359999}}) {
        EXPECT_TRUE(parseDelay(text, seconds)) << text;
        EXPECT_EQ(seconds, value) << text;
    }
    for (const char* text : {"", "5", "00:05", "0:05:00", "00:5:00", "00:60:00", "00:00:60", "00-05-00",
                             "00:05:00 ", " 0:05:00", "-1:05:00", "00:05:0x", "000:05:00"})
        EXPECT_FALSE(parseDelay(text, seconds)) << text;
}

struct SetCase {
    const char* payload;
    const char* words;
};
class RefusedAlarm : public testing::TestWithParam<SetCase> {};

TEST_P(RefusedAlarm, IsToldWhatItLacks) {
    Alarm parsed;
    std::string words;
    EXPECT_FALSE(parseAlarm(GetParam().payload, parsed, words));
    EXPECT_EQ(words, GetParam().words);
}

constexpr char kBadIn[] = "\"in\" must be hours:minutes:seconds with two digits each, such as \"00:25:00\"";
constexpr char kBadUri[] = "\"uri\" must be the method to call, zelt://SERVICE/METHOD";
INSTANTIATE_TEST_SUITE_P(
    Table, RefusedAlarm,
    testing::Values(SetCase{"", "the payload is not a JSON object"},
                    SetCase{"[]", "the payload is not a JSON object"},
                    SetCase{"{}", "\"key\" is missing: a text that names the alarm"},
                    SetCase{R"({"key":5,"uri":"zelt://a.b/c","in":"00:00:01"})",
                            "\"key\" is missing: a text that names the alarm"},
                    SetCase{R"({"key":"k","in":"00:00:01"})", kBadUri},
                    SetCase{R"({"key":"k","uri":"http://a/b","in":"00:00:01"})", kBadUri},
                    SetCase{R"({"key":"k","uri":"zelt://a.b","in":"00:00:01"})", kBadUri},
                    SetCase{R"({"key":"k","uri":"zelt://a.b/","in":"00:00:01"})", kBadUri},
                    SetCase{R"({"key":"k","uri":"zelt://a.b/c"})", kBadIn},
                    SetCase{R"({"key":"k","uri":"zelt://a.b/c","in":300})", kBadIn},
                    SetCase{R"({"key":"k","uri":"zelt://a.b/c","in":"00:00:01","params":"{"})",
                            "\"params\" must be a JSON text, the payload of the call"}));

TEST(AlarmRequest, IsReadWhole) {
    Alarm parsed;
    std::string words;
    ASSERT_TRUE(parseAlarm(R"({"key":"reconnectTimer", "uri":"quor://com.zelt.pubsubservice/reconnectTimer",)"
                           R"( "in":"00:05:07", "wakeup":true, "params":"{\"a\":1}"})",
                           parsed, words))
        << words;
    EXPECT_EQ(parsed.key, "reconnectTimer");
    EXPECT_EQ(parsed.uri, "quor://com.zelt.pubsubservice/reconnectTimer");
    EXPECT_EQ(parsed.seconds, 307);
    EXPECT_TRUE(parsed.wakeup);
    EXPECT_EQ(parsed.params, "{\"a\":1}");
}

TEST(AlarmRequest, SleepsThroughAndCarriesNothingUnlessItSaysSo) {
    Alarm parsed;
    std::string words;
    ASSERT_TRUE(parseAlarm(R"({"key":"k","uri":"zelt://a.b/c","in":"00:00:00"})", parsed, words)) << words;
    EXPECT_FALSE(parsed.wakeup);
    EXPECT_EQ(parsed.params, "{}");
    ASSERT_TRUE(parseAlarm(R"({"key":"k","uri":"zelt://a.b/c","in":"00:00:00","params":{"u":"a/b"}})", parsed,
                           words));
    EXPECT_EQ(parsed.params, "{\"u\":\"a/b\"}");
}

TEST(AlarmTable, ReplacesAnAlarmOfTheSameKey) {
    AlarmTable table;
    EXPECT_TRUE(table.set(alarm("a", 10)));
    EXPECT_FALSE(table.set(alarm("a", 20)));
    EXPECT_EQ(table.next(true), 20);
    EXPECT_TRUE(table.takeDue(10).empty());
    EXPECT_EQ(table.takeDue(20).size(), 1u);
    EXPECT_TRUE(table.empty());
}

TEST(AlarmTable, ClearsWhatIsThere) {
    AlarmTable table;
    table.set(alarm("a", 10));
    EXPECT_FALSE(table.clear("b"));
    EXPECT_TRUE(table.clear("a"));
    EXPECT_FALSE(table.clear("a"));
    EXPECT_EQ(table.next(true), -1);
}

TEST(AlarmTable, GivesWhatIsDueInTheOrderOfTheDeadlines) {
    AlarmTable table;
    table.set(alarm("a", 30));
    table.set(alarm("b", 10, false));
    table.set(alarm("c", 20));
    table.set(alarm("d", 31));
    std::string order;
    for (const Alarm& due : table.takeDue(30))
        order += due.key;
    EXPECT_EQ(order, "bca");
    EXPECT_EQ(table.next(true), 31);
}

TEST(AlarmTable, KeepsTheNextDeadlineOfWakingAndSleepingAlarmsApart) {
    AlarmTable table;
    table.set(alarm("a", 30));
    table.set(alarm("b", 10, false));
    table.set(alarm("c", 20, false));
    EXPECT_EQ(table.next(true), 30);
    EXPECT_EQ(table.next(false), 10);
}

// A table with one alarm of 600 s, stored 100 s after it was set.
std::string stored() {
    AlarmTable table;
    Alarm entry = alarm("a", 1600 * kSecond);
    entry.params = "{\"x\":\"/\"}";
    table.set(entry);
    return table.serialise({1100 * kSecond, 50000 * kSecond, "boot-1"});
}

Alarm restored(const ClockReading& now) {
    AlarmTable table;
    int dropped = 0;
    EXPECT_TRUE(table.restore(stored(), now, dropped));
    EXPECT_EQ(dropped, 0);
    std::vector<Alarm> alarms = table.takeDue(INT64_MAX);
    EXPECT_EQ(alarms.size(), 1u);
    return alarms.at(0);
}

TEST(StoredAlarms, KeepTheirDeadlineOverARestart) {
    Alarm entry = restored({1200 * kSecond, 99999 * kSecond, "boot-1"});
    EXPECT_EQ(entry.deadline, 1600 * kSecond);
    EXPECT_EQ(entry.key, "a");
    EXPECT_EQ(entry.uri, "zelt://com.zelt.test/ring");
    EXPECT_EQ(entry.params, "{\"x\":\"/\"}");
    EXPECT_TRUE(entry.wakeup);
    EXPECT_EQ(entry.seconds, 600);
}

TEST(StoredAlarms, AreDueAtOnceWhenTheirTimePassedMeanwhile) {
    EXPECT_EQ(restored({1700 * kSecond, 50600 * kSecond, "boot-1"}).deadline, 1700 * kSecond);
}

TEST(StoredAlarms, FollowTheWallClockAfterAReboot) {
    EXPECT_EQ(restored({5 * kSecond, 50200 * kSecond, "boot-2"}).deadline, 305 * kSecond);
    EXPECT_EQ(restored({5 * kSecond, 70000 * kSecond, "boot-2"}).deadline, 5 * kSecond);
}

TEST(StoredAlarms, AreNeverPutOffBeyondTheirDelayByAWrongClock) {
    EXPECT_EQ(restored({5 * kSecond, 10 * kSecond, "boot-2"}).deadline, 605 * kSecond);
}

TEST(StoredAlarms, AreDroppedOneByOneWhenUnusable) {
    AlarmTable table;
    int dropped = 0;
    EXPECT_TRUE(
        table.restore(R"({"boot":"b","alarms":[5,{"key":"a"},{"key":"k","uri":"zelt://a.b/c","seconds":1,)"
                      R"("boottime_us":7,"wallclock_us":9}]})",
                      {1, 1, "b"}, dropped));
    EXPECT_EQ(dropped, 2);
    EXPECT_EQ(table.next(false), 7);
}

TEST(StoredAlarms, LeaveTheTableAloneWhenTheFileIsNone) {
    AlarmTable table;
    table.set(alarm("a", 10));
    int dropped = 0;
    for (const char* text : {"", "nonsense", "[]", "{}", R"({"alarms":{}})"})
        EXPECT_FALSE(table.restore(text, {1, 1, "b"}, dropped)) << text;
    EXPECT_EQ(table.next(true), 10);
}

TEST(Clocks, NameTheBoot) {
    ClockReading now = readClocks();
    EXPECT_GT(now.boottime, 0);
    EXPECT_GT(now.wallclock, 0);
    EXPECT_EQ(now.bootId.size(), 36u);
}

TEST(Clocks, BearABootIdThatCannotBeRead) {
    FailingReads reads("/proc/sys/kernel/random/", EIO);
    ClockReading now = readClocks();
    EXPECT_GT(now.boottime, 0);
    EXPECT_EQ(now.bootId, "");
    EXPECT_GT(reads.failures(), 0u);
}

}  // namespace
