// SPDX-License-Identifier: GPL-3.0-only
// TLS against real servers, good and bad ones.
#include <fstream>

#include "tests/unit/xmpp/network.h"

namespace {

const std::string kMessage = "<message from='friend@example.org'><body>hi</body></message>";

class Secured : public Network {
  protected:
    void start(ScriptedServer::Script script, const std::string& host = "127.0.0.1") {
        server = std::make_unique<ScriptedServer>(std::move(script));
        makeClient(host, server->port());
        client->setTls(gloox::TLSRequired);
        client->setCACerts({authority.file()});
    }
    // Starts a server with this certificate; `afterwards` receives what the client sends after the handshake.
    void offer(const Identity& certificate, std::string& afterwards) {
        start([&](Peer& peer) {
            peer.agreeOnTls();
            peer.handshake(certificate);
            afterwards = peer.untilEnd();
        });
    }
    // Ends the client before the server, whose script waits for that.
    ~Secured() override { disposeClient(); }

    const Authority authority{"Test authority"};
    const Identity identity = authority.issue({"example.org"});
    std::unique_ptr<ScriptedServer> server;
};

struct Version {
    const char* priority;
    const char* name;
};
class Versions : public Secured, public testing::WithParamInterface<Version> {};

TEST_P(Versions, CarryTheStreamAndDescribeItself) {
    std::string serverName;
    start([&](Peer& peer) {
        peer.logIn(&identity, GetParam().priority);
        serverName = peer.serverName;
        peer.send(kMessage);
        peer.untilEnd();
    });
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return listener.count("message") > 0; })) << server->failure();
    EXPECT_EQ(listener.events, (std::vector<std::string>{"tls 0", "connect", "message " + kMessage}));
    EXPECT_EQ(listener.certificate.protocol, GetParam().name);
    EXPECT_EQ(listener.certificate.issuer, "CN=Test authority");
    EXPECT_EQ(listener.certificate.server, "CN=example.org");
    EXPECT_TRUE(listener.certificate.chain);
    EXPECT_FALSE(listener.certificate.cipher.empty());
    EXPECT_FALSE(listener.certificate.mac.empty());
    EXPECT_EQ(listener.certificate.compression, "NULL");
    EXPECT_LT(listener.certificate.date_from, std::time(nullptr));
    EXPECT_GT(listener.certificate.date_to, std::time(nullptr));
    disposeClient();
    server->stop();
    EXPECT_EQ(serverName, "example.org");
    EXPECT_EQ(server->failure(), "");
}

INSTANTIATE_TEST_SUITE_P(
    All, Versions, testing::Values(Version{"+VERS-TLS1.3", "TLS1.3"}, Version{"+VERS-TLS1.2", "TLS1.2"}),
    [](const auto& each) { return std::string(each.param.name + 3, 1) + "_" + (each.param.name + 5); });

TEST_F(Secured, LongStanzasPassInBothDirections) {
    const std::string body(200'000, 'b');
    std::string received;
    start([&](Peer& peer) {
        peer.logIn(&identity);
        received = peer.until("</iq>");
        peer.send("<message><body>" + body + "</body></message>");
        peer.untilEnd();
    });
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isConnected(); }));
    auto* item = new gloox::Tag("item");
    new gloox::Tag(item, "payload", body);
    ASSERT_NE(manager->publishItem(gloox::JID("pubsub.example.org"), "/a", item, &handler), "");
    ASSERT_TRUE(waitFor([this] { return listener.count("message") > 0; })) << server->failure();
    EXPECT_EQ(listener.events.back(), "message <message><body>" + body + "</body></message>");
    EXPECT_NE(received.find("<payload>" + body + "</payload>"), std::string::npos);
}

TEST_F(Secured, EveryMessageOfABurstArrives) {
    start([&](Peer& peer) {
        peer.logIn(&identity);
        std::string burst;
        for (int i = 0; i < 5'000; ++i)
            burst += kMessage;
        peer.send(burst);
        peer.untilEnd();
    });
    ASSERT_TRUE(connect());
    EXPECT_TRUE(waitFor([this] { return listener.count("message") == 5'000; })) << listener.count("message");
}

// --- certificates

struct Certificate {
    const char* name;
    std::function<Identity(const Authority&)> make;
    int status;
};
class BadCertificates : public Secured, public testing::WithParamInterface<Certificate> {};

TEST_P(BadCertificates, AreToldToTheListenerWhoseRefusalEndsTheStream) {
    const Identity bad = GetParam().make(authority);
    std::string afterwards = "nothing";
    offer(bad, afterwards);
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); })) << server->failure();
    EXPECT_EQ(listener.events,
              (std::vector<std::string>{"tls " + std::to_string(GetParam().status), "disconnect 13"}));
    server->stop();
    EXPECT_TRUE(afterwards.empty() || afterwards == "nothing") << afterwards;
}

constexpr std::time_t kDay = 86'400;
const std::string kForServers = GNUTLS_KP_TLS_WWW_SERVER, kForClients = GNUTLS_KP_TLS_WWW_CLIENT,
                  kForMail = GNUTLS_KP_EMAIL_PROTECTION, kForAll = GNUTLS_KP_ANY;

INSTANTIATE_TEST_SUITE_P(
    All, BadCertificates,
    testing::Values(
        Certificate{"WrongName", [](const Authority& a) { return a.issue({"other.example"}); },
                    gloox::CertWrongPeer},
        Certificate{"UnknownAuthority",
                    [](const Authority&) { return Authority("Somebody else").issue({"example.org"}); },
                    gloox::CertInvalid | gloox::CertSignerUnknown},
        Certificate{"Expired",
                    [](const Authority& a) {
                        return a.issue({"example.org"}, std::time(nullptr) - kDay / 2,
                                       std::time(nullptr) - 60);
                    },
                    gloox::CertInvalid | gloox::CertExpired},
        Certificate{"NotYetValid",
                    [](const Authority& a) {
                        return a.issue({"example.org"}, std::time(nullptr) + 3'600,
                                       std::time(nullptr) + kDay / 2);
                    },
                    gloox::CertInvalid | gloox::CertNotActive},
        Certificate{"ForClientsAlone",
                    [](const Authority& a) { return a.issue({"example.org"}, {kForClients}); },
                    gloox::CertInvalid},
        Certificate{"ForMailAndCodeAlone",
                    [](const Authority& a) {
                        return a.issue({"example.org"}, {kForMail, GNUTLS_KP_CODE_SIGNING});
                    },
                    gloox::CertInvalid},
        Certificate{
            "OfAnAuthorityForMailAlone",
            [](const Authority& a) {
                return Authority("Mail authority", a, {kForMail}).issue({"example.org"}, {kForServers});
            },
            gloox::CertInvalid}),
    [](const auto& each) { return each.param.name; });

using Purposes = std::vector<std::string>;
struct Purpose {
    const char* name;
    Purposes ofServer, ofAuthority;
};
class GoodPurposes : public Secured, public testing::WithParamInterface<Purpose> {};

TEST_P(GoodPurposes, AreAccepted) {
    const Authority between("Between", authority, GetParam().ofAuthority);
    const Identity good = between.issue({"example.org"}, GetParam().ofServer);
    start([&](Peer& peer) {
        peer.logIn(&good);
        peer.untilEnd();
    });
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isConnected(); })) << server->failure();
}

INSTANTIATE_TEST_SUITE_P(All, GoodPurposes,
                         testing::Values(Purpose{"None", {}, {}}, Purpose{"Servers", {kForServers}, {}},
                                         Purpose{"ServersAmongOthers", {kForClients, kForServers}, {}},
                                         Purpose{"All", {kForAll}, {}},
                                         Purpose{"ServersTwice", {kForServers}, {kForServers, kForClients}},
                                         Purpose{"NoneOfServersAuthority", {}, {kForServers}}),
                         [](const auto& each) { return each.param.name; });

TEST_F(Secured, ASignerThatIsNoAuthorityIsNotTrusted) {
    const Authority leaf("Test leaf", Authority::Kind::NoCa);
    const Identity vouched = leaf.issue({"example.org"});
    start([&](Peer& peer) { peer.logIn(&vouched); });
    client->setCACerts({leaf.file()});
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); }));
    const int status = gloox::CertInvalid | gloox::CertSignerNotCa;
    EXPECT_EQ(listener.events, (std::vector<std::string>{"tls " + std::to_string(status), "disconnect 13"}));
    EXPECT_FALSE(listener.certificate.chain);
}

TEST_F(Secured, WithoutAListenerAGoodCertificateIsAccepted) {
    start([&](Peer& peer) { peer.logIn(&identity), peer.untilEnd(); });
    ASSERT_TRUE(connect());
    removeListeners();
    EXPECT_TRUE(waitFor([this] { return client->authed(); })) << server->failure();
}

TEST_F(Secured, WithoutAListenerABadCertificateIsRefused) {
    const Identity bad = authority.issue({"other.example"});
    std::string afterwards = "nothing";
    offer(bad, afterwards);
    ASSERT_TRUE(connect());
    removeListeners();
    ASSERT_TRUE(waitFor([this] { return client->state() == gloox::StateDisconnected; }));
    EXPECT_FALSE(client->authed());
    disposeClient();
    server->stop();
    EXPECT_TRUE(afterwards.empty() || afterwards == "nothing") << afterwards;
}

TEST_F(Secured, ACertificateMayNameTheConnectHostInstead) {
    const Identity host = authority.issue({"localhost"});
    start([&](Peer& peer) { peer.logIn(&host), peer.untilEnd(); }, "localhost");
    ASSERT_TRUE(connect());
    EXPECT_TRUE(waitFor([this] { return isConnected(); })) << server->failure();
}

TEST_F(Secured, ACertificateMayNameTheConnectAddressInstead) {
    const Identity host = authority.issue({"127.0.0.1"});
    start([&](Peer& peer) { peer.logIn(&host), peer.untilEnd(); });
    ASSERT_TRUE(connect());
    EXPECT_TRUE(waitFor([this] { return isConnected(); })) << server->failure();
}

TEST_F(Secured, NobodyIsTrustedWithoutAnAuthority) {
    start([&](Peer& peer) { peer.logIn(&identity); });
    client->setCACerts({authority.file() + ".missing"});
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); }));
    EXPECT_EQ(listener.events, (std::vector<std::string>{"tls 3", "disconnect 13"}));
}

TEST_F(Secured, AListenerMayRefuseAGoodCertificate) {
    start([&](Peer& peer) { peer.logIn(&identity); });
    listener.accepts = false;
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); }));
    EXPECT_EQ(listener.events, (std::vector<std::string>{"tls 0", "disconnect 13"}));
}

TEST_F(Secured, TheClientMayBeDisposedOfDuringTheHandshake) {
    start([&](Peer& peer) { peer.logIn(&identity); });
    listener.atTls = [this] { disposeClient(); };
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return !client; }));
    settle();
    EXPECT_EQ(listener.events, std::vector<std::string>{"tls 0"});
}

TEST_F(Secured, TheUserMayDisconnectDuringTheHandshake) {
    start([&](Peer& peer) { peer.logIn(&identity); });
    listener.atTls = [this] { client->disconnect(); };
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); }));
    settle();
    EXPECT_EQ(listener.events, (std::vector<std::string>{"tls 0", "disconnect 17"}));
}

// --- handshakes and records gone wrong

struct Trouble {
    const char* name;
    std::function<void(Peer&, const Identity&)> script;
    std::vector<std::string> events;
};
class Troubles : public Secured, public testing::WithParamInterface<Trouble> {};

TEST_P(Troubles, EndTheStreamOnce) {
    start([&](Peer& peer) { GetParam().script(peer, identity); });
    client->setDeadline(2'000);
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); })) << server->failure();
    settle();
    EXPECT_EQ(listener.events, GetParam().events);
}

const std::string kFatalAlert("\x15\x03\x03\x00\x02\x02\x28", 7);    // handshake_failure
const std::string kWarningAlert("\x15\x03\x03\x00\x02\x01\x70", 7);  // unrecognized_name
using Events = std::vector<std::string>;

INSTANTIATE_TEST_SUITE_P(
    All, Troubles,
    testing::Values(Trouble{"FatalAlertInTheHandshake",
                            [](Peer& peer, const Identity&) {
                                peer.agreeOnTls();
                                peer.bytes(100);
                                peer.sendRaw(kFatalAlert);
                                peer.untilEnd();
                            },
                            Events{"disconnect 13"}},
                    Trouble{"CloseInTheHandshake",
                            [](Peer& peer, const Identity&) {
                                peer.agreeOnTls();
                                peer.bytes(100);
                            },
                            Events{"disconnect 3"}},
                    Trouble{"ResetInTheHandshake",
                            [](Peer& peer, const Identity&) {
                                peer.agreeOnTls();
                                peer.bytes(100);
                                peer.reset();
                            },
                            Events{"disconnect 7"}},
                    Trouble{"GarbageInTheHandshake",
                            [](Peer& peer, const Identity&) {
                                peer.agreeOnTls();
                                peer.bytes(100);
                                peer.sendRaw(std::string(2'000, 'g'));
                                peer.untilEnd();
                            },
                            Events{"disconnect 13"}},
                    Trouble{"SilenceInTheHandshake",
                            [](Peer& peer, const Identity&) {
                                peer.agreeOnTls();
                                peer.untilEnd();
                            },
                            Events{"disconnect 7"}},
                    Trouble{"AnOldVersion",
                            [](Peer& peer, const Identity& identity) {
                                peer.agreeOnTls();
                                peer.handshake(identity, "+VERS-TLS1.1");
                            },
                            Events{"disconnect 13"}},
                    Trouble{"ARefusalOfTls",
                            [](Peer& peer, const Identity&) {
                                peer.openStream("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
                                peer.until("/>");
                                peer.send(
                                    "<failure xmlns='urn:ietf:params:xml:ns:xmpp-tls'/></stream:stream>");
                                peer.untilEnd();
                            },
                            Events{"disconnect 13"}},
                    Trouble{"FatalAlertAfterTheHandshake",
                            [](Peer& peer, const Identity& identity) {
                                peer.logIn(&identity, "+VERS-TLS1.2");
                                peer.sendRaw(kFatalAlert);
                                peer.untilEnd();
                            },
                            Events{"tls 0", "connect", "disconnect 7"}},
                    Trouble{"GarbageAfterTheHandshake",
                            [](Peer& peer, const Identity& identity) {
                                peer.logIn(&identity);
                                peer.sendRaw(std::string(2'000, 'g'));
                                peer.untilEnd();
                            },
                            Events{"tls 0", "connect", "disconnect 7"}},
                    Trouble{"GoodbyeAfterTheHandshake",
                            [](Peer& peer, const Identity& identity) {
                                peer.logIn(&identity);
                                peer.closeTls();
                                peer.untilEnd();
                            },
                            Events{"tls 0", "connect", "disconnect 3"}},
                    Trouble{"CloseAfterTheHandshake",
                            [](Peer& peer, const Identity& identity) { peer.logIn(&identity); },
                            Events{"tls 0", "connect", "disconnect 3"}},
                    Trouble{"StreamEndAfterTheHandshake",
                            [](Peer& peer, const Identity& identity) {
                                peer.logIn(&identity);
                                peer.send("</stream:stream>");
                                peer.untilEnd();
                            },
                            Events{"tls 0", "connect", "disconnect 3"}}),
    [](const auto& each) { return each.param.name; });

TEST_F(Secured, AGoodbyeEndsTheConnectionWithoutTheServersClose) {
    start([&](Peer& peer) {
        peer.logIn(&identity);
        peer.closeTls();
        peer.untilEnd();
    });
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); })) << server->failure();
    server->stop();
    EXPECT_EQ(server->failure(), "") << "the server waited for the client in vain";
}

TEST_F(Secured, AWarningAlertInTheHandshakeIsNotTheEnd) {
    start([&](Peer& peer) {
        peer.agreeOnTls();
        peer.sendRaw(kWarningAlert);
        peer.handshake(identity, "+VERS-TLS1.2");
        peer.authenticate();
        peer.bind();
        peer.untilEnd();
    });
    ASSERT_TRUE(connect());
    EXPECT_TRUE(waitFor([this] { return isConnected() || isOver(); })) << server->failure();
    EXPECT_EQ(listener.events, (std::vector<std::string>{"tls 0", "connect"}));
}

TEST_F(Secured, NoDescriptorIsLeftBehind) {
    const Identity bad = authority.issue({"other.example"});
    start([&](Peer& peer) {
        peer.agreeOnTls();
        peer.handshake(bad);
        peer.untilEnd();
    });
    const int port = server->port();
    const int before = descriptors();
    for (int i = 0; i < 10; ++i) {
        listener.events.clear();
        makeClient("127.0.0.1", port);
        client->setTls(gloox::TLSRequired);
        client->setCACerts({authority.file()});
        ASSERT_TRUE(connect());
        ASSERT_TRUE(waitFor([this] { return isOver(); }));
        disposeClient();
        settle();
    }
    server->stop();
    EXPECT_LE(descriptors(), before);
}

}  // namespace
