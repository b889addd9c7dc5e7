// SPDX-License-Identifier: GPL-3.0-only
// The XMPP connection: building it, its way up and down in order, and the watch on its socket.
#include <gloox/connectionlistener.h>

#include <functional>

#include "endpoints/methods.h"
#include "session/methods.h"
#include "tests/fakes/fakebusstate.h"
#include "tests/fakes/servicefixture.h"
#include "xmpp/client.h"
#include "xmpp/manager.h"

namespace {

constexpr const char* kReconnectAlarmStart =
    "bus.call zelt://com.zelt.power/timeout/set {\"key\":\"reconnectTimer\"";
constexpr const char* kClearReconnectAlarm =
    R"(bus.call zelt://com.zelt.power/timeout/clear {"key":"reconnectTimer"})";
constexpr const char* kPingAlarm =
    R"(bus.call zelt://com.zelt.power/timeout/set {"key":"keepAliveTimer", )"
    R"("uri":"quor://com.zelt.pubsubservice/keepAliveTimer", "in":"00:25:00", "wakeup":true, "params":"{}"})";
constexpr const char* kClearPingAlarm =
    R"(bus.call zelt://com.zelt.power/timeout/clear {"key":"keepAliveTimer"})";
constexpr const char* kPresence =
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

class Connection : public ServiceTest {
  protected:
    // Begins a connection, with journal and log empty.
    void beginConnecting() {
        giveDetails();
        ASSERT_TRUE(session().connectToService());
        ASSERT_TRUE(session().m_connecting);
        takeEvents();
        takeLog();
    }
    std::string attachedLine() {
        return "attachSocketToMainLoop: Attached socket " + std::to_string(session().m_socket) +
               " to mainloop";
    }
    static std::string lostLine(gloox::ConnectionError error) {
        return "onDisconnect: Disconnected from xmpp server " + std::to_string(error);
    }
    bool reconnectArmed() {
        for (const std::string& event : journal().events())
            if (event.starts_with(kReconnectAlarmStart))
                return true;
        return false;
    }
};

// --- building a client

TEST_F(Connection, NeedsAPasswordAServerAndAJid) {
    for (std::string PubSubSession::*member : {&PubSubSession::m_password, &PubSubSession::m_server}) {
        giveDetails();
        (session().*member).clear();
        EXPECT_FALSE(session().createSession());
        EXPECT_EQ(takeLogLines(), Texts{"createSession: Password *, Server " + session().m_server +
                                        " and u1234 not initialized"});
    }
    giveDetails();
    session().m_jid = gloox::JID();
    EXPECT_FALSE(session().createSession());
    EXPECT_EQ(takeLogLines(),
              Texts{"createSession: Password *, Server xmpp.example.org and  not initialized"});
    EXPECT_EQ(session().m_client, nullptr);
    EXPECT_EQ(session().m_pubsub, nullptr);
}

TEST_F(Connection, BuildsAClientAndAManagerFromTheDetails) {
    giveDetails();
    session().m_connected = true;
    EXPECT_TRUE(session().createSession());
    ASSERT_NE(session().m_client, nullptr);
    EXPECT_NE(session().m_pubsub, nullptr);
    EXPECT_EQ(session().m_client->jid().full(), kFullJid);
    EXPECT_EQ(session().m_client->server(), kServer);
    EXPECT_EQ(session().m_client->port(), 5222);
    EXPECT_EQ(session().m_client->tls(), gloox::TLSRequired);
    EXPECT_FALSE(session().m_connected);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Connection, LetsTheServerChooseAResource) {
    giveDetails();
    session().m_resource.clear();
    EXPECT_TRUE(session().createSession());
    EXPECT_EQ(session().m_client->jid().full(), kJid);
}

TEST_F(Connection, ReplacesAClientThatIsThere) {
    connectSession();
    const xmpp::Client* client = session().m_client;
    EXPECT_TRUE(session().createSession());
    EXPECT_NE(session().m_client, nullptr);
    EXPECT_NE(session().m_client, client);
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    EXPECT_EQ(takeLogLines(), (Texts{"createSession: Overriding session with new session.",
                                     "onDisconnect: Disconnected from xmpp server 17"}));
    EXPECT_FALSE(reconnectArmed());
    EXPECT_FALSE(fakeServer().connected());
}

// --- connecting

TEST_F(Connection, NeedsANetwork) {
    giveDetails();
    session().m_networkAvailable = false;
    session().m_lastError = 5;
    EXPECT_FALSE(session().connectToService());
    EXPECT_EQ(takeLogLines(),
              Texts{"connectToService: There is no network available, cannot connect to service"});
    EXPECT_EQ(session().m_lastError, 0);
    EXPECT_EQ(session().m_client, nullptr);
    EXPECT_EQ(takeEvents(), Texts{}) << "nothing is scheduled";
}

TEST_F(Connection, IsNotMadeTwice) {
    connectSession();
    session().m_lastError = 5;
    const xmpp::Client* client = session().m_client;
    EXPECT_TRUE(session().connectToService());
    EXPECT_EQ(session().m_client, client);
    EXPECT_EQ(session().m_lastError, 0);
    session().disconnect();
    beginConnecting();
    client = session().m_client;
    EXPECT_TRUE(session().connectToService());
    EXPECT_TRUE(session().tryConnecting());
    EXPECT_EQ(session().m_client, client);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Connection, FailsWithoutDetails) {
    session().m_networkAvailable = true;
    session().m_connecting = false;
    EXPECT_FALSE(session().connectToService());
    EXPECT_FALSE(session().m_connecting);
    EXPECT_EQ(takeLogLines(), (Texts{"createSession: Password *, Server  and  not initialized",
                                     "connectToService: Create session failed"}));
}

TEST_F(Connection, IsTriedAndWatched) {
    giveDetails();
    EXPECT_TRUE(session().tryConnecting());
    EXPECT_TRUE(session().m_connecting);
    EXPECT_FALSE(session().m_connected);
    EXPECT_NE(PubSubSession::m_source, nullptr);
    EXPECT_EQ(session().m_socket, session().m_client->socket());
    EXPECT_EQ(takeLogLines(),
              (Texts{"connectToService: We are connecting to the vbx server.", attachedLine()}));
    pump();
    EXPECT_EQ(fakeServer().host(), kServer);
    EXPECT_EQ(fakeServer().port(), 5222);
    EXPECT_EQ(fakeServer().localAddress(), kLocalAddress);
}

TEST_F(Connection, IsTriedWithoutALocalAddress) {
    giveDetails();
    session().m_ipAddress.clear();
    EXPECT_TRUE(session().connectToService());
    EXPECT_EQ(takeLogLines(),
              (Texts{"connectToService: IP Address empty even though we have network available!",
                     "connectToService: We are connecting to the vbx server.", attachedLine()}));
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().localAddress(), "");
}

TEST_F(Connection, ThatIsRefusedAtOnceArmsAReconnectAndTellsItsCallerNothing) {
    giveDetails();
    fakeServer().refuseConnections(gloox::ConnConnectionRefused);
    EXPECT_TRUE(session().connectToService());
    EXPECT_FALSE(session().m_connecting);
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    EXPECT_EQ(session().m_lastError, gloox::ConnConnectionRefused);
    EXPECT_TRUE(session().m_reconnectPending);
    const Texts lines = takeLogLines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], "connectToService: We are connecting to the vbx server.");
    EXPECT_EQ(lines[1], lostLine(gloox::ConnConnectionRefused));
    EXPECT_TRUE(lines[2].starts_with("scheduleReconnect: We will try connecting after 00:"));
    EXPECT_EQ(lines[3], "connectToService: There is no server or network, connection to server fails");
    EXPECT_EQ(lines[4], "connectToService: Warning: We are not connected to the vbx server");
}

TEST_F(Connection, ThatFailsLaterArmsAReconnect) {
    fakeServer().failAfterConnect(gloox::ConnConnectionRefused);
    beginConnecting();
    pump();
    EXPECT_FALSE(session().m_connecting);
    EXPECT_FALSE(session().m_connected);
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    EXPECT_TRUE(session().m_reconnectPending);
    EXPECT_NE(session().m_lastError, 0);
}

TEST_F(Connection, ThatTheLoginEndsArmsAReconnect) {
    fakeServer().refuseLogin("not-authorized");
    beginConnecting();
    pump();
    EXPECT_FALSE(session().m_connecting);
    EXPECT_TRUE(session().m_reconnectPending);
    EXPECT_EQ(takeLogLines().front(), "onDisconnect: Disconnected from xmpp server " +
                                          std::to_string(gloox::ConnAuthenticationFailed));
}

TEST_F(Connection, NeedsTlsUnlessTheEnvironmentSaysOtherwise) {
    unsetenv("xmpp_config");
    beginConnecting();
    EXPECT_EQ(session().m_client->tls(), gloox::TLSRequired);
    pump();
    EXPECT_FALSE(session().m_connected) << "the server offers none";
    EXPECT_TRUE(session().m_reconnectPending);
    setenv("xmpp_config", "", 1);
    session().m_reconnectPending = false;
    beginConnecting();
    EXPECT_EQ(session().m_client->tls(), gloox::TLSDisabled) << "any value turns it off, an empty one too";
    pump();
    EXPECT_TRUE(session().m_connected);
}

TEST_F(Connection, LogsTheLibrarysLinesOnlyWhenAskedTo) {
    connectSession();
    session().disconnect();
    for (const std::string& line : takeLogLines())
        EXPECT_FALSE(line.starts_with("handleLog:")) << line;
    session().m_debugLog = true;
    beginConnecting();
    pump();
    bool found = false;
    for (const std::string& line : takeLogLines())
        found |= line.starts_with("handleLog: Gloox dbg: ");
    EXPECT_TRUE(found);
}

// --- the certificate

gloox::CertInfo certificate(int status) {
    gloox::CertInfo info{};
    info.status = status;
    info.issuer = "issuer";
    info.server = "peer";
    info.protocol = "TLS1.3";
    info.mac = "mac";
    info.cipher = "cipher";
    info.compression = "none";
    return info;
}

TEST_F(Connection, AcceptsACertificateWithoutAFault) {
    EXPECT_TRUE(session().onTLSConnect(certificate(0)));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Connection, RefusesACertificateWithAFault) {
    EXPECT_FALSE(session().onTLSConnect(certificate(gloox::CertExpired)));
    EXPECT_EQ(takeLogLines(),
              (Texts{"onTLSConnect: Certificate validation failed",
                     "onTLSConnect: Cert Info status: " + std::to_string(gloox::CertExpired) +
                         "\nissuer: issuer\npeer: peer\nprotocol: TLS1.3\nmac: mac\ncipher: cipher\n"
                         "compression: none\n"}));
}

// --- the stream comes up

TEST_F(Connection, ComesUpInItsOrder) {
    beginConnecting();
    session().m_retryCount = 3;
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

TEST_F(Connection, ClearsAPendingReconnectAlarmFirst) {
    beginConnecting();
    session().m_reconnectPending = true;
    pump();
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(takeEvents(), joined({kClearReconnectAlarm, kPingAlarm, kPresence}, kConnectedPosts));
}

TEST_F(Connection, ActivatesTheNodesThenRepeatsTheDeletesThenTells) {
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

TEST_F(Connection, ActivatesNothingBeforeTheBootHasFinishedOrOnceItIsDone) {
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

TEST_F(Connection, ActivatesTheNodesAtEveryConnect) {
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

TEST_F(Connection, GoesDownInItsOrderAndArmsAReconnect) {
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

TEST_F(Connection, ThatIsEndedOnPurposeArmsNoReconnect) {
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

TEST_F(Connection, ThatEndsWithoutAnErrorArmsNoReconnect) {
    session().onDisconnect(gloox::ConnNoError);
    EXPECT_EQ(session().m_lastError, 0);
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(takeLogLines(), Texts{"onDisconnect: Disconnected from xmpp server 0"});
}

TEST_F(Connection, KeepsAnAttemptQuietThatIsEndedOnPurpose) {
    beginConnecting();
    session().disconnect();
    EXPECT_FALSE(session().m_connecting);
    EXPECT_EQ(takeLogLines(), Texts{"onDisconnect: Disconnected from xmpp server 17"});
    EXPECT_FALSE(session().m_reconnectPending);
    pump();
    EXPECT_FALSE(fakeServer().connected());
}

TEST_F(Connection, DisconnectsNothingWithoutAClient) {
    session().disconnect();
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(Connection, ThatTheServerClosesArmsAReconnect) {
    connectSession();
    fakeServer().closesStream();
    pump();
    EXPECT_FALSE(session().m_connected);
    EXPECT_TRUE(session().m_reconnectPending);
}

TEST_F(Connection, ArmsOneAlarmForTwoLosses) {
    connectSession();
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    session().onDisconnect(gloox::ConnStreamClosed);
    EXPECT_EQ(fakeBus().payloadsTo("zelt://com.zelt.power/timeout/set").size(), 2u)
        << "a ping's and a reconnect's";
    EXPECT_EQ(session().m_lastError, gloox::ConnStreamClosed);
}

TEST_F(Connection, ComesBackAfterALoss) {
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

// --- the watch on the socket

// Runs what the test says from inside the client's own callbacks.
class Listener : public gloox::ConnectionListener {
  public:
    explicit Listener(std::function<void()> act) : m_act(std::move(act)) {}
    void onConnect() override { m_act(); }
    void onDisconnect(gloox::ConnectionError) override {}
    bool onTLSConnect(const gloox::CertInfo&) override { return true; }

  private:
    std::function<void()> m_act;
};

class Watch : public Connection {};

TEST_F(Watch, LogsEveryConditionInItsOrder) {
    const std::pair<int, Texts> conditions[] = {
        {G_IO_IN, {}},
        {G_IO_HUP, {"xmppCallback: xmpp server socket disconnected"}},
        {G_IO_ERR, {"xmppCallback: xmpp server socket io error"}},
        {G_IO_NVAL, {"xmppCallback: xmpp server socket closed"}},
        {G_IO_IN | G_IO_NVAL | G_IO_ERR | G_IO_HUP,
         {"xmppCallback: xmpp server socket disconnected", "xmppCallback: xmpp server socket io error",
          "xmppCallback: xmpp server socket closed"}}};
    connectSession();
    for (const auto& [condition, lines] : conditions) {
        EXPECT_TRUE(PubSubSession::xmppCallback(nullptr, static_cast<GIOCondition>(condition), &session()));
        EXPECT_EQ(takeLogLines(), lines);
    }
}

TEST_F(Watch, EndsWithoutAClient) {
    session().m_lastError = 5;
    EXPECT_EQ(session().recv(), gloox::ConnNotConnected);
    EXPECT_EQ(session().m_lastError, 5);
    EXPECT_FALSE(PubSubSession::xmppCallback(nullptr, G_IO_IN, &session()));
    EXPECT_EQ(takeLogLines(), Texts{"xmppCallback: We had some type of connection error 18"});
    EXPECT_EQ(session().m_lastError, 18);
}

TEST_F(Watch, IsGoneOnceItsCallbackHasEndedIt) {
    connectSession();
    ASSERT_NE(PubSubSession::m_source, nullptr);
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    EXPECT_EQ(PubSubSession::m_source, nullptr);
}

TEST_F(Watch, EndsWhenTheSessionIsDisconnectedFromInsideTheClient) {
    beginConnecting();
    Listener listener([&] { session().disconnect(); });
    session().m_client->registerConnectionListener(&listener);
    pump();
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    EXPECT_EQ(session().m_client, nullptr);
    EXPECT_FALSE(session().m_connected);
    EXPECT_FALSE(session().m_reconnectPending);
}

TEST_F(Watch, LeavesTheNewSessionsWatchAloneWhenTheSessionIsReplacedFromInsideTheClient) {
    beginConnecting();
    int rounds = 0;
    Listener listener([&] {
        if (++rounds > 1)
            return;
        session().disconnect();
        session().connectToService();
    });
    session().m_client->registerConnectionListener(&listener);
    pump();
    EXPECT_EQ(fakeServer().connects(), 2);
    EXPECT_TRUE(session().m_connected);
    EXPECT_NE(PubSubSession::m_source, nullptr);
}

TEST_F(Watch, ReadsWhatTheBusHasReceivedBeforeTheStream) {
    connectSession();
    const Answer subscriber =
        callPrivate(subscribeConnStatus, "subscribeConnStatus", R"({"subscribe":true})");
    fakeBus().clientDiesUnseen(subscriber.message());
    serverSends("<message from='pubsub.example.org'><body>wake</body></message>");
    EXPECT_TRUE(fakeBus().methodSubscribers(privateHandle(), "/", "subscribeConnStatus").empty());
}

TEST_F(Watch, EndsWithoutReadingTheStreamWhenABusRequestHasEndedTheSession) {
    connectSession();
    // A cancelled subscription stands for any request that is read before the stream.
    privateHandle()->cancel = [](QSHandle*, QSMessage*, void*) {
        gCurrentSession.disconnect();
        return true;
    };
    const Answer subscriber =
        callPrivate(subscribeConnStatus, "subscribeConnStatus", R"({"subscribe":true})");
    fakeBus().clientDiesUnseen(subscriber.message());
    takeLog();
    fakeServer().sends("<message from='pubsub.example.org'><body>wake</body></message>");
    pump();
    privateHandle()->cancel = nullptr;
    EXPECT_EQ(session().m_client, nullptr);
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    EXPECT_EQ(session().m_lastError, 0) << "no read without a client";
    EXPECT_EQ(takeLogLines(), Texts{"onDisconnect: Disconnected from xmpp server 17"});
}

TEST_F(Watch, IsDestroyedByDroppingIt) {
    connectSession();
    GSource* watch = g_source_ref(PubSubSession::m_source);
    session().dropSocketWatch();
    EXPECT_TRUE(g_source_is_destroyed(watch));
    g_source_unref(watch);
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    session().dropSocketWatch();
}

TEST_F(Watch, NeverOutlivesItsClient) {
    connectSession();
    GSource* watch = g_source_ref(PubSubSession::m_source);
    session().dropClient();
    EXPECT_TRUE(g_source_is_destroyed(watch));
    g_source_unref(watch);
    session().m_connected = false;
}

}  // namespace
