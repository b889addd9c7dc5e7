// SPDX-License-Identifier: GPL-3.0-only
// Connecting and disconnecting, each step in order, and the requests that wait at a disconnect.
#include "delivery/methods.h"
#include "tests/unit/session/connectionfixture.h"

namespace {

constexpr char kClearReconnectAlarm[] =
    R"(bus.call zelt://com.zelt.power/timeout/clear {"key":"reconnectTimer"})";
constexpr char kPingAlarm[] =
    R"(bus.call zelt://com.zelt.power/timeout/set {"key":"keepAliveTimer", )"
    R"("uri":"quor://com.zelt.pubsubservice/keepAliveTimer", "in":"00:25:00", "wakeup":true, "params":"{}"})";
constexpr char kClearPingAlarm[] = R"(bus.call zelt://com.zelt.power/timeout/clear {"key":"keepAliveTimer"})";
constexpr char kPresence[] =
    "xmpp.send <presence to='pubsub.example.org' from='u1234@example.org/dev42' xmlns='jabber:client'>"
    "<priority>0</priority><status>online</status></presence>";

const Texts kConnectedPosts = {R"(bus.post private / subscribeConnStatus )"
                               R"({"returnValue":true, "connected":true, "session" : true, "network": true})",
                               R"(bus.post public / connectStatus {"returnValue":true, "connected":true})",
                               R"(bus.post private / connectStatus {"returnValue":true, "connected":true})"};
const Texts kLostPosts = {R"(bus.post private / subscribeConnStatus )"
                          R"({"returnValue":true, "connected":false, "session":true, "network":true})",
                          R"(bus.post public / connectStatus {"returnValue":true, "connected":false})",
                          R"(bus.post private / connectStatus {"returnValue":true, "connected":false})"};

Texts joined(Texts first, const Texts& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

using Stream = Connection;

// --- the stream comes up

TEST_F(Stream, ComesUpInItsOrder) {
    beginConnecting();
    session().m_retryCount = 3;
    session().m_lastError = 5;
    session().m_survivedOutage = true;
    session().m_spare3 = true;
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_FALSE(session().m_connecting);
    EXPECT_FALSE(session().m_survivedOutage);
    EXPECT_FALSE(session().m_spare3);
    EXPECT_EQ(session().m_lastError, 0);
    EXPECT_EQ(session().m_retryCount, -1);
    EXPECT_EQ(takeLogLines(), Texts{"onConnect: We formed a connection with the xmpp server"});
    EXPECT_EQ(takeEvents(), joined({kPingAlarm, kPresence}, kConnectedPosts));
}

TEST_F(Stream, ClearsAPendingReconnectAlarmFirst) {
    beginConnecting();
    session().m_reconnectPending = true;
    pump();
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(takeEvents(), joined({kClearReconnectAlarm, kPingAlarm, kPresence}, kConnectedPosts));
}

TEST_F(Stream, ComesUpInItsOrderThoughNothingCanBeSent) {
    beginConnecting();
    session().m_reconnectPending = true;
    fakeBus().failNext("QSCall", -107, "gone", 2);
    fakeBus().failNext("QSSubscriptionPost", -107, "gone", 3);
    pump();
    EXPECT_EQ(takeLogLines(), (Texts{"onConnect: We formed a connection with the xmpp server",
                                     "removeReconnectTimer: Removing reconnect failed. Error gone ",
                                     "setPingTimer: Setting Ping Alarm failed. Error gone ",
                                     "onConnect: Sending connection status failed. Error gone ",
                                     "onConnect: Sending connection status failed . Error gone ",
                                     "onConnect: Sending connection status failed . Error gone "}));
    EXPECT_EQ(takeEvents(), Texts{kPresence});
    EXPECT_TRUE(session().m_connected);
    EXPECT_FALSE(session().m_reconnectPending);
}

TEST_F(Stream, ActivatesTheNodesThenRepeatsTheDeletesThenTells) {
    beginConnecting();
    session().m_reconnectPending = true;
    session().m_bootFinished = true;
    session().m_offlineMap["/u/r/a/n"] = "a";
    fakePrefs().store("com.zelt.pubsubservice", "delete", R"({"appid":["deletea"]})");
    fakePrefs().store("com.zelt.pubsubservice", "\"deletea\"", R"({"nodes":["/u/r/a/gone"]})");
    pump();
    const Texts events = takeEvents();
    const std::string all = testing::PrintToString(events);
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(Texts(events.begin(), events.begin() + 3),
              (Texts{kClearReconnectAlarm, kPingAlarm, kPresence}));
    const std::size_t activation = all.find("<activate-nodes"), deletion = all.find("<delete-nodes"),
                      record = all.find("prefs.set com.zelt.pubsubservice delete"),
                      post = all.find("bus.post");
    ASSERT_NE(deletion, std::string::npos) << all;
    EXPECT_LT(activation, deletion) << all;
    EXPECT_LT(record, post) << all;
}

TEST_F(Stream, ActivatesNothingBeforeTheBootHasFinishedOrOnceItIsDone) {
    beginConnecting();
    pump();
    for (const std::string& event : takeEvents())
        EXPECT_EQ(event.find("<activate-nodes"), std::string::npos) << event;
    session().disconnect();
    beginConnecting();
    session().m_bootFinished = session().m_activationDone = true;
    pump();
    for (const std::string& event : takeEvents())
        EXPECT_EQ(event.find("<activate-nodes"), std::string::npos) << event;
}

TEST_F(Stream, ActivatesTheNodesAtEveryConnect) {
    session().m_bootFinished = true;
    for (int round = 0; round < 2; ++round) {
        connectSession();
        session().disconnect();
        EXPECT_FALSE(session().m_activationDone);
        beginConnecting();
        pump();
        Texts events = takeEvents();
        EXPECT_NE(testing::PrintToString(events).find("<activate-nodes"), std::string::npos);
        session().disconnect();
    }
}

// --- the stream goes down

TEST_F(Stream, GoesDownInItsOrderAndArmsAReconnect) {
    connectSession();
    session().m_activationDone = session().m_spare3 = session().m_survivedOutage = true;
    session().m_deleteMap["id"] = "deletea";
    session().m_activateMap["/n"] = true;
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    EXPECT_FALSE(session().m_connected || session().m_connecting || session().m_activationDone ||
                 session().m_spare3 || session().m_survivedOutage);
    EXPECT_TRUE(session().m_deleteMap.empty());
    EXPECT_TRUE(session().m_activateMap.empty());
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    EXPECT_EQ(session().m_retryCount, 0);
    EXPECT_EQ(session().m_lastError, gloox::ConnIoError);
    const Texts lines = takeLogLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], lostLine(gloox::ConnIoError));
    EXPECT_TRUE(lines[1].starts_with("scheduleReconnect: We will try connecting after 00:"));
    EXPECT_EQ(lines[2],
              "xmppCallback: We had some type of connection error " + std::to_string(gloox::ConnIoError));
    Texts events = takeEvents();
    ASSERT_EQ(events.size(), 5u);
    EXPECT_EQ(events[0], kClearPingAlarm);
    EXPECT_TRUE(events[1].starts_with(kReconnectAlarmStart));
    EXPECT_EQ(Texts(events.begin() + 2, events.end()), kLostPosts);
}

TEST_F(Stream, GoesDownInItsOrderThoughNothingCanBeSent) {
    connectSession();
    fakeBus().failNext("QSCall", -107, "gone", 2);
    fakeBus().failNext("QSSubscriptionPost", -107, "gone", 3);
    session().onDisconnect(gloox::ConnIoError);
    EXPECT_EQ(takeLogLines(),
              (Texts{lostLine(gloox::ConnIoError), "removePingTimer: Setting Ping Alarm failed. Error gone ",
                     "setReconnectTimer: Setting Reconnect Alarm failed. Error gone ",
                     "scheduleReconnect: Setting timer to reconnect failed",
                     "onDisconnect: Sending connection status failed. Error gone ",
                     "onDisconnect: Sending connection status failed . Error gone ",
                     "onDisconnect: Sending connection status failed . Error gone "}));
    EXPECT_FALSE(session().m_reconnectPending) << "the next trigger tries again";
    EXPECT_EQ(PubSubSession::m_source, nullptr) << "whoever reports the loss";
}

TEST_F(Stream, ThatIsEndedOnPurposeArmsNoReconnect) {
    connectSession();
    session().disconnect();
    EXPECT_EQ(takeLogLines(), Texts{"onDisconnect: Disconnected from xmpp server 17"});
    EXPECT_EQ(takeEvents(), joined({kClearPingAlarm}, kLostPosts));
    EXPECT_EQ(session().m_lastError, 0);
    EXPECT_EQ(session().m_client, nullptr);
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_TRUE(fakeServer().streamClosedByClient());
}

TEST_F(Stream, ThatEndsWithoutAnErrorArmsNoReconnect) {
    session().onDisconnect(gloox::ConnNoError);
    EXPECT_EQ(session().m_lastError, 0);
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(takeLogLines(), Texts{"onDisconnect: Disconnected from xmpp server 0"});
}

TEST_F(Stream, KeepsAnAttemptQuietThatIsEndedOnPurpose) {
    beginConnecting();
    session().disconnect();
    EXPECT_FALSE(session().m_connecting);
    EXPECT_EQ(takeLogLines(), Texts{"onDisconnect: Disconnected from xmpp server 17"});
    EXPECT_FALSE(session().m_reconnectPending);
    pump();
    EXPECT_FALSE(fakeServer().connected());
}

TEST_F(Stream, DisconnectsNothingWithoutAClient) {
    session().disconnect();
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(Stream, ThatTheServerClosesArmsAReconnect) {
    connectSession();
    fakeServer().closesStream();
    pump();
    EXPECT_FALSE(session().m_connected);
    EXPECT_TRUE(session().m_reconnectPending);
}

TEST_F(Stream, ArmsOneAlarmForTwoLosses) {
    connectSession();
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    session().onDisconnect(gloox::ConnStreamClosed);
    EXPECT_EQ(fakeBus().payloadsTo("zelt://com.zelt.power/timeout/set").size(), 2u)
        << "a ping's and a reconnect's";
    EXPECT_EQ(session().m_lastError, gloox::ConnStreamClosed);
}

TEST_F(Stream, ComesBackAfterALoss) {
    connectSession();
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    EXPECT_TRUE(session().connectToService());
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(session().m_lastError, 0);
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(session().m_retryCount, -1);
}

// --- requests that wait while the stream goes down

class WaitingRequests : public Connection {
  protected:
    void SetUp() override {
        Connection::SetUp();
        connectSession();
    }
    FakeMessage* keep(const std::string& id, const std::string& method, const std::string& endpoint,
                      const std::string& node) {
        FakeMessage* message = fakeBus().request(publicHandle(), method, "{}", "com.example.app 1");
        session().m_endpointMap[id] = {endpoint, "com.example.app", node, KeptMessage(message)};
        QSMessageUnref(message);
        return message;
    }
    static std::string lostAnswer(const std::string& endpoint) {
        return R"({ "returnValue": false, "endpoint": ")" + endpoint +
               R"(", "errorCode": "connectionErr", "errorText": "pubsubservice disconnected" })";
    }
};

TEST_F(WaitingRequests, AreAnsweredInTheOrderOfTheirIds) {
    keep("b", "getPublishKey", "second", "");
    keep("a", "createEndpoint", "first", "/n1");
    keep("c", "subscribe", "third", "/n3");
    session().setSubMap("/n3", "com.example.app", publicHandle());
    session().setSubMap("/n1", "com.example.app", publicHandle());
    session().disconnect();
    EXPECT_EQ(journal().eventsOf("bus.respond "), (Texts{"bus.respond createEndpoint " + lostAnswer("first"),
                                                         "bus.respond getPublishKey " + lostAnswer("second"),
                                                         "bus.respond subscribe " + lostAnswer("third")}));
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_FALSE(session().subMap.contains("/n3")) << "a tentative subscriber goes with its request";
    EXPECT_TRUE(session().subMap.contains("/n1")) << "only a subscribe takes its subscriber along";
}

TEST_F(WaitingRequests, AreAnsweredAfterTheNewsWithTheirSubscriberGone) {
    FakeMessage* message = keep("a", "subscribe", "first", "/n1");
    session().setSubMap("/n1", "com.example.app", publicHandle());
    ASSERT_TRUE(QSSubscriptionAdd(publicHandle(), "/n1", message, nullptr));
    keep("b", "unsubscribe", "second", "/n2");
    session().setSubMap("/n2", "com.example.app", publicHandle());
    takeEvents();
    session().disconnect();
    EXPECT_EQ(takeEvents(),
              joined(joined({kClearPingAlarm}, kLostPosts),
                     {"bus.unsubscribe public /n1", "bus.respond subscribe " + lostAnswer("first"),
                      "bus.respond unsubscribe " + lostAnswer("second")}));
    EXPECT_TRUE(session().subMap.contains("/n2"));
}

TEST_F(WaitingRequests, AreReleasedWhenTheyAreAnswered) {
    const FakeMessage* message = keep("a", "createEndpoint", "first", "/n1");
    EXPECT_TRUE(message->kept());
    session().disconnect();
    EXPECT_FALSE(message->kept());
    EXPECT_EQ(message->answers.size(), 1u);
}

TEST_F(WaitingRequests, WhoseAnswerFailsAreLoggedAndReleased) {
    const FakeMessage* message = keep("a", "createEndpoint", "first", "/n1");
    fakeBus().failNext("QSMessageRespond", -107, "gone");
    session().disconnect();
    EXPECT_EQ(takeLogLines(), (Texts{"onDisconnect: Disconnected from xmpp server 17",
                                     "cleanUpOnDisconnect: Sending response to message failed Error gone "}));
    EXPECT_FALSE(message->kept());
    EXPECT_TRUE(session().m_endpointMap.empty());
}

TEST_F(WaitingRequests, OfPrivateMethodsStayAndGetNoAnswer) {
    FakeMessage* message = fakeBus().request(privateHandle(), "createNode", "{}");
    session().m_msgMap["id"] = KeptMessage(message);
    QSMessageUnref(message);
    session().disconnect();
    EXPECT_TRUE(session().m_msgMap.contains("id"));
    EXPECT_TRUE(message->kept());
    EXPECT_EQ(message->answers, Texts{});
    session().m_msgMap.clear();
}

// --- requests that wait for the stream

class HeldRequests : public Connection {
  protected:
    Answer subscribe(const std::string& node) {
        return callPrivate(subscribeToNode, "subscribeToNode", R"({"node":")" + node + R"("})");
    }
    void reconnect() {
        ASSERT_TRUE(session().connectToService());
        pump();
        ASSERT_TRUE(session().m_connected);
    }
    int subscribesSent() {
        int count = 0;
        for (const std::string& event : journal().events())
            count += event.find("<subscribe node=") != std::string::npos;
        return count;
    }
};

TEST_F(HeldRequests, AfterALossGoOutWithTheNextStream) {
    connectSession();
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    const Answer first = subscribe("/a");
    const Answer second = subscribe("/b");
    takeEvents();
    reconnect();
    const Texts sent = journal().eventsOf("xmpp.send ");
    ASSERT_GE(sent.size(), 2u);
    EXPECT_NE(sent[sent.size() - 2].find("<subscribe node='/a'"), std::string::npos);
    EXPECT_NE(sent.back().find("<subscribe node='/b'"), std::string::npos);
    answer(lastId());
    EXPECT_FALSE(second.waiting());
    EXPECT_TRUE(first.waiting());
}

TEST_F(HeldRequests, OfAnAttemptThatFailsGoOutWithTheNextStream) {
    beginConnecting();
    const Answer reply = subscribe("/a");
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    ASSERT_FALSE(session().m_connecting);
    EXPECT_TRUE(reply.waiting());
    reconnect();
    EXPECT_EQ(subscribesSent(), 1);
    answer(lastId());
    EXPECT_FALSE(reply.waiting());
}

TEST_F(HeldRequests, WhoseCallerIsGoneAreDropped) {
    connectSession();
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    const Answer gone = subscribe("/a");
    const Answer there = subscribe("/b");
    fakeBus().clientDies(gone.message());
    takeEvents();
    reconnect();
    EXPECT_EQ(subscribesSent(), 1);
    EXPECT_NE(lastStanza().xml().find("<subscribe node='/b'"), std::string::npos);
    EXPECT_TRUE(there.waiting());
    session().m_msgMap.clear();
}

// What is activated after a cancellation has no caller; the activation of all nodes names it again.
TEST_F(HeldRequests, ThatNoCallerWaitsForAreDropped) {
    setAccountDetails();
    connectSession();
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    std::string id;
    EXPECT_TRUE(session().activateNode("/a", id));
    const Answer there = subscribe("/b");
    EXPECT_FALSE(id.empty());
    EXPECT_FALSE(session().isAwaited(id));
    takeEvents();
    reconnect();
    for (const std::string& sent : journal().eventsOf("xmpp.send "))
        EXPECT_EQ(sent.find("<activate "), std::string::npos) << sent;
    EXPECT_EQ(subscribesSent(), 1);
    EXPECT_TRUE(there.waiting());
    session().m_msgMap.clear();
}

TEST_F(HeldRequests, OfAThousandLeaveRoomForTheActivationOfAllNodes) {
    setAccountDetails();
    session().m_bootFinished = true;
    connectSession();
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    session().setSubMap("/n", "com.example.app", publicHandle());
    for (int i = 0; i < 1'000; ++i)
        subscribe("/a");
    takeEvents();
    reconnect();
    int activations = 0;
    for (const std::string& event : journal().events())
        activations += event.find("<activate-nodes") != std::string::npos;
    EXPECT_EQ(activations, 1);
    EXPECT_EQ(subscribesSent(), 1'000);
    session().m_msgMap.clear();
    session().removeSubMap("/n");
}

}  // namespace
