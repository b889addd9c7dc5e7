// SPDX-License-Identifier: GPL-3.0-only
// The scripted server against an ordinary client: opening, login, stanzas both ways, and every way to fail.
#include <gloox/client.h>
#include <gloox/connectionlistener.h>
#include <gloox/message.h>
#include <gloox/messagehandler.h>
#include <gmock/gmock.h>
#include <poll.h>

#include <memory>

#include "tests/fakes/fakeconnection.h"
#include "tests/fakes/journal.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class FakeConnectionTest : public ::testing::Test,
                           public gloox::ConnectionListener,
                           public gloox::MessageHandler {
  protected:
    void SetUp() override {
        fakeServer().reset();
        journal().take();
        adopt(std::make_unique<gloox::Client>(gloox::JID("u1234@example.org/dev42"), "secret"));
    }
    void TearDown() override { m_client.reset(); }

    void adopt(std::unique_ptr<gloox::Client> client) {
        m_client = std::move(client);
        m_client->disableRoster();
        m_client->setTls(gloox::TLSDisabled);
        m_client->setCompression(false);
        m_client->registerConnectionListener(this);
        m_client->registerMessageHandler(this);
        m_connection = new FakeConnection(fakeServer(), m_client.get(), m_client->logInstance(),
                                          "xmpp.example.org", 5222);
        m_client->setConnectionImpl(m_connection);
    }
    bool readable() const {
        pollfd polled{m_connection->socket(), POLLIN, 0};
        return poll(&polled, 1, 0) == 1;
    }
    // Reads as the session's watch does: once whenever the descriptor is ready.
    gloox::ConnectionError pump() {
        while (m_connection->socket() >= 0 && readable())
            if (const gloox::ConnectionError result = m_client->recv(10); result != gloox::ConnNoError)
                return result;
        return gloox::ConnNoError;
    }
    void login() {
        ASSERT_TRUE(m_client->connect(false));
        pump();
        ASSERT_TRUE(m_connected);
        journal().take();
        fakeServer().forgetStanzas();
    }

    void onConnect() override { m_connected = true; }
    void onDisconnect(gloox::ConnectionError error) override { m_losses.push_back(error); }
    bool onTLSConnect(const gloox::CertInfo&) override { return false; }
    void handleMessage(const gloox::Message& message, gloox::MessageSession*) override {
        m_bodies.push_back(message.body());
    }

    std::unique_ptr<gloox::Client> m_client;
    FakeConnection* m_connection = nullptr;
    bool m_connected = false;
    std::vector<gloox::ConnectionError> m_losses;
    std::vector<std::string> m_bodies;
};

}  // namespace

TEST_F(FakeConnectionTest, LogsInWithPlain) {
    ASSERT_TRUE(m_client->connect(false));
    EXPECT_FALSE(fakeServer().connected()) << "nothing happens before the descriptor is read";
    pump();
    EXPECT_TRUE(m_connected);
    EXPECT_TRUE(fakeServer().loggedIn());
    EXPECT_EQ(m_client->jid().full(), "u1234@example.org/dev42");
    EXPECT_FALSE(readable()) << "an idle connection must not wake the loop";
}

TEST_F(FakeConnectionTest, LogsInAnonymously) {
    adopt(std::make_unique<gloox::Client>("example.org"));
    fakeServer().offerMechanism("ANONYMOUS");
    fakeServer().bindAs("a1b2@example.org/r");
    ASSERT_TRUE(m_client->connect(false));
    pump();
    EXPECT_TRUE(m_connected);
    EXPECT_EQ(m_client->jid().full(), "a1b2@example.org/r");
}

TEST_F(FakeConnectionTest, JournalsStanzasAsTheyWereWritten) {
    login();
    const std::string stanza =
        "<iq to='pubsub.example.org' id='x&apos;1' type='set'>"
        "<pubsub xmlns='http://jabber.org/protocol/pubsub'><publish node='/a/b'>"
        "<item><payload>1 &lt; 2 &amp; &quot;3&quot;</payload></item></publish></pubsub></iq>";
    gloox::Tag* iq = new gloox::Tag("iq", "to", "pubsub.example.org");
    iq->addAttribute("id", "x'1");
    iq->addAttribute("type", "set");
    gloox::Tag* pubsub = new gloox::Tag(iq, "pubsub", "xmlns", "http://jabber.org/protocol/pubsub");
    gloox::Tag* publish = new gloox::Tag(pubsub, "publish", "node", "/a/b");
    new gloox::Tag(new gloox::Tag(publish, "item"), "payload", "1 < 2 & \"3\"");
    m_client->send(iq);
    EXPECT_THAT(journal().take(), ElementsAre("xmpp.send " + stanza));
    ASSERT_EQ(fakeServer().stanzas().size(), 1u);
    EXPECT_EQ(fakeServer().stanzas()[0].id(), "x'1");
    EXPECT_EQ(fakeServer().stanzas()[0].textWithoutId().substr(0, 39),
              "<iq to='pubsub.example.org' id='ID' typ");
}

TEST_F(FakeConnectionTest, ReplacesOnlyTheIdOfTheOuterElement) {
    EXPECT_EQ(withoutId("<iq type='set' id='a'><node id='b'/></iq>"),
              "<iq type='set' id='ID'><node id='b'/></iq>");
    EXPECT_EQ(withoutId("<message to='x'><ack id='b'/></message>"),
              "<message to='x'><ack id='b'/></message>");
    EXPECT_EQ(withoutId("<iq id='a' subid='c'/>"), "<iq id='ID' subid='c'/>");
}

TEST_F(FakeConnectionTest, SendsWhatTheTestSpecifies) {
    login();
    fakeServer().sends("<message from='a@example.org'><body>one</body></message>");
    fakeServer().sends("<message from='a@example.org'><body>two</body></message>");
    pump();
    EXPECT_THAT(m_bodies, ElementsAre("one", "two"));
    EXPECT_FALSE(readable());
}

TEST_F(FakeConnectionTest, RefusesAConnection) {
    fakeServer().refuseConnections(gloox::ConnConnectionRefused);
    EXPECT_FALSE(m_client->connect(false));
    EXPECT_EQ(fakeServer().connects(), 1);
    EXPECT_EQ(m_connection->socket(), -1);
}

TEST_F(FakeConnectionTest, FailsAfterConnectOnTheFirstRead) {
    fakeServer().failAfterConnect(gloox::ConnDnsError);
    ASSERT_TRUE(m_client->connect(false));
    EXPECT_EQ(pump(), gloox::ConnDnsError);
    EXPECT_THAT(m_losses, ElementsAre(gloox::ConnDnsError));
}

TEST_F(FakeConnectionTest, RefusesALogin) {
    fakeServer().refuseLogin("not-authorized");
    ASSERT_TRUE(m_client->connect(false));
    pump();
    EXPECT_THAT(m_losses, ElementsAre(gloox::ConnAuthenticationFailed));
    EXPECT_EQ(m_client->authError(), gloox::SaslNotAuthorized);
}

TEST_F(FakeConnectionTest, AnswersNothingWhenConfigured) {
    fakeServer().answerNothing();
    ASSERT_TRUE(m_client->connect(false));
    EXPECT_EQ(pump(), gloox::ConnNoError);
    EXPECT_FALSE(m_connected);
    EXPECT_THAT(m_losses, IsEmpty());
}

TEST_F(FakeConnectionTest, BreaksAfterWhatWasSentBefore) {
    login();
    fakeServer().sends("<message from='a@example.org'><body>last</body></message>");
    fakeServer().closesWith(gloox::ConnIoError);
    EXPECT_EQ(pump(), gloox::ConnIoError);
    EXPECT_THAT(m_bodies, ElementsAre("last"));
    EXPECT_THAT(m_losses, ElementsAre(gloox::ConnIoError));
    EXPECT_FALSE(fakeServer().connected());
}

TEST_F(FakeConnectionTest, ClosesTheStream) {
    login();
    fakeServer().closesStream();
    pump();
    EXPECT_THAT(m_losses, ElementsAre(gloox::ConnStreamClosed));
}

TEST_F(FakeConnectionTest, SeesTheClientClose) {
    login();
    m_client->disconnect();
    EXPECT_TRUE(fakeServer().streamClosedByClient());
    EXPECT_FALSE(fakeServer().connected());
    EXPECT_THAT(m_losses, ElementsAre(gloox::ConnUserDisconnected));
    EXPECT_EQ(m_connection->socket(), -1);
}
