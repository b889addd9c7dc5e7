// SPDX-License-Identifier: GPL-3.0-only
// Reconnect, keep-alive and power: every call to the platform and every answer to it.

#include <algorithm>
#include <cstdio>
#include <tuple>

#include "session/methods.h"
#include "tests/fakes/servicefixture.h"
#include "xmpp/client.h"

namespace {

constexpr char kSet[] = "zelt://com.zelt.power/timeout/set";
constexpr char kPingAlarm[] =
    R"(bus.call zelt://com.zelt.power/timeout/set {"key":"keepAliveTimer", )"
    R"("uri":"quor://com.zelt.pubsubservice/keepAliveTimer", "in":"00:25:00", "wakeup":true, "params":"{}"})";
constexpr char kPing[] =
    "xmpp.send <iq to='example.org' id='ID' type='get'><ping xmlns='urn:xmpp:ping'/></iq>";
constexpr char kLogin[] = "bus.call quor://com.zelt.accountservices/getAccountToken ";

std::string reconnectAlarm(const std::string& in) {
    return R"({"key":"reconnectTimer", "uri":"quor://com.zelt.pubsubservice/reconnectTimer", "in":")" + in +
           R"(", "wakeup":true, "params":"{}"})";
}

class Alarms : public ServiceTest {
  protected:
    // The seconds of the newest call, a reconnect alarm; -1 when it is none.
    int delayOfLastAlarm() {
        const PlacedCall& alarm = fakeBus().calls().back();
        const std::size_t in = alarm.payload.find(R"("in":")");
        int hours = 0, minutes = 0, seconds = 0;
        if (alarm.uri != kSet || in == std::string::npos ||
            sscanf(alarm.payload.c_str() + in, R"("in":"%2d:%2d:%2d")", &hours, &minutes, &seconds) != 3)
            return -1;
        return hours * 3600 + minutes * 60 + seconds;
    }
};

// --- the calls

TEST_F(Alarms, SetAReconnectAlarm) {
    EXPECT_TRUE(session().setReconnectTimer("00:05:00"));
    EXPECT_EQ(takeEvents(),
              Texts{"bus.call zelt://com.zelt.power/timeout/set " + reconnectAlarm("00:05:00")});
    EXPECT_EQ(fakeBus().calls().back().context, &session());
    EXPECT_EQ(fakeBus().calls().back().callback, PubSubSession::reconnectResponse);
    EXPECT_FALSE(session().m_reconnectPending);
}

TEST_F(Alarms, SetAKeepAliveAlarm) {
    session().setPingTimer();
    EXPECT_EQ(takeEvents(), Texts{kPingAlarm});
    EXPECT_EQ(fakeBus().calls().back().context, nullptr);
    EXPECT_EQ(fakeBus().calls().back().callback, PubSubSession::alarmResponse);
}

TEST_F(Alarms, ClearBothAlarmsAndAwaitNoReply) {
    session().removeReconnectTimer();
    session().removePingTimer();
    EXPECT_EQ(takeEvents(),
              (Texts{R"(bus.call zelt://com.zelt.power/timeout/clear {"key":"reconnectTimer"})",
                     R"(bus.call zelt://com.zelt.power/timeout/clear {"key":"keepAliveTimer"})"}));
    for (const PlacedCall& call : fakeBus().calls())
        EXPECT_EQ(call.callback, nullptr);
}

TEST_F(Alarms, KeepTheDeviceAwakeForTwoSeconds) {
    session().setPowerOn();
    EXPECT_EQ(takeEvents(),
              Texts{R"(bus.call zelt://com.zelt.power/com/zelt/power/activityStart {"duration_ms":2000})"});
    EXPECT_EQ(fakeBus().calls().back().callback, nullptr);
    EXPECT_EQ(fakeBus().calls().back().handle, privateHandle());
}

TEST_F(Alarms, SubscribeToTheBootStatus) {
    session().getBootStatus();
    EXPECT_EQ(takeEvents(),
              Texts{R"(bus.call zelt://com.zelt.systemmanager/getBootStatus {"subscribe":true})"});
    EXPECT_EQ(fakeBus().calls().back().context, &session());
}

TEST_F(Alarms, LogEveryCallThatTheBusRefuses) {
    fakeBus().failNext("QSCall", -5, "no bus", 6);
    EXPECT_FALSE(session().setReconnectTimer("00:05:00"));
    session().setPingTimer();
    session().removeReconnectTimer();
    session().removePingTimer();
    session().getBootStatus();
    EXPECT_EQ(takeLogLines(), (Texts{"setReconnectTimer: Setting Reconnect Alarm failed. Error no bus ",
                                     "setPingTimer: Setting Ping Alarm failed. Error no bus ",
                                     "removeReconnectTimer: Removing reconnect failed. Error no bus ",
                                     "removePingTimer: Setting Ping Alarm failed. Error no bus ",
                                     "getBootStatus: Removing reconnect failed. Error no bus "}));
    session().setPowerOn();
    const std::string raw = log().raw();
    EXPECT_TRUE(raw.starts_with("bus error -5: no bus\n")) << raw;
    EXPECT_EQ(takeLogLines(), Texts{"setPowerOn: QSCall to power failed!!!\n"});
}

// --- the delays

TEST_F(Alarms, WaitFiveToTwentyMinutesFourTimesAndThenAnHourOrMore) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        session().m_reconnectPending = false;
        session().scheduleReconnect();
        EXPECT_EQ(session().m_retryCount, attempt);
        const int delay = delayOfLastAlarm();
        EXPECT_GE(delay, attempt < 4 ? 300 : 3600) << "attempt " << attempt;
        EXPECT_LT(delay, attempt < 4 ? 1200 : 5400) << "attempt " << attempt;
        const std::string payload = fakeBus().payloadsTo(kSet).back();
        const std::string in = payload.substr(payload.find("\"in\":\"") + 6, 8);
        EXPECT_EQ(payload, reconnectAlarm(in));
        EXPECT_EQ(takeLogLines(), Texts{"scheduleReconnect: We will try connecting after " + in + " " +
                                        std::to_string(delay)});
        EXPECT_TRUE(session().m_reconnectPending);
    }
}

// The bounds always hold. That 400 draws all miss the twentieth at one of the four edges happens once
// in 2*10^8 runs.
TEST_F(Alarms, SpreadTheAttemptsOverTheWholeOfTheirRange) {
    for (const auto& [retries, min, max] : {std::tuple{-1, 300, 1200}, std::tuple{3, 3600, 5400}}) {
        int least = INT32_MAX, most = 0;
        for (int draw = 0; draw < 400; ++draw) {
            session().m_retryCount = retries;
            session().m_reconnectPending = false;
            session().scheduleReconnect();
            const int delay = delayOfLastAlarm();
            least = std::min(least, delay);
            most = std::max(most, delay);
        }
        const int margin = (max - min) / 20;
        EXPECT_GE(least, min);
        EXPECT_LT(least, min + margin);
        EXPECT_LT(most, max);
        EXPECT_GE(most, max - margin);
    }
}

TEST_F(Alarms, ArmOneReconnectAlarmForTwoReports) {
    session().scheduleReconnect();
    session().scheduleReconnect();
    EXPECT_EQ(fakeBus().payloadsTo(kSet).size(), 1u);
    EXPECT_EQ(session().m_retryCount, 0);
}

TEST_F(Alarms, LeaveTheFlagClearWhenTheAlarmIsRefused) {
    fakeBus().failNext("QSCall", -5, "no bus");
    session().scheduleReconnect();
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(takeLogLines(), (Texts{"setReconnectTimer: Setting Reconnect Alarm failed. Error no bus ",
                                     "scheduleReconnect: Setting timer to reconnect failed"}));
    session().scheduleReconnect();
    EXPECT_TRUE(session().m_reconnectPending);
}

TEST_F(Alarms, CountARefusedAlarmAsAnAttempt) {
    fakeBus().failNext("QSCall", -5, "no bus", 4);
    for (int attempt = 0; attempt < 4; ++attempt) {
        session().scheduleReconnect();
        EXPECT_EQ(session().m_retryCount, attempt);
    }
    session().scheduleReconnect();
    EXPECT_EQ(session().m_retryCount, 4);
    EXPECT_GE(delayOfLastAlarm(), 3600) << "the four short waits are used up";
}

// --- answers of the power service

class ReconnectAnswer : public Alarms {
  protected:
    void answers(const std::string& payload) {
        session().setReconnectTimer("00:05:00");
        EXPECT_TRUE(fakeBus().replyTo(kSet, payload));
    }
};

TEST_F(ReconnectAnswer, SetsTheFlag) {
    answers(R"({"returnValue":true})");
    EXPECT_TRUE(session().m_reconnectPending);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(ReconnectAnswer, ThatComesAfterTheConnectDoesNotSetTheFlag) {
    session().m_connected = true;
    answers(R"({"returnValue":true})");
    EXPECT_FALSE(session().m_reconnectPending);
    session().m_connected = false;
}

TEST_F(ReconnectAnswer, OfARefusedAlarmClearsTheFlag) {
    session().m_reconnectPending = true;
    answers(R"({"returnValue":false})");
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(takeLogLines(),
              Texts{R"(reconnectResponse: Alarm set failed. This is bad {"returnValue":false})"});
}

TEST_F(ReconnectAnswer, OfARefusedAlarmLeavesItCountedAsAnAttempt) {
    for (int attempt = 0; attempt < 4; ++attempt) {
        session().scheduleReconnect();
        ASSERT_TRUE(fakeBus().replyTo(kSet, R"({"returnValue":false})"));
        EXPECT_EQ(session().m_retryCount, attempt);
    }
    session().scheduleReconnect();
    EXPECT_GE(delayOfLastAlarm(), 3600) << "the four short waits are used up";
}

TEST_F(ReconnectAnswer, OfARefusedAlarmClearsTheFlagWhateverTheConnection) {
    session().m_reconnectPending = session().m_connected = true;
    answers(R"({"returnValue":false})");
    EXPECT_FALSE(session().m_reconnectPending);
    session().m_connected = false;
}

TEST_F(ReconnectAnswer, WithoutAReturnValueChangesNothing) {
    session().m_reconnectPending = true;
    for (const char* payload : {"{}", "[]", R"({"returnValue":null})"}) {
        answers(payload);
        EXPECT_EQ(takeLogLines(),
                  (Texts{std::string("reconnectResponse: Could find returnValue? ") + payload,
                         std::string("reconnectResponse: reconnectResponse failed.  ") + payload}));
    }
    EXPECT_TRUE(session().m_reconnectPending);
}

TEST_F(ReconnectAnswer, ThatIsNoJsonChangesNothing) {
    session().m_reconnectPending = true;
    answers("no json");
    EXPECT_EQ(takeLogLines(), (Texts{"reconnectResponse: Malformed json packet? \n",
                                     "reconnectResponse: reconnectResponse failed.  no json"}));
    EXPECT_TRUE(session().m_reconnectPending);
}

TEST_F(ReconnectAnswer, WithoutAContextIsIgnored) {
    for (const char* payload : {R"({"returnValue":true})", R"({"returnValue":false})"}) {
        FakeMessage* message = fakeBus().request(privateHandle(), "", payload);
        EXPECT_TRUE(PubSubSession::reconnectResponse(privateHandle(), message, nullptr));
        QSMessageUnref(message);
    }
    EXPECT_FALSE(session().m_reconnectPending);
}

TEST_F(ReconnectAnswer, DelayedPastTheConnectDoesNotKeepTheNextLossFromArmingAnAlarm) {
    session().scheduleReconnect();
    connectSession();
    ASSERT_TRUE(fakeBus().replyTo(kSet, fakeBus().payloadsTo(kSet).front(), R"({"returnValue":true})"));
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    EXPECT_TRUE(session().m_reconnectPending);
    EXPECT_GE(delayOfLastAlarm(), 300);
    EXPECT_LT(delayOfLastAlarm(), 1200);
    EXPECT_EQ(session().m_retryCount, 0);
}

TEST_F(Alarms, LogTheAnswerToTheKeepAliveAlarmWithoutAChangeOfState) {
    const std::pair<const char*, Texts> answers[] = {
        {R"({"returnValue":true})", {}},
        {R"({"returnValue":false})",
         {R"(alarmResponse: Alarm set failed. This is bad {"returnValue":false})"}},
        {"{}", {"alarmResponse: Could find returnValue? {}", "alarmResponse: alarmResponse failed.  {}"}},
        {"no json",
         {"alarmResponse: Malformed json packet? \n", "alarmResponse: alarmResponse failed.  no json"}}};
    for (const auto& [payload, lines] : answers) {
        session().setPingTimer();
        ASSERT_TRUE(fakeBus().replyTo(kSet, payload));
        EXPECT_EQ(takeLogLines(), lines) << payload;
        EXPECT_FALSE(session().m_reconnectPending);
    }
}

// --- the reconnect alarm fires

TEST_F(Alarms, ReconnectByAFreshLogin) {
    session().m_reconnectPending = true;
    EXPECT_TRUE(callPrivate(reconnectTimer, "reconnectTimer", "ignored").closedUnanswered());
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(takeEvents(), Texts{kLogin});
}

TEST_F(Alarms, ReconnectNothingThatIsConnectedOrConnecting) {
    for (bool PubSubSession::*flag : {&PubSubSession::m_connected, &PubSubSession::m_connecting}) {
        session().m_reconnectPending = true;
        session().*flag = true;
        callPrivate(reconnectTimer, "reconnectTimer", "{}");
        session().*flag = false;
        EXPECT_FALSE(session().m_reconnectPending);
        EXPECT_EQ(takeEvents(), Texts{});
    }
}

TEST_F(Alarms, ArmTheReconnectAlarmAgainWhenNobodyCanBeAsked) {
    fakeBus().serviceMissing("com.zelt.accountservices");
    session().m_reconnectPending = true;
    session().reconnect();
    EXPECT_TRUE(session().m_reconnectPending);
    EXPECT_EQ(fakeBus().payloadsTo(kSet).size(), 1u);
}

// --- the keep-alive alarm fires

TEST_F(Alarms, PingAndArmTheNextPing) {
    connectSession();
    EXPECT_TRUE(callPrivate(keepAliveTimer, "keepAliveTimer", "ignored").closedUnanswered());
    EXPECT_EQ(takeEvents(), (Texts{kPing, kPingAlarm}));
}

TEST_F(Alarms, PingUnderAFreshIdEachTime) {
    connectSession();
    callPrivate(keepAliveTimer, "keepAliveTimer", "{}");
    const std::string first = lastId();
    callPrivate(keepAliveTimer, "keepAliveTimer", "{}");
    EXPECT_NE(lastId(), first);
    EXPECT_NE(lastId(), "");
}

TEST_F(Alarms, NeitherPingNorArmWhileDisconnected) {
    EXPECT_TRUE(callPrivate(keepAliveTimer, "keepAliveTimer", "{}").closedUnanswered());
    setAccountDetails();
    ASSERT_TRUE(session().connectToService());
    callPrivate(keepAliveTimer, "keepAliveTimer", "{}");
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(Alarms, NeitherPingNorArmWithoutAClient) {
    session().m_domain = "example.org";
    session().m_connected = true;
    EXPECT_TRUE(callPrivate(keepAliveTimer, "keepAliveTimer", "{}").closedUnanswered());
    session().m_connected = false;
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(Alarms, NeitherPingNorArmWithoutADomain) {
    connectSession();
    session().m_domain.clear();
    callPrivate(keepAliveTimer, "keepAliveTimer", "{}");
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(Alarms, XmppPingSendsTheSamePingAndArmsNothing) {
    connectSession();
    EXPECT_TRUE(PubSubSession::xmppPing(&session()));
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Alarms, XmppPingLogsThatItCannotPing) {
    const Texts line = {"xmppPing: Client Empty? Not able to send ping"};
    EXPECT_TRUE(PubSubSession::xmppPing(nullptr));
    EXPECT_EQ(takeLogLines(), line);
    session().m_domain = "example.org";
    EXPECT_TRUE(PubSubSession::xmppPing(&session()));
    EXPECT_EQ(takeLogLines(), line) << "without a client";
    connectSession();
    session().m_domain.clear();
    EXPECT_TRUE(PubSubSession::xmppPing(&session()));
    EXPECT_EQ(takeLogLines(), line) << "without a domain";
    EXPECT_EQ(takeEvents(), Texts{});
}

// --- the boot status

class BootStatus : public Alarms {
  protected:
    void answers(const std::string& payload) {
        session().getBootStatus();
        takeEvents();
        EXPECT_TRUE(fakeBus().replyTo("zelt://com.zelt.systemmanager/getBootStatus", payload));
    }
    bool activated() {
        return stanzaCount() > 0 && lastStanza().xml().find("<activate-nodes") != std::string::npos;
    }
};

TEST_F(BootStatus, FinishedWhileConnectedActivatesTheNodes) {
    connectSession();
    answers(R"({"finished":true})");
    EXPECT_TRUE(session().m_bootFinished);
    EXPECT_TRUE(activated());
}

TEST_F(BootStatus, FinishedWhileDisconnectedOnlySetsTheFlag) {
    answers(R"({"finished":true})");
    EXPECT_TRUE(session().m_bootFinished);
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(BootStatus, FinishedWhileConnectingActivatesTheNodesOnceTheStreamIsUp) {
    setAccountDetails();
    ASSERT_TRUE(session().connectToService());
    answers(R"({"finished":true})");
    pump();
    ASSERT_TRUE(session().m_connected);
    int activations = 0;
    for (const SentStanza& stanza : fakeServer().stanzas())
        activations += stanza.xml().find("<activate-nodes") != std::string::npos;
    EXPECT_EQ(activations, 1);
}

TEST_F(BootStatus, FinishedAfterAnActivationThatIsDoneActivatesNothing) {
    connectSession();
    session().m_activationDone = true;
    answers(R"({"finished":true})");
    EXPECT_TRUE(session().m_bootFinished);
    EXPECT_FALSE(activated());
}

TEST_F(BootStatus, NotFinishedClearsTheFlag) {
    connectSession();
    session().m_bootFinished = true;
    answers(R"({"finished":false})");
    EXPECT_FALSE(session().m_bootFinished);
    EXPECT_FALSE(activated());
}

TEST_F(BootStatus, IsFollowedOverSeveralAnswers) {
    answers(R"({"finished":false})");
    EXPECT_FALSE(session().m_bootFinished);
    EXPECT_TRUE(fakeBus().replyTo("zelt://com.zelt.systemmanager/getBootStatus", R"({"finished":true})"));
    EXPECT_TRUE(session().m_bootFinished);
}

TEST_F(BootStatus, LogsAnAnswerWithoutAStatusOrThatIsNoJson) {
    session().m_bootFinished = true;
    answers("{}");
    EXPECT_EQ(takeLogLines(), (Texts{"bootStatusResponse: Couldnt find finished? {}",
                                     "bootStatusResponse: bootStatusResponse failed.  {}"}));
    answers("no json");
    EXPECT_EQ(takeLogLines(), (Texts{"bootStatusResponse: Malformed json packet? \n",
                                     "bootStatusResponse: bootStatusResponse failed.  no json"}));
    EXPECT_TRUE(session().m_bootFinished);
}

TEST_F(BootStatus, WithoutAContextIsIgnored) {
    FakeMessage* message = fakeBus().request(privateHandle(), "", R"({"finished":true})");
    EXPECT_TRUE(PubSubSession::bootStatusResponse(privateHandle(), message, nullptr));
    QSMessageUnref(message);
    EXPECT_FALSE(session().m_bootFinished);
}

}  // namespace
