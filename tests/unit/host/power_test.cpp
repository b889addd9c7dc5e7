// SPDX-License-Identifier: GPL-3.0-only
// The power service on a real bus with real kernel timers.
#include "platform/host/power.h"

#include <gmock/gmock.h>

#include "tests/unit/host/caller.h"
#include "tests/unit/host/privatebus.h"

namespace {

using testing::ElementsAre;

constexpr char kSet[] = "zelt://com.zelt.power/timeout/set";
constexpr char kClear[] = "quor://com.zelt.power/timeout/clear";
constexpr char kActivity[] = "zelt://com.zelt.power/com/zelt/power/activityStart";
constexpr char kYes[] = "{\"returnValue\":true}";

class PowerService : public testing::Test {
  protected:
    PowerService() {
        config.stateDir = folder.path();
        start();
    }
    ~PowerService() override {
        power.reset();
        g_main_loop_unref(loop);
    }
    void start() {
        power = std::make_unique<Power>(config, system);
        ASSERT_EQ(power->start(loop), StartResult::Started);
    }
    std::string set(const char* key, const char* in, const char* params = "{}", bool wakeup = true) {
        std::string text = std::string(R"({"key":")") + key +
                           R"(", "uri":"quor://com.zelt.test/ring", "in":")" + in + R"(", "wakeup":)" +
                           (wakeup ? "true" : "false") + R"(, "params":")" + params + "\"}";
        return caller.call(kSet, text);
    }
    std::string stored() {
        std::ifstream file(folder / "alarms.json");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    PrivateBus bus;
    TestFolder folder;
    HostConfig config;
    SystemBus system;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    std::unique_ptr<Power> power;
    Caller caller{"com.zelt.test"};
};

TEST_F(PowerService, CallsTheUriOnceWithItsParameters) {
    for (bool wakeup : {true, false}) {
        caller.rings.clear();
        EXPECT_EQ(set("k", "00:00:00", R"({\"a\":1})", wakeup), kYes);
        EXPECT_TRUE(caller.waitFor([&] { return !caller.rings.empty(); }));
        EXPECT_FALSE(caller.waitFor([&] { return caller.rings.size() > 1; }, 100));
        EXPECT_THAT(caller.rings, ElementsAre("{\"a\":1}"));
    }
}

TEST_F(PowerService, RingsAfterTheDelayAndNotBefore) {
    gint64 start = g_get_monotonic_time();
    EXPECT_EQ(set("k", "00:00:01"), kYes);
    EXPECT_TRUE(caller.waitFor([&] { return !caller.rings.empty(); }));
    EXPECT_GE(g_get_monotonic_time() - start, 990000);
}

TEST_F(PowerService, ReplacesAnAlarmOfTheSameKey) {
    EXPECT_EQ(set("k", "00:00:01", R"({\"n\":1})"), kYes);
    EXPECT_EQ(set("k", "00:00:02", R"({\"n\":2})"), kYes);
    EXPECT_TRUE(caller.waitFor([&] { return !caller.rings.empty(); }));
    EXPECT_THAT(caller.rings, ElementsAre("{\"n\":2}"));
}

TEST_F(PowerService, ForgetsAClearedAlarm) {
    EXPECT_EQ(set("a", "00:00:01", R"({\"n\":1})"), kYes);
    EXPECT_EQ(set("b", "00:00:01", R"({\"n\":2})"), kYes);
    EXPECT_EQ(caller.call(kClear, R"({"key":"a"})"), kYes);
    EXPECT_EQ(caller.call(kClear, R"({"key":"never set"})"), kYes);
    EXPECT_TRUE(caller.waitFor([&] { return !caller.rings.empty(); }));
    EXPECT_THAT(caller.rings, ElementsAre("{\"n\":2}"));
}

TEST_F(PowerService, RefusesWhatItCannotSet) {
    EXPECT_EQ(
        set("k", "5"),
        R"({"returnValue":false,"errorText":"\"in\" must be hours:minutes:seconds with two digits each, )"
        R"(such as \"00:25:00\""})");
    EXPECT_EQ(caller.call(kClear, "{}"),
              R"({"returnValue":false,"errorText":"\"key\" is missing: the text that names the alarm"})");
    EXPECT_EQ(caller.call(kClear, "nonsense"),
              R"({"returnValue":false,"errorText":"\"key\" is missing: the text that names the alarm"})");
}

TEST_F(PowerService, KeepsItsAlarmsOverARestart) {
    EXPECT_EQ(set("k", "00:00:01", R"({\"n\":1})"), kYes);
    power.reset();
    start();
    EXPECT_TRUE(caller.waitFor([&] { return !caller.rings.empty(); }));
    EXPECT_THAT(caller.rings, ElementsAre("{\"n\":1}"));
    EXPECT_EQ(stored().find("\"key\""), std::string::npos);
}

TEST_F(PowerService, HasANewAlarmOnDiskBeforeItAnswersAndAPushedOneAtItsEnd) {
    EXPECT_EQ(set("k", "00:10:00"), kYes);
    EXPECT_NE(stored().find("\"seconds\":600"), std::string::npos);
    EXPECT_EQ(set("k", "00:20:00"), kYes);
    power.reset();
    EXPECT_NE(stored().find("\"seconds\":1200"), std::string::npos);
}

TEST_F(PowerService, SetsADamagedFileAside) {
    power.reset();
    std::ofstream(folder / "alarms.json") << "half a fi";
    start();
    EXPECT_TRUE(std::filesystem::exists(folder / "alarms.json.damaged"));
    EXPECT_EQ(set("k", "00:10:00"), kYes);
}

TEST_F(PowerService, GoesOnWhenTheCalledServiceIsNotThere) {
    EXPECT_EQ(caller.call(kSet, R"({"key":"k","uri":"zelt://com.zelt.nobody/x","in":"00:00:00"})"), kYes);
    EXPECT_EQ(set("k2", "00:00:00"), kYes);
    EXPECT_TRUE(caller.waitFor([&] { return !caller.rings.empty(); }));
}

TEST_F(PowerService, AcceptsAnActivityWithoutLogind) {
    EXPECT_EQ(caller.call(kActivity, R"({"duration_ms":2000})"), kYes);
}

TEST_F(PowerService, RefusesAnActivityWithoutASensibleDuration) {
    constexpr char refusal[] =
        R"({"returnValue":false,"errorText":"\"duration_ms\" must be a whole number of milliseconds )"
        R"(from 1 to 900000"})";
    for (const char* payload : {"{}", "", R"({"duration_ms":0})", R"({"duration_ms":-5})",
                                R"({"duration_ms":"2000"})", R"({"duration_ms":900001})"})
        EXPECT_EQ(caller.call(kActivity, payload), refusal) << payload;
}

TEST_F(PowerService, LeavesTheNameToAnotherProvider) {
    Power second(config, system);
    EXPECT_EQ(second.start(loop), StartResult::NameTaken);
    second.ring();
    EXPECT_EQ(set("k", "00:10:00"), kYes);
}

}  // namespace
