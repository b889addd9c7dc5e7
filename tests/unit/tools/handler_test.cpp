// SPDX-License-Identifier: GPL-3.0-only
// The item handler on a real bus: it registers, prints what is delivered to it and withdraws at every exit.
#include <gmock/gmock.h>

#include "tests/unit/host/privatebus.h"
#include "tests/unit/tools/commandline.h"
#include "tests/unit/tools/fakeservice.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Handler : public testing::Test, public CommandLine {
  protected:
    Handler() {
        service.script["registerItemCallback"] = R"({"returnValue":true})";
        service.script["unRegisterItemCallback"] = R"({"returnValue":true})";
    }
    // What happens once the handler is registered.
    void whenRegistered(std::function<void()> step) {
        m_step = std::move(step);
        service.afterReply = [this](const std::string& method) {
            if (method != "registerItemCallback")
                return;
            g_idle_add(
                [](gpointer data) -> gboolean {
                    static_cast<Handler*>(data)->m_step();
                    return FALSE;
                },
                this);
        };
    }
    void deliver(const std::string& text) {
        service.deliver(endpoint,
                        R"({"item":")" + text + R"(","itemid":"7","node":"\/n","returnValue":true})");
    }

    // As to a handler that confirms.
    void ask(const std::string& text) {
        service.ask(endpoint, R"({"item":")" + text + R"(","itemid":"7","node":"\/n","returnValue":true})");
    }

    PrivateBus bus;
    FakeService service;
    std::string name = "com.zelt.pubsubctl.p" + std::to_string(getpid());
    std::string endpoint = "zelt://" + name + "/item";
    std::string registration = R"(registerItemCallback {"node":"/n","endpoint":")" + endpoint + "\"}";
    std::string withdrawal =
        R"(unRegisterItemCallback {"node":"/n","endpoint":")" + endpoint + R"(","app":false})";

  private:
    std::function<void()> m_step;
};

TEST_F(Handler, PrintsEachItemAndWithdrawsAfterTheLast) {
    whenRegistered([this] {
        deliver("one");
        deliver("two\\nlines");
        deliver("beyond the count");
    });
    EXPECT_EQ(run({"handler", "/n", "-C", "2"}), Exit::Ok);
    EXPECT_EQ(out.str(), "one\ntwo\nlines\n");
    EXPECT_EQ(err.str(), "pubsubctl: receiving the items of /n as " + name + "\n");
    EXPECT_THAT(service.calls, ElementsAre(registration, withdrawal));
}

TEST_F(Handler, PrintsNodeAndIdUnderJson) {
    whenRegistered([this] { deliver("one\\ntwo"); });
    EXPECT_EQ(run({"--json", "handler", "/n", "-C", "1"}), Exit::Ok);
    EXPECT_EQ(out.str(), "{\"node\":\"/n\",\"itemid\":\"7\",\"item\":\"one\\ntwo\"}\n");
}

TEST_F(Handler, WithdrawsWhenInterruptedOrEnded) {
    for (int signal : {SIGINT, SIGTERM}) {
        service.calls.clear();
        whenRegistered([signal] { kill(getpid(), signal); });
        EXPECT_EQ(run({"handler", "/n"}), Exit::Ok);
        EXPECT_THAT(service.calls, ElementsAre(registration, withdrawal));
    }
}

TEST_F(Handler, WithdrawsWhenInterruptedBeforeTheAnswerToItsRegistration) {
    service.script["registerItemCallback"] = "";
    whenRegistered([] { kill(getpid(), SIGINT); });
    EXPECT_EQ(run({"handler", "/n"}), Exit::Ok);
    EXPECT_THAT(service.calls, ElementsAre(registration, withdrawal));
    EXPECT_EQ(err.str(), "");
}

TEST_F(Handler, WithdrawsWhenNobodyReadsAnyMore) {
    whenRegistered([this] {
        out.setstate(std::ios::badbit);
        deliver("one");
    });
    EXPECT_EQ(run({"handler", "/n"}), Exit::Ok);
    EXPECT_THAT(service.calls, ElementsAre(registration, withdrawal));
}

TEST_F(Handler, EndsWhenTheTimeIsOverAndSaysWhetherTheCountWasReached) {
    EXPECT_EQ(run({"handler", "/n", "-W", "1"}), Exit::Ok);
    EXPECT_THAT(service.calls, ElementsAre(registration, withdrawal));
    EXPECT_EQ(run({"handler", "/n", "-W", "1", "-C", "3"}), Exit::TimedOut);
    EXPECT_THAT(err.str(), HasSubstr("pubsubctl: timed out: 0 of 3 items received\n"));
}

TEST_F(Handler, EndsAtOnceWhenTheRegistrationIsRefused) {
    service.script["registerItemCallback"] =
        R"({"returnValue":false,"errorCode":"libErr","errorText":"why"})";
    EXPECT_EQ(run({"handler", "/n"}), Exit::Refused);
    EXPECT_EQ(err.str(), "pubsubctl: libErr: why\n");
    EXPECT_THAT(service.calls, ElementsAre(registration));
}

TEST_F(Handler, SaysHowToRemoveARegistrationThatStays) {
    service.script["unRegisterItemCallback"] =
        R"({"returnValue":false,"errorCode":"libErr","errorText":"why"})";
    whenRegistered([this] { deliver("one"); });
    EXPECT_EQ(run({"handler", "/n", "-C", "1"}), Exit::Refused);
    EXPECT_THAT(err.str(),
                HasSubstr("pubsubctl: the registration was not removed; remove it with: pubsubctl call "
                          "unRegisterItemCallback '{\"node\":\"/n\",\"endpoint\":\"" +
                          endpoint + "\",\"app\":false}'\n"));
}

TEST_F(Handler, TellsWhenTheServiceLeavesAndGoesOn) {
    whenRegistered([this] {
        service.leave();
        g_timeout_add(
            100, [](gpointer) -> gboolean { return kill(getpid(), SIGINT), FALSE; }, nullptr);
    });
    EXPECT_EQ(run({"handler", "/n"}), Exit::NotConnected);
    EXPECT_THAT(err.str(),
                HasSubstr("com.zelt.pubsubservice left the bus; delivery resumes when it is back\n"));
}

TEST_F(Handler, EndsWithFourWhenTheBusIsLost) {
    whenRegistered([this] { bus.stop(); });
    EXPECT_EQ(run({"handler", "/n"}), Exit::NotConnected);
    EXPECT_THAT(err.str(), HasSubstr("pubsubctl: the bus closed the connection\n"));
}

TEST_F(Handler, ConfirmsWhatItHasPrintedAndNothingBeyondTheCount) {
    whenRegistered([this] {
        ask("one");
        ask("two");
        ask("beyond the count");
    });
    EXPECT_EQ(run({"handler", "/n", "--confirm", "-C", "2"}), Exit::Ok);
    EXPECT_TRUE(FakeService::until([this] { return service.answers.size() == 3; }));
    EXPECT_EQ(out.str(), "one\ntwo\n");
    EXPECT_THAT(service.answers, ElementsAre(R"({"returnValue":true})", R"({"returnValue":true})",
                                             R"({"returnValue":false})"));
    EXPECT_THAT(service.calls, ElementsAre(R"(registerItemCallback {"node":"/n","endpoint":")" + endpoint +
                                               R"(","confirm":true})",
                                           withdrawal));
}

TEST_F(Handler, DoesNotConfirmWhatNobodyReads) {
    whenRegistered([this] {
        out.setstate(std::ios::badbit);
        ask("one");
    });
    EXPECT_EQ(run({"handler", "/n", "--confirm"}), Exit::Ok);
    EXPECT_TRUE(FakeService::until([this] { return !service.answers.empty(); }));
    EXPECT_THAT(service.answers, ElementsAre(R"({"returnValue":false})"));
}

TEST_F(Handler, RefusesCountsThatAreNone) {
    EXPECT_EQ(run({"handler", "/n", "-C", "0"}), Exit::Usage);
    EXPECT_EQ(run({"handler", "/n", "-W", "x"}), Exit::Usage);
    EXPECT_TRUE(service.calls.empty());
}

}  // namespace
