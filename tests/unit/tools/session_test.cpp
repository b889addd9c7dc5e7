// SPDX-License-Identifier: GPL-3.0-only
// Logging in, logging out and showing the account, on a real bus.
#include <gmock/gmock.h>

#include "tests/unit/host/privatebus.h"
#include "tests/unit/tools/commandline.h"
#include "tests/unit/tools/fakehost.h"
#include "tests/unit/tools/fakeservice.h"

namespace {

using testing::ElementsAre;

constexpr char kUp[] = R"({"returnValue":true, "connected":true, "session" : true, "network": true})";
constexpr char kDown[] = R"({"returnValue":true, "connected":false, "session":true, "network":true})";

class Session : public testing::Test, public CommandLine {
  protected:
    // What the service posts once it is told to log in.
    void onLogin(std::vector<std::string> posts) {
        m_posts = std::move(posts);
        service.afterReply = [this](const std::string& method) {
            if (method != "initializeAccount")
                return;
            for (const std::string& post : m_posts)
                service.post("subscribeConnStatus", post.c_str());
        };
    }

    PrivateBus bus;
    FakeService service;

  private:
    std::vector<std::string> m_posts;
};

TEST_F(Session, LoginWaitsForTheConnection) {
    service.script["subscribeConnStatus"] = kDown;
    onLogin({kUp});
    EXPECT_EQ(run({"session", "login"}), Exit::Ok);
    EXPECT_EQ(out.str(), "connected\n");
    EXPECT_THAT(service.calls,
                ElementsAre("subscribeConnStatus {\"subscribe\":true}", "initializeAccount {}"));
}

TEST_F(Session, LoginBearsTheLossOfAStandingConnectionOnce) {
    service.script["subscribeConnStatus"] = kUp;
    onLogin({kDown, kUp});
    EXPECT_EQ(run({"session", "login"}), Exit::Ok);
    EXPECT_EQ(err.str(), "");
    onLogin({kDown, kDown});
    EXPECT_EQ(run({"session", "login"}), Exit::NotConnected);
    EXPECT_EQ(err.str(), "pubsubctl: the login failed; run `pubsubctl doctor` to find the reason\n");
}

TEST_F(Session, LoginFailsWhenTheServiceReportsNoConnection) {
    service.script["subscribeConnStatus"] = kDown;
    onLogin({kDown});
    EXPECT_EQ(run({"session", "login"}), Exit::NotConnected);
    EXPECT_EQ(out.str(), "");
}

TEST_F(Session, LoginDoesNotWaitForEver) {
    service.script["subscribeConnStatus"] = kDown;
    onLogin({});
    EXPECT_EQ(run({"--timeout", "1", "session", "login"}), Exit::TimedOut);
    EXPECT_EQ(err.str(), "pubsubctl: no connection within 1 s; run `pubsubctl doctor` to find the reason\n");
}

TEST_F(Session, DisconnectCallsTheService) {
    service.script["disconnect"] = R"({"returnValue":true})";
    EXPECT_EQ(run({"session", "disconnect"}), Exit::Ok);
    EXPECT_EQ(out.str(), "disconnected\n");
}

TEST_F(Session, DisconnectTellsTheHostFirst) {
    FakeHost host;
    host.journal = &service.calls;
    service.script["disconnect"] = R"({"returnValue":true})";
    EXPECT_EQ(run({"session", "disconnect"}), Exit::Ok);
    EXPECT_THAT(service.calls, ElementsAre(R"(keep {"keep":false})", "disconnect {}"));
    EXPECT_EQ(err.str(), "");
}

TEST_F(Session, LoginTellsTheHostFirst) {
    FakeHost host;
    host.journal = &service.calls;
    service.script["subscribeConnStatus"] = kDown;
    onLogin({kUp});
    EXPECT_EQ(run({"session", "login"}), Exit::Ok);
    EXPECT_THAT(service.calls,
                ElementsAre(R"(keep {"keep":true})", "subscribeConnStatus {\"subscribe\":true}",
                            "initializeAccount {}"));
}

TEST_F(Session, AHostThatRefusesIsReportedAndKeepsNobodyFromDisconnecting) {
    FakeHost host;
    host.answer = R"({"returnValue":false,"errorText":"why"})";
    service.script["disconnect"] = R"({"returnValue":true})";
    EXPECT_EQ(run({"session", "disconnect"}), Exit::Ok);
    EXPECT_EQ(err.str(), "pubsubctl: zelt-host was not told: why\n");
    EXPECT_EQ(out.str(), "disconnected\n");
}

TEST_F(Session, JidNamesUserAndResource) {
    service.script["getJabberId"] = R"({"returnValue":true,"username":"device1"})";
    service.script["getResource"] = R"({"returnValue":true,"resource":"abc"})";
    EXPECT_EQ(run({"session", "jid"}), Exit::Ok);
    EXPECT_EQ(run({"--json", "session", "jid"}), Exit::Ok);
    EXPECT_EQ(out.str(), "device1  resource: abc\n{\"user\":\"device1\",\"resource\":\"abc\"}\n");
}

TEST_F(Session, JidSaysThatThereIsNoneYet) {
    service.script["getJabberId"] = R"({"returnValue":true,"username":""})";
    service.script["getResource"] = R"({"returnValue":true,"resource":""})";
    EXPECT_EQ(run({"session", "jid"}), Exit::NotConnected);
    EXPECT_EQ(err.str(), "pubsubctl: no account has been used yet; log in with `pubsubctl session login`\n");
}

}  // namespace
