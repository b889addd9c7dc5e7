// SPDX-License-Identifier: GPL-3.0-only
// What nobody needs goes after 14 days, and the start: the name, and what applications see of the object.
#include "tests/unit/unifiedpush/bridgetest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr int64_t kDay = 86'400;

class Housekeeping : public BridgeTest {
  protected:
    // Days on each of which the bridge was started.
    void passDays(int days) {
        for (int i = 0; i < days; ++i) {
            now += kDay;
            restart();
            const int before = device->count("receive");
            until([&] { return device->count("receive") > before; }, 500);
            until([] { return false; }, 50);
        }
    }
};

TEST_F(Housekeeping, AnApplicationThatCannotBeReachedGoesAfterFourteenDays) {
    start();
    {
        Application app;
        enroll(app, "t1");
    }
    ASSERT_TRUE(isReceived(nameOf("t1")));
    device->publish(nameOf("t1"), "i1", "one");
    ASSERT_TRUE(until([&] { return stateText().find("\"org.example.app\":{\"days\":0") != std::string::npos; }));
    passDays(13);
    EXPECT_EQ(device->endpoints.size(), 1U);
    passDays(1);
    EXPECT_TRUE(until([&] { return device->endpoints.empty(); }));
    EXPECT_TRUE(until([&] { return stateText().find("org.example.app") == std::string::npos; }));
}

TEST_F(Housekeeping, AnApplicationThatWasThereOnceBeginsAnew) {
    start();
    {
        Application app;
        enroll(app, "t1");
    }
    ASSERT_TRUE(isReceived(nameOf("t1")));
    device->publish(nameOf("t1"), "i1", "one");
    passDays(13);
    {
        Application app;
        ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
        ASSERT_TRUE(until([&] { return stateText().find("\"absent\":{}") != std::string::npos; }));
    }
    device->publish(nameOf("t1"), "i2", "two");
    passDays(3);
    EXPECT_EQ(device->endpoints.size(), 1U);
}

TEST_F(Housekeeping, AnApplicationThatNothingWaitsForStays) {
    start();
    {
        Application app;
        enroll(app, "t1");
    }
    passDays(16);
    EXPECT_EQ(device->endpoints.size(), 1U);
}

TEST_F(Housekeeping, AnEndpointThatNoRegistrationIsKnownForGoesAfterFourteenDays) {
    device->endpoints["up-0123456789abcdef0123456789abcdef"] = 1;
    device->endpoints["inbox"] = 2;
    start();
    Application app;
    enroll(app, "t1");
    passDays(14);
    EXPECT_TRUE(until([&] { return !device->endpoints.contains("up-0123456789abcdef0123456789abcdef"); }));
    EXPECT_TRUE(device->endpoints.contains("inbox"));
    EXPECT_TRUE(device->endpoints.contains(nameOf("t1")));
}

TEST_F(Housekeeping, TheEndpointOfAnEarlierKeyGoesAfterFourteenDays) {
    start();
    Application app;
    enroll(app, "t1", kVapid);
    enroll(app, "t1", kOtherVapid);
    passDays(15);
    EXPECT_TRUE(until([&] { return device->endpoints.size() == 1; }));
    EXPECT_TRUE(device->endpoints.contains(nameOf("t1", kOtherVapid)));
}

TEST_F(Housekeeping, TheObjectDescribesBothVersionsAsSoonAsTheNameIsThere) {
    start();
    Application app("");
    Slot slot;
    std::string text;
    Wire call;
    sd_bus_message_new_method_call(app.bus(), Receive(call), kDistributorName, kDistributorPath,
                                   "org.freedesktop.DBus.Introspectable", "Introspect");
    app.session().call(call.get(), 5, slot, [&](sd_bus_message* answer) {
        const char* xml = "";
        sd_bus_message_read(answer, "s", &xml);
        text = xml;
    });
    ASSERT_TRUE(until([&] { return !text.empty(); }));
    EXPECT_EQ(device->calls.size(), 0U) << "applications are answered first";
    EXPECT_THAT(text, HasSubstr("<interface name=\"org.unifiedpush.Distributor1\">"));
    EXPECT_THAT(text, HasSubstr("<interface name=\"org.unifiedpush.Distributor2\">"));
    EXPECT_THAT(text, HasSubstr("name=\"serviceName\""));
    EXPECT_THAT(text, HasSubstr("<arg type=\"a{sv}\" name=\"args\" direction=\"in\"/>"));
    EXPECT_THAT(text, HasSubstr("<arg type=\"a{sv}\" name=\"res\" direction=\"out\"/>"));
    EXPECT_THAT(text, HasSubstr("org.freedesktop.DBus.Method.NoReply"));
}

TEST_F(Housekeeping, CountsDaysByTheClockOfTheMachine) {
    const Bridge one(folder / "other");
    EXPECT_NEAR(static_cast<double>(one.unixTime()), static_cast<double>(time(nullptr)), 2);
}

TEST_F(Housekeeping, ASecondBridgeOfTheSameUserDoesNothing) {
    start();
    Bridge second(folder / "other");
    std::string problem;
    EXPECT_FALSE(second.start(problem));
    EXPECT_THAT(problem, HasSubstr("one is enough"));
}

TEST_F(Housekeeping, WithoutASessionBusItSaysSo) {
    session.stop();
    Bridge alone(folder / "other");
    std::string problem;
    EXPECT_FALSE(alone.start(problem));
    EXPECT_THAT(problem, HasSubstr("cannot connect to the session bus"));
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    unsetenv("XDG_RUNTIME_DIR");
    Bridge without(folder / "other");
    EXPECT_FALSE(without.start(problem));
    EXPECT_THAT(problem, HasSubstr("there is no session bus"));
}

TEST_F(Housekeeping, TheEndOfTheSessionIsReported) {
    start();
    session.stop();
    EXPECT_TRUE(until([&] { return ended; }));
}

}  // namespace
