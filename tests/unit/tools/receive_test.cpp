// SPDX-License-Identifier: GPL-3.0-only
// Receiving items that the server keeps: what is acknowledged and when, what is given back, and what is left.
#include <gmock/gmock.h>

#include "tests/unit/tools/publicsteps.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kReceiving[] = R"({"returnValue":true,"endpoints":["box"]})";
constexpr char kTaken[] = R"({"returnValue":true,"endpoint":"box"})";
constexpr char kUnknown[] =
    R"({"returnValue":false,"errorCode":"appErr","errorText":"Unknown receipt: its item is gone"})";

std::string itemText(const std::string& text, const std::string& id, const std::string& receipt,
                     const std::string& more = "") {
    return R"({"returnValue":true,"endpoint":"box","item":")" + text + R"(","itemid":")" + id +
           R"(","receipt":")" + receipt + "\"" + more + "}";
}

std::string taken(const std::string& receipt) {
    return R"(acknowledge {"endpoint":"box","receipt":")" + receipt + "\"}";
}

std::string givenBack(const std::string& receipt, int seconds) {
    return R"(acknowledge {"endpoint":"box","receipt":")" + receipt + R"(","retry":)" +
           std::to_string(seconds) + "}";
}

class Receive : public PublicSteps {
  protected:
    Receive() {
        service.script["receive"] = kReceiving;
        service.script["acknowledge"] = kTaken;
    }
    // Hands out the first item when somebody receives, the others after the answers to what is open.
    void handOut(std::vector<std::string> items) {
        m_items = std::move(items);
        m_handedOut = 0;
        service.afterReply = [this](const std::string& method) {
            if ((method == "receive" || method == "acknowledge") && m_handedOut < m_items.size())
                schedule([this] { service.post("receive", m_items[m_handedOut++].c_str()); });
        };
    }
    // What a command has written.
    std::string written() {
        std::string text;
        std::string problem;
        Console console(in, out, err, false);
        EXPECT_TRUE(readWhole(console, m_file, text, problem)) << problem;
        return text;
    }
    std::vector<std::string> command(const std::string& script) {
        return {"--", "sh", "-c", "f=" + m_file + "; " + script};
    }
    Exit runWith(std::vector<std::string> words, const std::string& script) {
        for (const std::string& word : command(script))
            words.push_back(word);
        return run(std::move(words));
    }
    void TearDown() override {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        unlink(m_file.c_str());
    }

    std::string m_file = testing::TempDir() + "pubsubctl-received-" + std::to_string(getpid());
    std::string m_call = R"(receive {"subscribe":true,"endpoints":["box"]})";

  private:
    std::vector<std::string> m_items;
    size_t m_handedOut = 0;
};

TEST_F(Receive, PrintsAndAcknowledgesOneItemAfterTheOtherUntilTheCount) {
    handOut({itemText("one", "1", "r1"), itemText("two\\nlines", "2", "r2"), itemText("beyond", "3", "r3")});
    EXPECT_EQ(run({"subscribe", "box", "-C", "2"}), Exit::Ok);
    EXPECT_EQ(out.str(), "one\ntwo\nlines\n");
    EXPECT_EQ(err.str(), "pubsubctl: receiving the items of box\n");
    EXPECT_THAT(service.calls, ElementsAre(m_call, taken("r1"), taken("r2")));
}

TEST_F(Receive, PrintsWhatIsKnownOfAnItemUnderJson) {
    handOut({itemText("a\\\"b", "1", "r1"),
             itemText("eA==", "2", "r2", R"(,"encoding":"base64","expires":7,"published":5)")});
    EXPECT_EQ(run({"--json", "subscribe", "box", "-C", "2"}), Exit::Ok);
    EXPECT_EQ(
        out.str(),
        "{\"endpoint\":\"box\",\"item\":\"a\\\"b\",\"itemid\":\"1\"}\n"
        "{\"endpoint\":\"box\",\"item\":\"eA==\",\"itemid\":\"2\",\"encoding\":\"base64\",\"expires\":7,"
        "\"published\":5}\n");
}

TEST_F(Receive, GivesTheBytesOfAnItemThatIsNoText) {
    handOut({itemText("AAH/Cg==", "1", "r1", R"(,"encoding":"base64","urgency":"high")")});
    EXPECT_EQ(runWith({"subscribe", "box", "-C", "1"}, "od -An -tx1 >>$f"), Exit::Ok);
    EXPECT_EQ(written(), " 00 01 ff 0a\n");
    handOut({itemText("AAH/Cg==", "1", "r1", R"(,"encoding":"base64","urgency":"high")")});
    EXPECT_EQ(run({"--json", "subscribe", "box", "-C", "1"}), Exit::Ok);
    EXPECT_EQ(out.str(),
              "{\"endpoint\":\"box\",\"item\":\"AAH/Cg==\",\"itemid\":\"1\","
              "\"encoding\":\"base64\",\"urgency\":\"high\"}\n");
}

TEST_F(Receive, AcknowledgesNothingThatItCouldNotPrint) {
    handOut({itemText("one", "1", "r1")});
    out.setstate(std::ios::badbit);
    EXPECT_EQ(run({"subscribe", "box"}), Exit::CommandFailed);
    EXPECT_EQ(
        err.str(),
        "pubsubctl: receiving the items of box\n"
        "pubsubctl: the output is closed or full; the item stays with the server and is the next one that "
        "is received\n");
    EXPECT_THAT(service.calls, ElementsAre(m_call));
}

TEST_F(Receive, AcknowledgesWhenTheCommandHasEndedWithZero) {
    handOut({itemText("one", "1", "r1"), itemText("two", "2", "r2")});
    std::string seen;
    auto next = service.afterReply;
    service.afterReply = [&, next](const std::string& method) {
        if (method == "acknowledge")
            seen += written() + "|";
        next(method);
    };
    EXPECT_EQ(runWith({"subscribe", "box", "-C", "2"}, "sleep 0.05; cat >>$f"), Exit::Ok);
    EXPECT_EQ(seen, "one|onetwo|");
    EXPECT_THAT(service.calls, ElementsAre(m_call, taken("r1"), taken("r2")));
}

TEST_F(Receive, GivesAnItemBackWhoseCommandFailsAndRunsItAgain) {
    handOut({itemText("one", "1", "r1"), itemText("one", "1", "r2"), itemText("one", "1", "r3"),
             itemText("two", "2", "r4")});
    EXPECT_EQ(runWith({"subscribe", "box", "-C", "2"}, "cat >>$f; test $(wc -c <$f) -ge 9"), Exit::Ok);
    EXPECT_EQ(written(), "oneoneonetwo");
    EXPECT_THAT(service.calls,
                ElementsAre(m_call, givenBack("r1", 1), givenBack("r2", 2), taken("r3"), taken("r4")));
    EXPECT_EQ(err.str(),
              "pubsubctl: receiving the items of box\n"
              "pubsubctl: sh exited with code 1; it is run again in 1 s (retry 1 of 3)\n"
              "pubsubctl: sh exited with code 1; it is run again in 2 s (retry 2 of 3)\n");
}

TEST_F(Receive, LeavesAnItemAtTheServerWhenItsCommandFailsTooOften) {
    handOut({itemText("bad", "1", "r1"), itemText("bad", "1", "r2"), itemText("bad", "1", "r3"),
             itemText("bad", "1", "r4"), itemText("never", "2", "r5")});
    EXPECT_EQ(runWith({"subscribe", "box"}, "cat >>$f; kill -9 $$"), Exit::CommandFailed);
    EXPECT_EQ(written(), "badbadbadbad");
    EXPECT_THAT(service.calls,
                ElementsAre(m_call, givenBack("r1", 1), givenBack("r2", 2), givenBack("r3", 4)));
    EXPECT_THAT(err.str(),
                HasSubstr("pubsubctl: sh was killed by signal 9; the item stays with the server and is "
                          "the next one that is received\n"));
    EXPECT_TRUE(FakeService::until([this] { return !service.cancelled.empty(); }));
}

TEST_F(Receive, CountsTheRetriesOfEachItemAlone) {
    handOut({itemText("one", "1", "r1"), itemText("one", "1", "r2"), itemText("two", "2", "r3"),
             itemText("two", "2", "r4")});
    EXPECT_EQ(runWith({"subscribe", "box", "-C", "2", "--retries", "1"},
                      "echo >>$f; test $(($(wc -l <$f) % 2)) = 0"),
              Exit::Ok);
    EXPECT_THAT(service.calls,
                ElementsAre(m_call, givenBack("r1", 1), taken("r2"), givenBack("r3", 1), taken("r4")));
}

TEST_F(Receive, RunsACommandOnceWithoutRetries) {
    handOut({itemText("bad", "1", "r1")});
    EXPECT_EQ(runWith({"subscribe", "box", "--retries", "0"}, "exit 3"), Exit::CommandFailed);
    EXPECT_THAT(err.str(), HasSubstr("pubsubctl: sh exited with code 3; the item stays"));
    EXPECT_THAT(service.calls, ElementsAre(m_call));
}

TEST_F(Receive, WaitsNoLongerThanTheTimeForAnItemThatIsRunAgain) {
    handOut({itemText("bad", "1", "r1")});
    EXPECT_EQ(runWith({"subscribe", "box", "-C", "1", "-W", "1"}, "exit 1"), Exit::CommandFailed);
    EXPECT_THAT(service.calls, ElementsAre(m_call, givenBack("r1", 1)));
    EXPECT_THAT(err.str(), HasSubstr("pubsubctl: timed out: 0 of 1 received\n"));
}

TEST_F(Receive, LeavesTheItemWhenItIsEndedWhileTheCommandRuns) {
    handOut({itemText("one", "1", "r1")});
    EXPECT_EQ(runWith({"subscribe", "box"}, "kill -TERM $PPID; sleep 10"), Exit::CommandFailed);
    EXPECT_THAT(err.str(), HasSubstr("pubsubctl: sh was killed by signal 15; the item stays"));
    EXPECT_THAT(service.calls, ElementsAre(m_call));
}

TEST_F(Receive, TakesAnItemOnceWhoseAcknowledgementWasNotAccepted) {
    handOut({itemText("one", "1", "r1"), itemText("one", "1", "r2"), itemText("one", "2", "r3")});
    service.script["acknowledge"] = kUnknown;
    auto next = service.afterReply;
    service.afterReply = [this, next](const std::string& method) {
        service.script["acknowledge"] = method == "acknowledge" ? kTaken : kUnknown;
        next(method);
    };
    EXPECT_EQ(run({"subscribe", "box", "-C", "2"}), Exit::Ok);
    EXPECT_EQ(out.str(), "one\none\n");
    EXPECT_THAT(service.calls, ElementsAre(m_call, taken("r1"), taken("r2"), taken("r3")));
    EXPECT_THAT(err.str(),
                HasSubstr("pubsubctl: the item was not acknowledged and comes again: appErr: Unknown "
                          "receipt: its item is gone\n"));
}

TEST_F(Receive, EndsWhenAnAcknowledgementIsRefusedForAnotherReason) {
    handOut({itemText("one", "1", "r1")});
    service.script["acknowledge"] = R"({"returnValue":false,"errorCode":"libErr","errorText":"why"})";
    EXPECT_EQ(run({"subscribe", "box"}), Exit::Refused);
    EXPECT_THAT(err.str(), HasSubstr("pubsubctl: libErr: why\n"));
}

TEST_F(Receive, ReceivesAgainFromTheNextServiceWhatTheLastDidNotAcknowledge) {
    std::unique_ptr<FakeService> next;
    service.script["acknowledge"] = "";
    after("receive", {[this] { service.post("receive", itemText("one", "1", "r1").c_str()); }});
    auto steps = service.afterReply;
    service.afterReply = [&, steps](const std::string& method) {
        if (method == "acknowledge")
            schedule([&] {
                service.leave();
                next = std::make_unique<FakeService>(QSBus::Public);
                next->script["receive"] = kReceiving;
                next->script["acknowledge"] = kTaken;
                next->afterReply = [&](const std::string& called) {
                    if (called == "receive")
                        schedule([&] { next->post("receive", itemText("one", "1", "s1").c_str()); });
                };
            });
        steps(method);
    };
    EXPECT_EQ(run({"subscribe", "box", "-C", "1"}), Exit::Ok);
    EXPECT_EQ(out.str(), "one\n");
    EXPECT_THAT(next->calls, ElementsAre(m_call, taken("s1")));
    EXPECT_THAT(err.str(), HasSubstr("pubsubctl: the item was not acknowledged and comes again: "));
}

TEST_F(Receive, TellsWhoReceivesAlready) {
    service.script["receive"] =
        R"({"returnValue":false,"errorCode":"appErr","errorText":"Endpoint box is received by :1.5. End that"})";
    EXPECT_EQ(run({"subscribe", "box"}), Exit::Refused);
    EXPECT_EQ(err.str(), "pubsubctl: appErr: Endpoint box is received by :1.5. End that\n");
}

TEST_F(Receive, SaysHowToCreateAnEndpointThatIsMissing) {
    service.script["receive"] =
        R"({"returnValue":false,"errorCode":"appErr","errorText":"No endpoint box. Call createEndpoint first"})";
    EXPECT_EQ(run({"subscribe", "box"}), Exit::Refused);
    EXPECT_EQ(err.str(),
              "pubsubctl: appErr: No endpoint box. Call createEndpoint first (`pubsubctl endpoint "
              "create` does that)\n");
}

TEST_F(Receive, NeedsTheProgramBeforeItReceivesAnything) {
    EXPECT_EQ(run({"subscribe", "box", "--", "no-such-program"}), Exit::Usage);
    EXPECT_THAT(service.calls, IsEmpty());
}

}  // namespace
