// SPDX-License-Identifier: GPL-3.0-only
// Creating a client from the session's details, connecting it, and checking the server's certificate.
#include "tests/unit/session/connectionfixture.h"
#include "xmpp/client.h"
#include "xmpp/manager.h"

namespace {

// --- building a client

TEST_F(Connection, NeedsAPasswordAServerAndAJid) {
    for (std::string PubSubSession::*member : {&PubSubSession::m_password, &PubSubSession::m_server}) {
        setAccountDetails();
        (session().*member).clear();
        EXPECT_FALSE(session().createSession());
        EXPECT_EQ(takeLogLines(), Texts{"createSession: Password *, Server " + session().m_server +
                                        " and u1234 not initialized"});
    }
    setAccountDetails();
    session().m_jid = gloox::JID();
    EXPECT_FALSE(session().createSession());
    EXPECT_EQ(takeLogLines(),
              Texts{"createSession: Password *, Server xmpp.example.org and  not initialized"});
    EXPECT_EQ(session().m_client, nullptr);
    EXPECT_EQ(session().m_pubsub, nullptr);
}

TEST_F(Connection, BuildsAClientAndAManagerFromTheDetails) {
    setAccountDetails();
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
    setAccountDetails();
    session().m_resource.clear();
    EXPECT_TRUE(session().createSession());
    EXPECT_EQ(session().m_client->jid().full(), kJid);
}

TEST_F(Connection, ReplacesAClientThatIsThere) {
    connectSession();
    session().m_client->setTls(
        gloox::TLSOptional);  // distinguishes the old one from a new one at the same address
    EXPECT_TRUE(session().createSession());
    ASSERT_NE(session().m_client, nullptr);
    EXPECT_EQ(session().m_client->tls(), gloox::TLSRequired);
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    EXPECT_EQ(takeLogLines(), (Texts{"createSession: Overriding session with new session.",
                                     "onDisconnect: Disconnected from xmpp server 17"}));
    EXPECT_FALSE(reconnectArmed());
    EXPECT_FALSE(fakeServer().connected());
}

// --- connecting

TEST_F(Connection, NeedsANetwork) {
    setAccountDetails();
    session().m_networkAvailable = false;
    session().m_lastError = 5;
    EXPECT_FALSE(session().connectToService());
    EXPECT_EQ(takeLogLines(),
              Texts{"connectToService: There is no network available, cannot connect to service"});
    EXPECT_EQ(session().m_lastError, 0);
    EXPECT_EQ(session().m_client, nullptr);
    EXPECT_EQ(takeEvents(), Texts{}) << "nothing is scheduled";
    EXPECT_FALSE(session().tryConnecting()) << "the same call under its other name";
}

TEST_F(Connection, IsNotReportedAsUpWithoutANetworkEvenWhileItIsUp) {
    connectSession();
    session().m_networkAvailable = false;
    EXPECT_FALSE(session().connectToService());
    EXPECT_EQ(takeLogLines(),
              Texts{"connectToService: There is no network available, cannot connect to service"});
    EXPECT_TRUE(session().m_connected);
    EXPECT_NE(session().m_client, nullptr);
}

TEST_F(Connection, IsNotMadeTwice) {
    connectSession();
    session().m_lastError = 5;
    EXPECT_TRUE(session().connectToService());
    EXPECT_EQ(session().m_lastError, 0);
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(fakeServer().connects(), 1);
    session().disconnect();
    beginConnecting();
    EXPECT_TRUE(session().connectToService());
    EXPECT_TRUE(session().tryConnecting());
    EXPECT_EQ(takeLogLines(), Texts{});
    pump();
    EXPECT_EQ(fakeServer().connects(), 2);
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
    setAccountDetails();
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
    setAccountDetails();
    session().m_ipAddress.clear();
    EXPECT_TRUE(session().connectToService());
    EXPECT_EQ(takeLogLines(),
              (Texts{"connectToService: IP Address empty even though we have network available!",
                     "connectToService: We are connecting to the vbx server.", attachedLine()}));
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().localAddress(), "");
}

TEST_F(Connection, IsMadeFromTheAddressThatIsGiven) {
    setAccountDetails();
    ASSERT_TRUE(session().createSession());
    EXPECT_TRUE(session().connectToServer("192.0.2.9"));
    EXPECT_EQ(fakeServer().localAddress(), "192.0.2.9");
    EXPECT_EQ(session().m_socket, session().m_client->socket());
    EXPECT_EQ(PubSubSession::m_source, nullptr) << "the watch is not made here";
}

// A connection that is no TCP connection has no descriptor to watch.
class Unwatchable : public gloox::ConnectionBase {
  public:
    using ConnectionBase::ConnectionBase;
    gloox::ConnectionError connect() override { return gloox::ConnNoError; }
    gloox::ConnectionError recv(int) override { return gloox::ConnNoError; }
    bool send(const std::string&) override { return false; }
    gloox::ConnectionError receive() override { return gloox::ConnNoError; }
    void disconnect() override {}
    void cleanup() override {}
    void getStatistics(long int& in, long int& out) override { in = out = 0; }
    ConnectionBase* newInstance() const override { return nullptr; }
};

TEST_F(Connection, ThatHasNoSocketFailsAndTellsItsCallerNothing) {
    setAccountDetails();
    session().m_socket = 77;
    xmpp::Client::setConnectionFactory(
        [](xmpp::Client& client, auto&&...) { return new Unwatchable(&client); });
    EXPECT_TRUE(session().connectToService());
    EXPECT_FALSE(session().m_connecting);
    EXPECT_EQ(session().m_socket, 77);
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    EXPECT_EQ(takeLogLines(),
              (Texts{"connectToService: We are connecting to the vbx server.",
                     "connectToService: There is no server or network, connection to server fails",
                     "connectToService: Warning: We are not connected to the vbx server"}));
    EXPECT_FALSE(session().connectToServer("")) << "the session sees it from the result";
}

TEST_F(Connection, ThatIsRefusedAtOnceArmsAReconnectAndTellsItsCallerNothing) {
    setAccountDetails();
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

TEST_F(Connection, LogsEveryLevelAndEveryAreaOfTheLibraryWhenAskedTo) {
    setAccountDetails();
    session().m_debugLog = true;
    ASSERT_TRUE(session().connectToService());
    takeLog();
    Texts expected;
    for (int bit = 0; bit < 24; ++bit) {
        session().m_client->logInstance().log(gloox::LogLevelDebug, static_cast<gloox::LogArea>(1 << bit),
                                              std::to_string(bit));
        expected.push_back("handleLog: Gloox dbg: " + std::to_string(bit));
    }
    EXPECT_EQ(takeLogLines(), expected);
}

TEST_F(Connection, TakesEventsOfThePubSubServiceAlone) {
    connectSession();
    serverSends(
        "<message from='mallory@evil.example'><event xmlns='http://jabber.org/protocol/pubsub#event'>"
        "<items node='/n'><item id='1' seqNo='1'/></items></event></message>");
    EXPECT_EQ(takeLogLines(), Texts{"passMessage: Dropped an event or form from mallory@evil.example, which "
                                    "is not the pub-sub service"});
    EXPECT_EQ(takeEvents(), Texts{});
    pushItem("/n", "1", "item", "text");
    EXPECT_NE(takeEvents(), Texts{}) << "the item is stored and acknowledged";
    EXPECT_FALSE(
        log().contains("Dropped an event or form from pubsub.example.org, which is not the pub-sub "
                       "service"));
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

TEST_F(Connection, RefusesACertificateWithAnyFault) {
    for (const int fault :
         {gloox::CertInvalid, gloox::CertSignerUnknown, gloox::CertRevoked, gloox::CertExpired,
          gloox::CertNotActive, gloox::CertWrongPeer, gloox::CertSignerNotCa})
        EXPECT_FALSE(session().onTLSConnect(certificate(fault))) << fault;
}

TEST_F(Connection, RefusesACertificateWithAFault) {
    EXPECT_FALSE(session().onTLSConnect(certificate(gloox::CertExpired)));
    EXPECT_EQ(takeLogLines(),
              (Texts{"onTLSConnect: Certificate validation failed",
                     "onTLSConnect: Cert Info status: " + std::to_string(gloox::CertExpired) +
                         "\nissuer: issuer\npeer: peer\nprotocol: TLS1.3\nmac: mac\ncipher: cipher\n"
                         "compression: none\n"}));
}

}  // namespace
