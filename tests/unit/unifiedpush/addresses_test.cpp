// SPDX-License-Identifier: GPL-3.0-only
// The device's side: addresses that change, restarts of the service and of the bus, and many endpoints.
#include "tests/unit/unifiedpush/bridgetest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Addresses : public BridgeTest {
  protected:
    bool isTaken(const std::string& id) {
        return until(
            [&] { return std::count(device->acknowledged.begin(), device->acknowledged.end(), id) > 0; });
    }
};

TEST_F(Addresses, ThatChangeAreToldAfterTheNextConnection) {
    start();
    Application app, other("org.example.other");
    enroll(app, "t1");
    enroll(other, "t2");
    ASSERT_TRUE(until([&] { return device->count("connectStatus") == 1; }));
    device->setOnline(false);
    device->base = "https://elsewhere.example.org/push/";
    device->setOnline(true);
    ASSERT_TRUE(until([&] { return !app.calls.empty() && !other.calls.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre("NewEndpoint t1 https://elsewhere.example.org/push/1"));
    EXPECT_THAT(other.calls, ElementsAre("NewEndpoint t2 https://elsewhere.example.org/push/2"));
}

TEST_F(Addresses, ThatTheServiceHasRenewedAreStoredAndToldAndItemsGoOn) {
    start();
    Application app;
    enroll(app, "t1");
    ASSERT_TRUE(isReceived(nameOf("t1")));
    device->tellAddress(nameOf("t1"), "https://push.example.org/push/renewed");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre("NewEndpoint t1 https://push.example.org/push/renewed"));
    EXPECT_NE(stateText().find("https://push.example.org/push/renewed"), std::string::npos);
    device->publish(nameOf("t1"), "i1", "one");
    EXPECT_TRUE(isTaken("i1"));
}

TEST_F(Addresses, ThatNoSenderCanUseAreNotTaken) {
    start();
    Application app;
    enroll(app, "t1");
    ASSERT_TRUE(isReceived(nameOf("t1")));
    device->tellAddress(nameOf("t1"), "ftp://push.example.org/1");
    device->tellAddress(nameOf("t1"), "https://push.example.org/push/1");  // the one it has
    device->publish(nameOf("t1"), "i1", "one");
    ASSERT_TRUE(isTaken("i1"));
    EXPECT_THAT(app.calls, ElementsAre("Message t1 one i1"));
}

TEST_F(Addresses, ThatDoNotChangeAreNotToldAgain) {
    start();
    Application app;
    enroll(app, "t1");
    ASSERT_TRUE(until([&] { return device->count("connectStatus") == 1; }));
    device->setOnline(false);
    device->setOnline(true);
    ASSERT_TRUE(until([&] { return device->count("createEndpoint") == 2; }));
    restart();
    ASSERT_TRUE(until([&] { return device->count("createEndpoint") == 3 && device->receives() > 0; }));
    EXPECT_THAT(app.calls, IsEmpty());
}

TEST_F(Addresses, ThatTheApplicationDidNotTakeAreToldAgainAfterARestart) {
    start();
    Application app;
    app.silent = true;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    app.silent = false;
    restart();
    ASSERT_TRUE(until([&] { return app.calls.size() == 2; }));
    EXPECT_EQ(app.calls[1], "NewEndpoint t1 https://push.example.org/push/1");
}

TEST_F(Addresses, OfAnApplicationThatIsNotThereAreToldWhenItIs) {
    start();
    {
        Application app;
        enroll(app, "t1");
    }
    ASSERT_TRUE(until([&] { return device->count("connectStatus") == 1; }));
    device->setOnline(false);
    device->base = "https://elsewhere.example.org/push/";
    device->setOnline(true);
    ASSERT_TRUE(until([&] { return device->count("createEndpoint") == 2; }));
    Application next;
    ASSERT_TRUE(until([&] { return !next.calls.empty(); }));
    EXPECT_THAT(next.calls, ElementsAre("NewEndpoint t1 https://elsewhere.example.org/push/1"));
}

TEST_F(Addresses, AreAskedForWithoutMakingTheServiceConnect) {
    device->online = false;
    start();
    Application app;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return device->count("createEndpoint") >= 2; }));
    EXPECT_EQ(device->count("connectStatus"), 0);
}

TEST_F(Addresses, OfAServiceThatWasRestartedAreReceivedAgain) {
    start();
    Application app;
    enroll(app, "t1");
    device.reset();
    device = std::make_unique<FakeDevice>();
    ASSERT_TRUE(isReceived(nameOf("t1")));
    device->publish(nameOf("t1"), "i1", "one");
    ASSERT_TRUE(isTaken("i1"));
    EXPECT_THAT(app.calls, ElementsAre("Message t1 one i1"));
}

TEST_F(Addresses, OfABusThatWasRestartedAreReceivedAgainAndTheNameStays) {
    networkPatience = 300;
    start();
    Application app;
    enroll(app, "t1");
    device.reset();
    publicBus.stop();
    app.enroll("t2");
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre("REGISTRATION_FAILED NETWORK"));
    publicBus.start();
    device = std::make_unique<FakeDevice>();
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    ASSERT_TRUE(isReceived(nameOf("t1")));
    device->publish(nameOf("t1"), "i1", "one");
    ASSERT_TRUE(isTaken("i1"));
    EXPECT_FALSE(ended);
}

// More requests than go out at once; those that wait fail with those that were sent.
TEST_F(Addresses, OfAServiceThatEndsWithRequestsOpenFollow) {
    networkPatience = 300;
    start();
    Application app;
    enroll(app, "t0");
    device->silent = true;
    for (int i = 1; i <= 40; ++i)
        app.enroll("t" + std::to_string(i));
    ASSERT_TRUE(until([&] { return device->count("createEndpoint") >= 32; }));
    device.reset();
    ASSERT_TRUE(until([&] { return app.answers.size() == 40; }));
    EXPECT_THAT(app.answers, testing::Each("REGISTRATION_FAILED NETWORK"));
    device = std::make_unique<FakeDevice>();
    EXPECT_TRUE(until([&] { return app.calls.size() >= 40; }));  // t0 may have another address
}

TEST_F(Addresses, OfABusThatEndsWithRequestsOpenFollow) {
    networkPatience = 300;
    start();
    Application app;
    enroll(app, "t0");
    device->silent = true;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return device->count("createEndpoint") >= 2; }));
    publicBus.stop();
    device.reset();
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre("REGISTRATION_FAILED NETWORK"));
    publicBus.start();
    device = std::make_unique<FakeDevice>();
    EXPECT_TRUE(until([&] { return !app.calls.empty(); }));
}

TEST_F(Addresses, OfAnEarlierKeyAreNotToldWhenTheyChange) {
    start();
    Application app;
    enroll(app, "t1", kVapid);
    enroll(app, "t1", kOtherVapid);
    device->base = "https://elsewhere.example.org/push/";
    device->setOnline(false);
    device->setOnline(true);
    ASSERT_TRUE(until([&] { return stateText().find("elsewhere.example.org/push/1") != std::string::npos; }));
    app.enroll("t2");  // what is told for the others is told before
    ASSERT_TRUE(until([&] { return !app.calls.empty() && app.calls.back().starts_with("NewEndpoint t2"); }));
    EXPECT_THAT(app.calls, ElementsAre("NewEndpoint t1 https://elsewhere.example.org/push/2",
                                       "NewEndpoint t2 https://elsewhere.example.org/push/3"));
}

TEST_F(Addresses, ThatTheServerRefusesLaterStayWithTheirApplications) {
    start();
    Application app;
    enroll(app, "t1");
    device->refusal = "xmppErr resource-constraint";
    const int before = device->count("createEndpoint");
    device->setOnline(false);
    device->setOnline(true);
    ASSERT_TRUE(until([&] { return device->count("createEndpoint") > before; }));
    until([] { return false; }, 50);
    EXPECT_EQ(device->count("createEndpoint"), before + 1);
    EXPECT_THAT(stateText(), testing::HasSubstr("\"t1\""));
    device->publish(nameOf("t1"), "i1", "one");
    EXPECT_TRUE(isTaken("i1"));
}

TEST_F(Addresses, ThatCannotBeWrittenFailTheRegistrationThatWaits) {
    device->online = false;
    start();
    Application app;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return device->count("createEndpoint") > 0; }));
    std::filesystem::create_directories(folder / "state/registrations.json.new");
    device->setOnline(true);
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre("REGISTRATION_FAILED INTERNAL_ERROR"));
    EXPECT_TRUE(app.calls.empty());
}

TEST_F(Addresses, OfABusThatIsNotThereYetFollow) {
    networkPatience = 300;
    device.reset();
    publicBus.stop();
    start();
    Application app;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    publicBus.start();
    device = std::make_unique<FakeDevice>();
    EXPECT_TRUE(until([&] { return !app.calls.empty(); }));
}

TEST_F(Addresses, ThatTheServiceRefusesToReceiveAreAskedForAgain) {
    device->receiveRefusal =
        "appErr Endpoint up- is received by :1.7. End that receive, or name other endpoints";
    start();
    Application app;
    enroll(app, "t1");
    ASSERT_TRUE(until([&] { return device->count("receive") >= 2; }));
    device->receiveRefusal.clear();
    device->publish(nameOf("t1"), "i1", "one");
    EXPECT_TRUE(isTaken("i1"));
}

TEST_F(Addresses, ThatTheServiceDoesNotKnowAreMadeAnew) {
    start();
    Application app;
    enroll(app, "t1");
    ASSERT_TRUE(isReceived(nameOf("t1")));
    device->endpoints.clear();
    device->endReceives();
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre("NewEndpoint t1 https://push.example.org/push/2"));
}

TEST_F(Addresses, OfManyApplicationsShareReceives) {
    start();
    std::vector<std::unique_ptr<Application>> apps;
    for (int each = 0; each < 5; ++each) {
        apps.push_back(std::make_unique<Application>("org.example.app" + std::to_string(each)));
        for (int i = 0; i < 100; ++i) {
            apps.back()->enroll("t" + std::to_string(i));
            if (i % 10 == 0) {
                ASSERT_TRUE(
                    until([&] { return apps.back()->calls.size() > static_cast<std::size_t>(i); }, 60'000));
            }
        }
        ASSERT_TRUE(until([&] { return apps.back()->calls.size() == 100; }, 60'000));
    }
    EXPECT_LE(device->receives(), 40U);
    for (int each = 0; each < 5; ++each)
        for (int i = 0; i < 100; ++i)
            device->publish(nameOf("t" + std::to_string(i), "", "org.example.app" + std::to_string(each)),
                            std::to_string(each) + "-" + std::to_string(i), "text");
    ASSERT_TRUE(until([&] { return device->acknowledged.size() == 500; }, 60'000));
    for (const auto& app : apps)
        EXPECT_EQ(app->calls.size(), 200U);
}

}  // namespace
