// SPDX-License-Identifier: GPL-3.0-only
// Unregister: always confirmed, carried out for whoever has the name, and over a lost connection.
#include <filesystem>

#include "tests/unit/unifiedpush/bridgetest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Unregistering : public BridgeTest {};

TEST_F(Unregistering, DeletesTheEndpointAndIsConfirmed) {
    start();
    Application app;
    enroll(app, "t1");
    app.leave("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty() && device->endpoints.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre(""));
    EXPECT_THAT(app.calls, ElementsAre("Unregistered t1"));
    ASSERT_TRUE(until([&] { return stateText().find("up-") == std::string::npos; }));
    EXPECT_THAT(stateText(), Not(HasSubstr("t1")));
}

TEST_F(Unregistering, OfVersion1IsConfirmedWithTheEmptyToken) {
    start();
    Application app;
    app.enroll1("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    app.calls.clear();
    app.leave1("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty() && device->endpoints.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre("Unregistered "));
}

TEST_F(Unregistering, OfAnUnknownTokenIsConfirmedToo) {
    start();
    Application app("");
    app.leave("never");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre(""));
    EXPECT_THAT(app.calls, ElementsAre("Unregistered never"));
}

TEST_F(Unregistering, WithoutAConnectionIsCarriedOutAtTheNextAlsoOverARestart) {
    start();
    Application app;
    enroll(app, "t1");
    device->setOnline(false);
    app.leave("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre("Unregistered t1"));
    restart();
    EXPECT_EQ(device->endpoints.size(), 1U);
    device->setOnline(true);
    EXPECT_TRUE(until([&] { return device->endpoints.empty(); }));
    EXPECT_TRUE(until([&] { return stateText().find("up-") == std::string::npos; }));
}

TEST_F(Unregistering, WithoutThePushServiceIsCarriedOutWhenItIsThere) {
    start();
    Application app;
    enroll(app, "t1");
    device.reset();
    app.leave("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre("Unregistered t1"));
    device = std::make_unique<FakeDevice>();
    EXPECT_TRUE(until([&] { return device->count("deleteEndpoint " + nameOf("t1")) > 0; }));
}

TEST_F(Unregistering, IsNothingToAReceiveThatEndsLater) {
    start();
    Application app;
    enroll(app, "t1");
    ASSERT_TRUE(isReceived(nameOf("t1")));
    device->online = false;  // the endpoint stays, and so does the receive
    app.leave("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    device.reset();
    device = std::make_unique<FakeDevice>();
    app.calls.clear();
    enroll(app, "t2");
    EXPECT_TRUE(isReceived(nameOf("t2")));
}

TEST_F(Unregistering, ThatTheServerRefusesIsConfirmedAndTriedAgain) {
    start();
    Application app;
    enroll(app, "t1");
    device->deletionRefusal = "xmppErr internal-server-error";
    app.leave("t1");
    ASSERT_TRUE(until([&] { return device->count("deleteEndpoint") == 1; }));
    enroll(app, "t2");  // the refusal is there before this is answered
    device->deletionRefusal.clear();
    restart();
    EXPECT_TRUE(until([&] { return !device->endpoints.contains(nameOf("t1")); }));
}

TEST_F(Unregistering, WhenTheConnectionWasLostUnnoticedIsCarriedOutAtTheNext) {
    start();
    Application app;
    enroll(app, "t1");
    device->online = false;
    app.leave("t1");
    ASSERT_TRUE(until([&] { return device->count("deleteEndpoint") == 1; }));
    EXPECT_EQ(device->endpoints.size(), 1U);
    device->setOnline(false);
    device->setOnline(true);
    EXPECT_TRUE(until([&] { return device->endpoints.empty(); }));
}

TEST_F(Unregistering, OfOneTokenLeavesTheOthersOfTheApplication) {
    start();
    Application app;
    enroll(app, "t1");
    enroll(app, "t2");
    ASSERT_TRUE(isReceived(nameOf("t2")));
    app.leave("t1");
    ASSERT_TRUE(until([&] { return device->endpoints.size() == 1; }));
    device->publish(nameOf("t2"), "i1", "one");
    ASSERT_TRUE(until([&] { return app.calls.size() == 2; }));
    EXPECT_THAT(app.calls, ElementsAre("Unregistered t1", "Message t2 one i1"));
}

TEST_F(Unregistering, IsConfirmedAlsoWhenTheDiskIsFull) {
    start();
    Application app;
    enroll(app, "t1");
    std::filesystem::create_directories(folder / "state/registrations.json.new");
    app.leave("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre("Unregistered t1"));
}

TEST_F(Unregistering, ByAnotherConnectionThanTheApplicationsRemovesNothing) {
    start();
    Application app, thief("org.example.thief");
    enroll(app, "t1");
    thief.leave("t1");
    ASSERT_TRUE(until([&] { return !thief.calls.empty(); }));
    EXPECT_THAT(thief.calls, ElementsAre("Unregistered t1"));
    EXPECT_THAT(app.calls, IsEmpty());
    EXPECT_THAT(stateText(), HasSubstr("t1"));
}

TEST_F(Unregistering, ThenRegisteringAgainHasAnEndpointAtTheEnd) {
    start();
    Application app;
    enroll(app, "t1");
    app.leave("t1");
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return app.calls.size() >= 2; }));
    ASSERT_TRUE(until([&] { return app.calls.back() == "NewEndpoint t1 https://push.example.org/push/2"; }));
    EXPECT_TRUE(device->endpoints.contains(nameOf("t1")));
}

TEST_F(Unregistering, WhileRegisteringWaitsForTheServerEndsTheWait) {
    device->online = false;
    start();
    Application app;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return device->count("createEndpoint") > 0; }));
    app.leave("t1");
    ASSERT_TRUE(until([&] { return app.answers.size() == 2; }));
    EXPECT_THAT(app.answers, testing::UnorderedElementsAre("REGISTRATION_FAILED INTERNAL_ERROR", ""));
}

}  // namespace
