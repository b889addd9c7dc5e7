// SPDX-License-Identifier: GPL-3.0-only
// On-close notices: recording, renewing and withdrawing them, and the component that receives them.
#include "tests/unit/endpoints/endpointtest.h"

namespace {

const std::string kOfflineStore = "pubsubservice.offlineMap";
const std::string kListen = R"({"subscribe":true})";
const std::string kRegistered = R"({"returnValue":true})";
const std::string kOpened =
    R"({ "returnValue": true, "appid": "\/u1234\/dev42\/com.example.app\/inbox", "open": true })";

std::string listenRefusal(const std::string& code, const std::string& text) {
    return R"({ "returnValue": false, "errorCode": ")" + code + R"(", "errorText": ")" + text + R"(" })";
}

}  // namespace

class OnClose : public EndpointTest {
  protected:
    Answer listen(const std::string& payload = kListen) {
        return callPrivate(registerOnClose, "registerOnClose", payload);
    }
    Answer record(const std::string& payload = kInbox, const std::string& appId = "com.example.app 4711") {
        return ask(subscribeOnClose, "subscribeOnClose", payload, appId);
    }
    Answer withdraw() { return ask(unsubscribeOnClose, "unsubscribeOnClose"); }
};

// --- registerOnClose

TEST_F(OnClose, ListenerIsSubscribedAndAnswered) {
    const Answer listener = listen();
    EXPECT_EQ(takeEvents(),
              (Texts{"bus.subscribe private /+registerOnClose", "bus.reply registerOnClose " + kRegistered}));
    EXPECT_TRUE(listener.kept());
    EXPECT_TRUE(session().m_onCloseRegistered);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(OnClose, ListenerNeedsNoConnectionAndNoManager) {
    session().dropClient();
    delete std::exchange(session().m_pubsub, nullptr);
    EXPECT_EQ(listen(), kRegistered);
}

TEST_F(OnClose, ListenerIsRefusedWithTheReason) {
    for (const auto& [payload, text] :
         {std::pair("{", "Malformed json"), std::pair("null", "Malformed json"),
          std::pair("{}", "No subscribe provided"), std::pair("[]", "No subscribe provided"),
          std::pair(R"({"subscribe":null})", "No subscribe provided"),
          std::pair(R"({"subscribe":false})", "Subscribe should be true")}) {
        const Answer listener = listen(payload);
        EXPECT_EQ(listener, listenRefusal("parameterErr", text)) << payload;
        EXPECT_FALSE(listener.kept());
        EXPECT_EQ(log().contains("Malformed json packet? \n"), std::string(text) == "Malformed json")
            << payload;
        log().clear();
    }
    EXPECT_FALSE(session().m_onCloseRegistered);
}

TEST_F(OnClose, ListenerIsRefusedWhenTheBusDoesNotTakeIt) {
    fakeBus().failNext("QSSubscriptionProcess", -5, "no way");
    EXPECT_EQ(listen(), listenRefusal("libErr", "Subscribe on Zelt bus failed"));
    EXPECT_EQ(takeLogLines()[0], "registerOnClose: Processing subscription failed -5 no way");
    EXPECT_FALSE(session().m_onCloseRegistered);
}

TEST_F(OnClose, ListenerThatCannotBeAnsweredIsLogged) {
    fakeBus().failNext("QSMessageReply", -5, "no way");
    listen();
    EXPECT_EQ(takeLogLines(), Texts{"registerOnClose: Sending reply to client failed -5 no way"});
}

// --- subscribeOnClose

TEST_F(OnClose, FirstRequestIsRecordedSilently) {
    const Answer listener = listen();
    takeEvents();
    const Answer reply = record();
    EXPECT_EQ(takeEvents(),
              (Texts{"prefs.set " + kOfflineStore + ' ' + kNode + " com.example.app",
                     "prefs.commit " + kOfflineStore, "bus.reply subscribeOnClose " + kSuccess}));
    EXPECT_EQ(session().m_offlineMap, (std::map<std::string, std::string>{{kNode, "com.example.app"}}));
    EXPECT_EQ(listener.all(), Texts{kRegistered});
    EXPECT_FALSE(reply.kept());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(OnClose, SecondRequestSendsTheListenerTheNodeName) {
    const Answer listener = listen();
    record();
    takeEvents();
    EXPECT_EQ(record(), kSuccess);
    EXPECT_EQ(takeEvents(), (Texts{"bus.post private / registerOnClose " + kOpened,
                                   "bus.reply subscribeOnClose " + kSuccess}));
    EXPECT_EQ(listener.all(), (Texts{kRegistered, kOpened}));
}

TEST_F(OnClose, SecondRequestIsAnsweredAlsoWhenNobodyListens) {
    record();
    EXPECT_EQ(record(), kSuccess);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(OnClose, NoticeThatCannotBePostedIsLogged) {
    record();
    fakeBus().failNext("QSSubscriptionPost", -5, "no way");
    EXPECT_EQ(record(), kSuccess);
    EXPECT_EQ(takeLogLines(),
              Texts{"subscribeOnClose: Sending close to registerOnclose failed. Error no way "});
}

TEST_F(OnClose, RequestThatCannotBeAnsweredIsLoggedAndStays) {
    fakeBus().failNext("QSMessageReply", -5, "no way");
    record();
    EXPECT_EQ(takeLogLines(), Texts{"subscribeOnClose: Sending reply to client failed -5 no way"});
    EXPECT_TRUE(session().m_offlineMap.contains(kNode));
}

TEST_F(OnClose, RequestSurvivesARestart) {
    record();
    restartService();
    session().loadOfflineMapFromDisk();
    EXPECT_TRUE(session().m_offlineMap.contains(kNode));
}

TEST_F(OnClose, ApplicationMayHaveOnlySoManyEntries) {
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(record(R"({"endpoint":"e)" + std::to_string(i) + R"("})").text().find("false"),
                  std::string::npos);
    const std::string tooMany =
        "Too many endpoints with on-close notices, the limit is 64. Call unsubscribeOnClose first";
    EXPECT_EQ(record(), refusal("inbox", "appErr", tooMany));
    EXPECT_TRUE(log().contains("Error " + tooMany + ", Incoming " + kInbox));
    EXPECT_EQ(session().m_offlineMap.size(), 64u);
    // A renewal adds no entry, and each application has its own bound.
    EXPECT_EQ(record(R"({"endpoint":"e0"})"), R"({ "returnValue": true, "endpoint": "e0" })");
    EXPECT_EQ(record(kInbox, "com.example.other 1"), kSuccess);
}

// --- unsubscribeOnClose

TEST_F(OnClose, WithdrawalRemovesTheEntry) {
    record();
    takeEvents();
    const Answer reply = withdraw();
    EXPECT_EQ(takeEvents(),
              (Texts{"prefs.remove " + kOfflineStore + ' ' + kNode, "prefs.commit " + kOfflineStore,
                     "bus.respond unsubscribeOnClose " + kSuccess}));
    EXPECT_TRUE(session().m_offlineMap.empty());
    EXPECT_FALSE(reply.kept());
}

TEST_F(OnClose, WithdrawalOfWhatWasNeverRecordedSucceeds) {
    EXPECT_EQ(withdraw(), kSuccess);
}

TEST_F(OnClose, WithdrawalThatCannotBeAnsweredIsLogged) {
    record();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    withdraw();
    EXPECT_EQ(takeLogLines(),
              Texts{"unsubscribeOnClose: Sending response to unsubscribeOnClose failed id  Error no way "});
}

// --- how often an application may write

class WriteRate : public OnClose {
  protected:
    static constexpr int kBurst = 128;  // changes at once

    void SetUp() override {
        OnClose::SetUp();
        begun = g_get_monotonic_time();
    }
    std::size_t commits() const { return journal().eventsOf("prefs.commit " + kOfflineStore).size(); }
    // The number of changes allowed since the start of the test.
    std::size_t allowed() const {
        return kBurst + 1 + static_cast<std::size_t>((g_get_monotonic_time() - begun) / 100000);
    }
    static void expectSuccess(const std::vector<Answer>& answers) {
        for (const Answer& answer : answers)
            EXPECT_EQ(answer, kSuccess);
    }
    // Whether all of them have been answered.
    static bool answered(const std::vector<Answer>& answers) {
        const gint64 deadline = g_get_monotonic_time() + 30 * G_USEC_PER_SEC;
        while (answers.back().all().empty() && g_get_monotonic_time() < deadline)
            g_main_context_iteration(nullptr, TRUE);
        return !answers.back().all().empty();
    }
    gint64 begun = 0;
};

TEST_F(WriteRate, ChangesBackAndForthWaitForTheirTurnAndAreAnsweredWhenTheyAreDone) {
    std::vector<Answer> answers;
    for (int i = 0; i < kBurst / 2 + 6; ++i) {
        answers.push_back(record());
        answers.push_back(i % 2 ? withdraw() : askUnsubscribe(R"({"endpoint":"inbox","onclose":true})"));
    }
    answers.push_back(record());
    EXPECT_LE(commits(), allowed());
    EXPECT_TRUE(answers.back().waiting());
    // Other applications are not delayed.
    const std::size_t before = commits();
    EXPECT_EQ(record(kInbox, "com.example.other 1"), kSuccess);
    EXPECT_EQ(commits(), before + 1);
    ASSERT_TRUE(answered(answers));
    EXPECT_LE(commits(), allowed() + 1);
    EXPECT_EQ(commits(), answers.size() + 1);
    for (const Answer& answer : answers)
        EXPECT_TRUE(answer.text().starts_with(R"({ "returnValue": true, "endpoint": "inbox")"))
            << answer.text();
    EXPECT_TRUE(session().m_offlineMap.contains(kNode));
    EXPECT_EQ(fakePrefs().stored(kOfflineStore).count(kNode), 1u);
}

TEST_F(WriteRate, WaitingChangeIsOnTheDiskBeforeItsAnswer) {
    for (int i = 0; i < kBurst / 2; ++i) {
        record();
        withdraw();
    }
    std::vector<Answer> answers;
    for (int i = 0; i < 100 && (answers.empty() || !answers.back().waiting()); ++i) {
        withdraw();
        answers.push_back(record());
    }
    ASSERT_TRUE(answers.back().waiting());
    takeEvents();
    ASSERT_TRUE(answered(answers));
    const Texts events = takeEvents();
    const Texts last(events.end() - 3, events.end());
    EXPECT_EQ(last, (Texts{"prefs.set " + kOfflineStore + ' ' + kNode + " com.example.app",
                           "prefs.commit " + kOfflineStore, "bus.reply subscribeOnClose " + kSuccess}));
}

TEST_F(WriteRate, RenewalsAreNoChanges) {
    record();
    for (int i = 0; i < 3 * kBurst; ++i)
        EXPECT_EQ(record(), kSuccess);
    EXPECT_EQ(commits(), 1u);
}

TEST_F(WriteRate, OnlySoManyChangesOfAnApplicationWait) {
    std::vector<Answer> answers;
    for (int i = 0; i < kBurst + 1024 + 40; ++i)
        answers.push_back(i % 2 ? withdraw() : record());
    EXPECT_EQ(answers.back(),
              refusal("inbox", "appErr",
                      "Too many changes of on-close notices wait, the limit is 1024. Wait for "
                      "their answers"));
    std::size_t waiting = 0;
    for (const Answer& answer : answers)
        waiting += answer.waiting();
    EXPECT_EQ(waiting, 1024u);
    // The process ends: no change is confirmed that was not made.
    session().m_writeRates.clear();
}
