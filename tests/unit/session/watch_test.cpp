// SPDX-License-Identifier: GPL-3.0-only
// The watch on the XMPP socket: what it logs, when it ends, and what it reads first.
#include <gloox/connectionlistener.h>
#include <unistd.h>

#include <functional>

#include "endpoints/methods.h"
#include "service/cancel.h"
#include "service/methods.h"
#include "tests/fakes/fakebusstate.h"
#include "tests/unit/session/connectionfixture.h"
#include "xmpp/client.h"

namespace {

// Runs functions of the test inside the client's own callbacks.
class Listener : public gloox::ConnectionListener {
  public:
    explicit Listener(
        std::function<void()> onUp, std::function<void()> onDown = [] {})
        : m_onUp(std::move(onUp)), m_onDown(std::move(onDown)) {}
    void onConnect() override { m_onUp(); }
    void onDisconnect(gloox::ConnectionError) override { m_onDown(); }
    bool onTLSConnect(const gloox::CertInfo&) override { return true; }

  private:
    std::function<void()> m_onUp, m_onDown;
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

TEST_F(Watch, NoticesAHangUpAnErrorAndAClosedDescriptor) {
    connectSession();
    const int number = session().m_socket;
    const auto linesOfOneTurn = [this] {
        g_main_context_iteration(nullptr, FALSE);
        return takeLogLines();
    };
    int hungUp[2], broken[2];
    ASSERT_EQ(pipe(hungUp), 0);
    ASSERT_EQ(pipe(broken), 0);
    close(hungUp[1]);
    dup2(hungUp[0], number);
    EXPECT_EQ(linesOfOneTurn(), Texts{"xmppCallback: xmpp server socket disconnected"});
    close(broken[0]);
    dup2(broken[1], number);
    EXPECT_EQ(linesOfOneTurn(), Texts{"xmppCallback: xmpp server socket io error"});
    close(number);
    EXPECT_EQ(linesOfOneTurn(), Texts{"xmppCallback: xmpp server socket closed"});
    dup2(broken[1], number);  // for the connection to close
    close(hungUp[0]);
    close(broken[1]);
    EXPECT_TRUE(session().m_connected) << "the client alone says that the stream is lost";
}

TEST_F(Watch, ReadsWithoutWaiting) {
    connectSession();
    EXPECT_EQ(fakeServer().receiveTimeout(), 10);
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

TEST_F(Watch, IsForgottenByTheCallbackItselfWhenTheLossIsReportedToNobody) {
    connectSession();
    session().m_client->removeConnectionListener(&session());
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    EXPECT_EQ(session().m_lastError, gloox::ConnIoError);
    EXPECT_EQ(takeLogLines(), Texts{"xmppCallback: We had some type of connection error " +
                                    std::to_string(gloox::ConnIoError)});
}

TEST_F(Watch, OfASessionMadeWhileTheLossIsReportedStays) {
    connectSession();
    Listener listener([] {}, [&] { session().connectToService(); });
    session().m_client->registerConnectionListener(&listener);
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    EXPECT_EQ(fakeServer().connects(), 2);
    EXPECT_TRUE(session().m_connected);
    EXPECT_NE(PubSubSession::m_source, nullptr);
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

// An application that waits for the items of its endpoint, and what can happen to an item.
class WatchedItem : public Watch {
  protected:
    static constexpr char kNode[] = "/u1234/dev42/com.example.app/inbox";

    void SetUp() override {
        Watch::SetUp();
        std::filesystem::create_directory(stateFolder() / "cache");
        connectSession();
        publicHandle()->cancel = publicCancelFunc;
        m_subscriber = callPublic(subscribe, "subscribe", R"({"endpoint":"inbox"})").message();
        answer(lastId());
        takeEvents();
        takeLog();
        fakeServer().forgetStanzas();
    }
    void TearDown() override {
        publicHandle()->cancel = nullptr;
        Watch::TearDown();
    }
    std::string cached() const { return fileText(stateFolder() / "cache" / "dev42-com.example.app-inbox"); }
    bool acknowledged() const {
        for (const SentStanza& stanza : fakeServer().stanzas())
            if (stanza.xml().find("<ack ") != std::string::npos)
                return true;
        return false;
    }

    FakeMessage* m_subscriber = nullptr;
};

TEST_F(WatchedItem, GoesToASubscriberThatLives) {
    pushItem(kNode, "7", "i7", "hello");
    EXPECT_EQ(m_subscriber->lastAnswer(), R"({ "item": "hello", "endpoint": "inbox", "returnValue": true })");
    EXPECT_EQ(cached(), "");
    EXPECT_TRUE(acknowledged());
}

TEST_F(WatchedItem, GoesToTheCacheWhenTheEndOfItsSubscriberIsStillUnread) {
    const std::size_t answers = m_subscriber->answers.size();
    fakeBus().clientDiesUnseen(m_subscriber);
    pushItem(kNode, "7", "i7", "hello");
    EXPECT_EQ(m_subscriber->answers.size(), answers) << "nobody is there to take it";
    EXPECT_EQ(cached(), R"({ "item": "hello", "endpoint": "inbox", "returnValue": true })");
    EXPECT_TRUE(acknowledged());
    EXPECT_FALSE(session().subMap.contains(kNode));
}

TEST_F(WatchedItem, IsNotReadOnceABusRequestHasEndedTheSession) {
    const Answer subscriber =
        callPrivate(subscribeConnStatus, "subscribeConnStatus", R"({"subscribe":true})");
    // A cancelled subscription stands for any request that is read before the stream.
    privateHandle()->cancel = [](QSHandle*, QSMessage*, void*) {
        gCurrentSession.disconnect();
        return true;
    };
    fakeBus().clientDiesUnseen(subscriber.message());
    takeLog();
    const std::size_t answers = m_subscriber->answers.size();
    pushItem(kNode, "7", "i7", "hello");
    privateHandle()->cancel = nullptr;
    EXPECT_EQ(m_subscriber->answers.size(), answers);
    EXPECT_EQ(cached(), "");
    EXPECT_FALSE(acknowledged());
    EXPECT_FALSE(fakePrefs().stored("com.zelt.pubsubservice").contains(kNode));
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
