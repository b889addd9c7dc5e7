// SPDX-License-Identifier: GPL-3.0-only
// Messages: as they were sent, once each while nothing ends, and one application's trouble is nobody else's.
#include <algorithm>

#include "tests/unit/unifiedpush/bridgetest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Messages : public BridgeTest {
  protected:
    // With one registration, t1, whose items are received.
    void begin(Application& app) {
        start();
        enroll(app, "t1");
        ASSERT_TRUE(isReceived(endpoint));
    }
    bool isTaken(const std::string& id) {
        return until(
            [&] { return std::count(device->acknowledged.begin(), device->acknowledged.end(), id) > 0; });
    }
    // Whatever the device has sent for t1 by now is at the bridge, when what it sends for t2 then is at the application.
    void waitForTheDevice(Application& app) {
        const std::size_t before = app.calls.size();
        device->publish(nameOf("t2"), "j1", "other");
        ASSERT_TRUE(until([&] { return app.calls.size() > before; }));
        ASSERT_EQ(app.calls.back(), "Message t2 other j1");
        app.calls.pop_back();
    }
    const std::string endpoint = nameOf("t1");
};

TEST_F(Messages, HaveTheBytesAndTheIdAndAnyReturnTakesThem) {
    Application app;
    begin(app);
    device->publish(endpoint, "i1", "plain <text>");
    device->publish(endpoint, "i2", "AAEC//4=", 0, true);
    ASSERT_TRUE(isTaken("i2"));
    EXPECT_THAT(app.calls,
                ElementsAre("Message t1 plain <text> i1",
                            std::string("Message t1 ") + std::string("\0\1\2\xff\xfe", 5) + " i2"));
    EXPECT_THAT(device->acknowledged, ElementsAre("i1", "i2"));
}

TEST_F(Messages, OfVersion1HaveTheirOwnArguments) {
    start();
    Application app;
    app.enroll1("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    ASSERT_TRUE(isReceived(endpoint));
    device->publish(endpoint, "i1", "text");
    ASSERT_TRUE(isTaken("i1"));
    EXPECT_EQ(app.calls.back(), "Message t1 text i1");
}

TEST_F(Messages, AreNotAcknowledgedBeforeTheApplicationHasAnswered) {
    Application app;
    begin(app);
    app.silent = true;
    device->publish(endpoint, "i1", "one");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_EQ(device->count("acknowledge"), 0);
    EXPECT_EQ(device->waiting(endpoint), 1U);
}

class NotYet : public Messages, public testing::WithParamInterface<const char*> {};

TEST_P(NotYet, IsCalledAgain) {
    Application app;
    begin(app);
    app.error = GetParam();
    device->publish(endpoint, "i1", "one");
    ASSERT_TRUE(until([&] { return app.calls.size() == 2; }));
    app.error.clear();
    ASSERT_TRUE(isTaken("i1"));
    EXPECT_THAT(app.calls, ElementsAre("Message t1 one i1", "Message t1 one i1", "Message t1 one i1"));
}

INSTANTIATE_TEST_SUITE_P(Of, NotYet,
                         testing::Values("org.freedesktop.DBus.Error.NoReply",
                                         "org.freedesktop.DBus.Error.ServiceUnknown",
                                         "org.freedesktop.DBus.Error.UnknownMethod",
                                         "org.freedesktop.DBus.Error.UnknownObject",
                                         "org.freedesktop.DBus.Error.TimedOut", "org.example.Error.Own"));

TEST_F(Messages, ThatAnApplicationRefusesAgainAndAgainLetTheNextOnesThrough) {
    Application app;
    begin(app);
    app.error = "org.example.Error.Own";
    device->publish(endpoint, "i1", "poison");
    device->publish(endpoint, "i2", "good");
    std::size_t before = 0;
    // Its name that goes and comes saves the pauses.
    while (device->acknowledged.empty() && app.calls.size() < 20) {
        ASSERT_TRUE(until([&] { return app.calls.size() > before; }));
        before = app.calls.size();
        app.disown("org.example.app");
        app.own("org.example.app");
    }
    app.error.clear();
    ASSERT_TRUE(isTaken("i2"));
    EXPECT_EQ(std::count(app.calls.begin(), app.calls.end(), "Message t1 poison i1"), 10);
}

TEST_F(Messages, ThatAnApplicationCannotTakeYetAreNeverDropped) {
    Application app;
    begin(app);
    app.error = "org.freedesktop.DBus.Error.NoReply";
    device->publish(endpoint, "i1", "one");
    for (std::size_t count = 1; count <= 12; ++count) {
        ASSERT_TRUE(until([&] { return app.calls.size() >= count; }));
        app.disown("org.example.app");
        app.own("org.example.app");
    }
    EXPECT_THAT(device->acknowledged, IsEmpty());
    app.error.clear();
    EXPECT_TRUE(isTaken("i1"));
}

TEST_F(Messages, WaitForANameThatNobodyHas) {
    Application app;
    begin(app);
    app.disown("org.example.app");
    device->publish(endpoint, "i1", "one");
    ASSERT_TRUE(until([&] { return device->receives() > 0; }));
    EXPECT_FALSE(until([&] { return !app.calls.empty(); }, 300));
    app.own("org.example.app");
    ASSERT_TRUE(isTaken("i1"));
    EXPECT_THAT(app.calls, ElementsAre("Message t1 one i1"));
}

TEST_F(Messages, OfAnObjectThatComesLateAreCalledAgain) {
    start();
    {
        Application first;
        enroll(first, "t1");
    }
    ASSERT_TRUE(isReceived(endpoint));
    device->publish(endpoint, "i1", "one");
    Application late("org.example.app", false);
    EXPECT_FALSE(until([&] { return !device->acknowledged.empty(); }, 300));
    late.makeObject();
    ASSERT_TRUE(isTaken("i1"));
    EXPECT_THAT(late.calls, ElementsAre("Message t1 one i1"));
}

TEST_F(Messages, WhoseTimeIsOverAreAcknowledgedUnsent) {
    Application app;
    begin(app);
    app.disown("org.example.app");
    const int64_t soon = g_get_real_time() / G_USEC_PER_SEC + 1;
    device->publish(endpoint, "i1", "late", soon - 100);
    device->publish(endpoint, "i2", "too late soon", soon);
    device->publish(endpoint, "i3", "in time", soon + 100);
    ASSERT_TRUE(isTaken("i2"));
    EXPECT_THAT(app.calls, IsEmpty());
    app.own("org.example.app");
    ASSERT_TRUE(isTaken("i3"));
    EXPECT_THAT(app.calls, ElementsAre("Message t1 in time i3"));
}

TEST_F(Messages, OfASilentApplicationDelayNoOther) {
    Application silent, other("org.example.other");
    start();
    enroll(silent, "t1");
    enroll(other, "t2");
    silent.silent = true;
    device->publish(endpoint, "i1", "one");
    ASSERT_TRUE(until([&] { return !silent.calls.empty(); }));
    const std::string otherEndpoint = nameOf("t2", "", "org.example.other");
    for (int i = 0; i < 20; ++i)
        device->publish(otherEndpoint, "o" + std::to_string(i), "text");
    ASSERT_TRUE(isTaken("o19"));
    EXPECT_EQ(other.calls.size(), 20U);
    EXPECT_EQ(device->waiting(endpoint), 1U);
}

TEST_F(Messages, ThatAreNotAnsweredInTimeComeAgain) {
    Application app;
    begin(app);
    bridge->patience().answer = 1;
    app.silent = true;
    device->publish(endpoint, "i1", "one");
    ASSERT_TRUE(until([&] { return app.calls.size() == 2; }));
    app.silent = false;
    ASSERT_TRUE(isTaken("i1"));
}

TEST_F(Messages, OfAnApplicationThatEndsInTheMiddleComeToItsNextProcess) {
    start();
    {
        Application app;
        enroll(app, "t1");
        ASSERT_TRUE(isReceived(endpoint));
        app.silent = true;
        device->publish(endpoint, "i1", "one");
        ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    }
    Application next;
    ASSERT_TRUE(isTaken("i1"));
    EXPECT_THAT(next.calls, ElementsAre("Message t1 one i1"));
}

TEST_F(Messages, OfABridgeThatEndsInTheMiddleComeAgainFromTheServer) {
    Application app;
    begin(app);
    app.silent = true;
    device->publish(endpoint, "i1", "one");
    device->publish(endpoint, "i2", "two");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    app.silent = false;
    restart();
    ASSERT_TRUE(isTaken("i2"));
    EXPECT_THAT(app.calls, ElementsAre("Message t1 one i1", "Message t1 one i1", "Message t1 two i2"));
    EXPECT_THAT(device->acknowledged, ElementsAre("i1", "i2"));
}

TEST_F(Messages, ThatComeAgainAfterTheyWereTakenAreOnlyAcknowledged) {
    Application app;
    begin(app);
    device->answersAcknowledgements = false;
    device->publish(endpoint, "i1", "one");
    ASSERT_TRUE(until([&] { return device->count("acknowledge") == 1; }));
    device->answersAcknowledgements = true;
    device->endReceives();
    ASSERT_TRUE(isTaken("i1"));
    EXPECT_THAT(app.calls, ElementsAre("Message t1 one i1"));
}

TEST_F(Messages, ThatComeAgainWhileTheApplicationIsCalledGoOutOnce) {
    Application app;
    begin(app);
    enroll(app, "t2");
    app.silent = true;
    device->publish(endpoint, "i1", "one");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    device->endReceives();
    ASSERT_TRUE(until([&] { return device->count("receive") == 3; }));
    waitForTheDevice(app);
    app.silent = false;
    app.answerWhatWaits();
    ASSERT_TRUE(isTaken("i1"));
    EXPECT_THAT(app.calls, ElementsAre("Message t1 one i1"));
}

TEST_F(Messages, ThatWereReplacedGiveWayToTheNewOne) {
    Application app;
    begin(app);
    app.disown("org.example.app");
    device->publish(endpoint, "i1", "old");
    ASSERT_TRUE(until([&] { return device->receives() > 0; }));
    device->replace(endpoint, "i2", "new");
    device->endReceives();
    ASSERT_TRUE(until([&] { return device->count("receive") == 2; }));
    app.own("org.example.app");
    ASSERT_TRUE(isTaken("i2"));
    EXPECT_THAT(app.calls, ElementsAre("Message t1 new i2"));
}

TEST_F(Messages, ThatWereReplacedWhileTheApplicationIsCalledComeAfterIt) {
    Application app;
    begin(app);
    enroll(app, "t2");
    app.silent = true;
    device->publish(endpoint, "i1", "old");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    device->replace(endpoint, "i2", "new");
    device->endReceives();
    ASSERT_TRUE(until([&] { return device->count("receive") == 3; }));
    waitForTheDevice(app);
    app.silent = false;
    app.answerWhatWaits();
    ASSERT_TRUE(isTaken("i2"));
    EXPECT_THAT(app.calls, ElementsAre("Message t1 old i1", "Message t1 new i2"));
}

TEST_F(Messages, ThatWereReplacedWhileTheApplicationEndsGiveWayToTheNewOne) {
    start();
    {
        Application app;
        enroll(app, "t1");
        enroll(app, "t2");
        ASSERT_TRUE(isReceived(endpoint));
        app.silent = true;
        device->publish(endpoint, "i1", "old");
        ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
        device->replace(endpoint, "i2", "new");
        device->endReceives();
        ASSERT_TRUE(until([&] { return device->count("receive") == 3; }));
        waitForTheDevice(app);
    }
    Application next;
    ASSERT_TRUE(isTaken("i2"));
    EXPECT_THAT(next.calls, testing::UnorderedElementsAre("Message t1 new i2", "Message t2 other j1"));
}

TEST_F(Messages, ToManyRegistrationsOfOneApplicationAllArrive) {
    Application app;
    start();
    for (int i = 0; i < 100; ++i)
        app.enroll("t" + std::to_string(i));
    ASSERT_TRUE(until([&] { return app.answers.size() == 100 && app.calls.size() == 100; }))
        << app.answers.size() << " answers, " << app.calls.size() << " calls";
    for (int i = 0; i < 100; ++i)
        device->publish(nameOf("t" + std::to_string(i)), "i" + std::to_string(i), "text");
    EXPECT_TRUE(until([&] { return device->acknowledged.size() == 100; }));
    EXPECT_EQ(app.calls.size(), 200U);
}

}  // namespace
