// SPDX-License-Identifier: GPL-3.0-only
// Register: who may, what is refused, and in which order disk, answer and address come.
#include <algorithm>
#include <filesystem>

#include "tests/unit/unifiedpush/bridgetest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Registering : public BridgeTest {};

constexpr char kSucceeded[] = "REGISTRATION_SUCCEEDED";
constexpr char kFirstUrl[] = "https://push.example.org/push/1";

TEST_F(Registering, IsAnsweredAndThenTheAddressIsTold) {
    start();
    Application app;
    app.onAnswer = [&] { EXPECT_THAT(app.calls, IsEmpty()); };
    app.enroll("t1", kVapid);
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre(kSucceeded));
    EXPECT_THAT(app.calls, ElementsAre(std::string("NewEndpoint t1 ") + kFirstUrl));
    EXPECT_EQ(device->keys[nameOf("t1", kVapid)], kVapid);
}

TEST_F(Registering, OfVersion1HasItsOwnArguments) {
    start();
    Application app;
    app.enroll1("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre(kSucceeded));
    EXPECT_THAT(app.calls, ElementsAre(std::string("NewEndpoint t1 ") + kFirstUrl));
}

TEST_F(Registering, IsOnDiskWithItsAddressBeforeItIsAnswered) {
    start();
    Application app;
    std::string text;
    app.onAnswer = [&] { text = stateText(); };
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(text, HasSubstr(kFirstUrl));
    EXPECT_THAT(text, HasSubstr("\"token\":\"t1\""));
}

TEST_F(Registering, OfAKnownTokenTellsTheAddressEachTimeAlsoWithoutTheServer) {
    start();
    Application app;
    enroll(app, "t1");
    device->setOnline(false);
    for (int i = 0; i < 2; ++i) {
        app.enroll("t1");
        ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
        EXPECT_THAT(app.answers, ElementsAre(kSucceeded));
        EXPECT_THAT(app.calls, ElementsAre(std::string("NewEndpoint t1 ") + kFirstUrl));
        app.calls.clear();
        app.answers.clear();
    }
    EXPECT_EQ(device->count("createEndpoint"), 1);
}

TEST_F(Registering, WithoutTheServerWaitsThenFailsAndTheAddressFollows) {
    networkPatience = 300;
    device->online = false;
    start();
    Application app;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre("REGISTRATION_FAILED NETWORK"));
    EXPECT_THAT(app.calls, IsEmpty());
    device->online = true;
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre(std::string("NewEndpoint t1 ") + kFirstUrl));
    EXPECT_THAT(app.answers, ElementsAre("REGISTRATION_FAILED NETWORK"));
}

TEST_F(Registering, ThatWaitsForTheServerSucceedsWhenItIsThereInTime) {
    device->online = false;
    start();
    Application app;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return device->count("createEndpoint") > 1; }));
    EXPECT_THAT(app.answers, IsEmpty());
    device->online = true;
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre(kSucceeded));
}

TEST_F(Registering, WithoutThePushServiceFailsAndIsKeptOverARestart) {
    networkPatience = 300;
    device.reset();
    start();
    Application app;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre("REGISTRATION_FAILED NETWORK"));
    restart();
    device = std::make_unique<FakeDevice>();
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre(std::string("NewEndpoint t1 ") + kFirstUrl));
}

TEST_F(Registering, OfOneTokenAgainAndAgainWaitsEightTimesAtOnce) {
    device->online = false;
    start();
    Application app;
    for (int i = 0; i < 9; ++i)
        app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre("REGISTRATION_FAILED INTERNAL_ERROR"));
    device->setOnline(true);
    ASSERT_TRUE(until([&] { return app.answers.size() == 9; }));
    EXPECT_EQ(std::count(app.answers.begin(), app.answers.end(), "REGISTRATION_SUCCEEDED"), 8);
}

TEST_F(Registering, OfANameThatAnotherConnectionHasIsUnauthorized) {
    start();
    Application owner("org.example.app"), thief("org.example.thief");
    thief.enrollAs("org.example.app", "t1");
    ASSERT_TRUE(until([&] { return !thief.answers.empty(); }));
    EXPECT_THAT(thief.answers, ElementsAre("REGISTRATION_FAILED UNAUTHORIZED"));
    thief.enrollAs("org.freedesktop.DBus", "t1");
    thief.enrollAs(kDistributorName, "t1");
    ASSERT_TRUE(until([&] { return thief.answers.size() == 3; }));
    EXPECT_THAT(thief.answers[1], "REGISTRATION_FAILED UNAUTHORIZED");
    EXPECT_THAT(thief.answers[2], "REGISTRATION_FAILED UNAUTHORIZED");
    EXPECT_THAT(device->endpoints, IsEmpty());
}

TEST_F(Registering, OfANameThatNobodyHasIsToldToTheConnectionThatAsked) {
    start();
    Application app("");
    app.enrollAs("org.example.app", "t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre(std::string("NewEndpoint t1 ") + kFirstUrl));
}

struct Limit {
    const char* name;
    std::string service, token, vapid, description;
    bool good;
};

class Limits : public Registering, public testing::WithParamInterface<Limit> {};

TEST_P(Limits, AreThoseOfUnifiedPush) {
    start();
    Application app;
    app.enrollAs(GetParam().service, GetParam().token, GetParam().vapid, GetParam().description);
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(app.answers,
                ElementsAre(GetParam().good ? kSucceeded : "REGISTRATION_FAILED INTERNAL_ERROR"));
    EXPECT_EQ(device->endpoints.size(), GetParam().good ? 1U : 0U);
}

const std::string kApp = "org.example.app", kHundred(100, 'x'), kMore(101, 'x');

INSTANTIATE_TEST_SUITE_P(
    Of, Limits,
    testing::Values(Limit{"token", kApp, kHundred, "", "", true}, Limit{"longToken", kApp, kMore, "", "", false},
                    Limit{"noToken", kApp, "", "", "", false}, Limit{"description", kApp, "t", "", kHundred, true},
                    Limit{"longDescription", kApp, "t", "", kMore, false}, Limit{"noName", "", "t", "", "", false},
                    Limit{"uniqueName", ":1.5", "t", "", "", false}, Limit{"badName", "mail", "t", "", "", false},
                    Limit{"shortKey", kApp, "t", kVapid.substr(1), "", false},
                    Limit{"longKey", kApp, "t", kVapid + "A", "", false},
                    Limit{"compressedKey", kApp, "t", "A" + kVapid.substr(1), "", false},
                    Limit{"padding", kApp, "t", kVapid.substr(0, 86) + "=", "", false}),
    [](const auto& each) { return each.param.name; });

TEST_F(Registering, WithAMemberOfAnotherTypeFails) {
    start();
    Application app;
    app.enrollWithNumber("t1");
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre("REGISTRATION_FAILED INTERNAL_ERROR"));
}

TEST_F(Registering, OfTenThousandTokensLeavesOthersTheirShare) {
    start();
    Application greedy("org.example.greedy"), modest("org.example.modest");
    for (int i = 0; i < 10'000; ++i)
        greedy.enroll("t" + std::to_string(i));
    ASSERT_TRUE(until([&] { return greedy.answers.size() == 10'000; }, 60'000));
    const auto succeeded = std::count(greedy.answers.begin(), greedy.answers.end(), kSucceeded);
    EXPECT_GT(succeeded, 0);
    EXPECT_LE(succeeded, 100);
    greedy.answers.clear();
    // Of more than are looked at at the same time, some are to be tried later.
    for (int i = 0; i < 100; ++i)
        greedy.enroll("t" + std::to_string(i));
    for (int i = 100; i < 200; ++i) {
        ASSERT_TRUE(until([&] { return greedy.answers.size() == static_cast<std::size_t>(i); }));
        greedy.enroll("t" + std::to_string(i));
    }
    ASSERT_TRUE(until([&] { return greedy.answers.size() == 200; }));
    EXPECT_EQ(greedy.answers.back(), "REGISTRATION_FAILED ACTION_REQUIRED");
    modest.enroll("t");
    ASSERT_TRUE(until([&] { return !modest.calls.empty(); }));
    EXPECT_THAT(modest.answers, ElementsAre(kSucceeded));
}

struct Refusal {
    const char* name;
    const char* refusal;
    const char* reason;
};

class Refused : public Registering, public testing::WithParamInterface<Refusal> {};

TEST_P(Refused, ByTheServiceIsToldAndForgotten) {
    device->refusal = GetParam().refusal;
    start();
    Application app;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre(std::string("REGISTRATION_FAILED ") + GetParam().reason));
    ASSERT_TRUE(until([&] { return stateText().find("t1") == std::string::npos; }));
    device->refusal.clear();
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
}

INSTANTIATE_TEST_SUITE_P(
    Of, Refused,
    testing::Values(Refusal{"tooMany", "appErr Too many endpoints, the limit is 1000. Call deleteEndpoint first", "ACTION_REQUIRED"},
                    Refusal{"noId", "libErr Error getting appid of calling app", "ACTION_REQUIRED"},
                    Refusal{"serverLimit", "xmppErr resource-constraint", "ACTION_REQUIRED"},
                    Refusal{"conflict", "xmppErr conflict", "INTERNAL_ERROR"}),
    [](const auto& each) { return each.param.name; });

TEST_F(Registering, WithoutAnAddressOfTheServerNeedsSomebodysAction) {
    device->base.clear();
    start();
    Application app;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre("REGISTRATION_FAILED ACTION_REQUIRED"));
}

TEST_F(Registering, ThatCannotBeWrittenFailsAndTheNextOneMaySucceed) {
    start();
    std::ofstream(folder / "state") << "in the way of the folder";
    Application app;
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.answers.empty(); }));
    EXPECT_THAT(app.answers, ElementsAre("REGISTRATION_FAILED INTERNAL_ERROR"));
    std::filesystem::remove(folder / "state");
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.answers[1], kSucceeded);
}

TEST_F(Registering, WithAnotherKeyIsAnEndpointOfItsOwnAndTheOldOneGoesOn) {
    start();
    Application app;
    enroll(app, "t1", kVapid);
    enroll(app, "t1", kOtherVapid);
    EXPECT_EQ(device->endpoints.size(), 2U);
    ASSERT_TRUE(isReceived(nameOf("t1", kVapid)));
    device->publish(nameOf("t1", kVapid), "i1", "sent before");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre("Message t1 sent before i1"));
}

TEST_F(Registering, OfALostStateGetsItsAddressBack) {
    start();
    Application app;
    enroll(app, "t1");
    bridge.reset();
    std::filesystem::remove(folder / "state/registrations.json");
    start();
    app.enroll("t1");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.calls, ElementsAre(std::string("NewEndpoint t1 ") + kFirstUrl));
}

}  // namespace
