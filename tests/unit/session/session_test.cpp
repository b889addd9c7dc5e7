// SPDX-License-Identifier: GPL-3.0-only
// The session object: its initial values, its details, its folder, and its destruction.
#include <sys/stat.h>

#include <utility>

#include "tests/fakes/servicefixture.h"
#include "xmpp/client.h"
#include "xmpp/manager.h"

namespace {

class Session : public ServiceTest {};

TEST_F(Session, BeginsEmptyAndUnconnected) {
    const PubSubSession fresh;
    EXPECT_TRUE(fresh.m_msgMap.empty());
    EXPECT_TRUE(fresh.m_pendingList.empty());
    EXPECT_EQ(fresh.m_pendingCursor, PubSubSession::kNoCursor);
    EXPECT_TRUE(fresh.appNodeMap.empty());
    EXPECT_TRUE(fresh.serviceNodeMap.empty());
    EXPECT_EQ(fresh.m_jid.full(), "");
    EXPECT_FALSE(fresh.m_jid);
    EXPECT_EQ(fresh.m_client, nullptr);
    EXPECT_EQ(fresh.m_pubsub, nullptr);
    EXPECT_FALSE(fresh.m_connected);
    EXPECT_EQ(fresh.m_socket, 0);
    EXPECT_EQ(fresh.m_pubsubService, "");
    EXPECT_EQ(fresh.m_privateHandle, nullptr);
    EXPECT_EQ(fresh.m_mainLoop, nullptr);
    EXPECT_EQ(fresh.m_password + fresh.m_server + fresh.m_username + fresh.m_resource + fresh.m_domain, "");
    EXPECT_EQ(fresh.m_port, 0);
    EXPECT_FALSE(fresh.m_networkAvailable);
    EXPECT_FALSE(fresh.m_connecting);
    EXPECT_EQ(fresh.m_lastError, 0);
    EXPECT_EQ(fresh.m_retryCount, -1);
    EXPECT_EQ(fresh.m_ipAddress, "");
    EXPECT_FALSE(fresh.m_spare1 || fresh.m_spare2 || fresh.m_spare3);
    EXPECT_FALSE(fresh.m_reconnectPending);
    EXPECT_EQ(fresh.m_prefsHandle, nullptr);
    EXPECT_TRUE(fresh.m_endpointMap.empty());
    EXPECT_EQ(fresh.m_publicHandle, nullptr);
    EXPECT_TRUE(fresh.m_offlineMap.empty());
    EXPECT_FALSE(fresh.m_onCloseRegistered);
    EXPECT_TRUE(fresh.subMap.empty());
    EXPECT_EQ(fresh.m_serviceHandle, nullptr);
    EXPECT_TRUE(fresh.m_deleteMap.empty());
    EXPECT_FALSE(fresh.m_debugLog);
    EXPECT_EQ(fresh.m_offlinePrefHandle, nullptr);
    EXPECT_TRUE(fresh.m_activateMap.empty());
    EXPECT_FALSE(fresh.m_bootFinished);
    EXPECT_FALSE(fresh.m_activationDone);
    EXPECT_FALSE(fresh.m_onWan);
    EXPECT_FALSE(fresh.m_survivedOutage);
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Session, TakesItsDetailsButNotTheDomain) {
    session().m_domain = "kept";
    session().setSessionDetails("u1@example.org/res", "secret", "dev42", "xmpp.example.org",
                                "pubsub.example.org", 5223);
    EXPECT_EQ(session().m_jid.full(), "u1@example.org/res");
    EXPECT_EQ(session().m_username, "u1");
    EXPECT_EQ(session().m_password, "secret");
    EXPECT_EQ(session().m_resource, "dev42");
    EXPECT_EQ(session().m_server, "xmpp.example.org");
    EXPECT_EQ(session().m_pubsubService, "pubsub.example.org");
    EXPECT_EQ(session().m_port, 5223);
    EXPECT_EQ(session().m_domain, "kept");
}

TEST_F(Session, CutsTheUserAtTheFirstAtSignOrTakesTheWholeText) {
    session().setSessionDetails("u1@one@two", "", "", "", "", 0);
    EXPECT_EQ(session().m_username, "u1");
    session().setSessionDetails("example.org", "", "", "", "", 0);
    EXPECT_EQ(session().m_username, "example.org");
    session().setSessionDetails("", "", "", "", "", 0);
    EXPECT_EQ(session().m_username, "");
    EXPECT_EQ(session().m_jid.full(), "");
}

TEST_F(Session, ForgetsTheOldJidWhenTheNewOneIsNone) {
    session().setSessionDetails("u1@example.org", "", "", "", "", 0);
    session().setSessionDetails("a b@example.org", "", "", "", "", 0);
    EXPECT_EQ(session().m_jid.full(), "");
    EXPECT_FALSE(session().m_jid);
}

TEST_F(Session, GivesTheValidityOfItsJidAsOneByteAndTheOtherDetailsAsTheyAre) {
    std::string jid = "x", password, resource, server, service;
    int port = 0;
    session().getSessionDetails(jid, password, resource, server, service, port);
    EXPECT_EQ(jid, std::string(1, '\0'));
    setAccountDetails();
    session().getSessionDetails(jid, password, resource, server, service, port);
    EXPECT_EQ(jid, std::string(1, '\1'));
    EXPECT_EQ(password, "secret");
    EXPECT_EQ(resource, kResource);
    EXPECT_EQ(server, kServer);
    EXPECT_EQ(service, kService);
    EXPECT_EQ(port, 5222);
}

TEST_F(Session, CreatesItsCacheFolderWithAllParents) {
    const mode_t old = umask(0);
    std::filesystem::remove_all(stateFolder());
    session().createCacheDir();
    umask(old);
    struct stat status {};
    ASSERT_EQ(stat((stateFolder() / "cache").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0744u);
}

TEST_F(Session, IgnoresACacheFolderThatCannotBeMade) {
    writeFile(stateFolder() / "cache", "in the way");
    session().createCacheDir();
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Session, TurnsTlsOff) {
    session().turnOffTls();  // without a client: nothing to turn off
    setAccountDetails();
    ASSERT_TRUE(session().createSession());
    EXPECT_EQ(session().m_client->tls(), gloox::TLSRequired);
    session().turnOffTls();
    EXPECT_EQ(session().m_client->tls(), gloox::TLSDisabled);
}

TEST_F(Session, LetsTheFactoryCreateASessionFromDetails) {
    PubSubService factory;
    EXPECT_TRUE(factory.createSession("u1@example.org", "secret", "dev42", "xmpp.example.org",
                                      "pubsub.example.org", 5223));
    EXPECT_EQ(session().m_jid.full(), "u1@example.org");
    EXPECT_EQ(session().m_password, "secret");
    EXPECT_EQ(session().m_resource, "dev42");
    EXPECT_EQ(session().m_server, "xmpp.example.org");
    EXPECT_EQ(session().m_pubsubService, "pubsub.example.org");
    EXPECT_EQ(session().m_port, 5223);
    ASSERT_NE(session().m_client, nullptr);
    EXPECT_EQ(session().m_client->jid().full(), "u1@example.org/dev42");
    EXPECT_FALSE(
        factory.createSession("u1@example.org", "", "dev42", "xmpp.example.org", "pubsub.example.org", 5223));
}

TEST_F(Session, GoesWithItsClientAndReportsNothing) {
    auto other = std::make_unique<PubSubSession>(gPubSub);
    other->m_privateHandle = privateHandle();
    other->m_publicHandle = publicHandle();
    other->m_mainLoop = mainLoop();
    other->m_networkAvailable = true;
    other->setSessionDetails(kJid, "secret", kResource, kServer, kService, 5222);
    ASSERT_TRUE(other->connectToService());
    pump();
    ASSERT_TRUE(other->m_connected);
    takeEvents();
    takeLog();
    other.reset();
    EXPECT_EQ(PubSubSession::m_source, nullptr);
    pump();
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_FALSE(fakeServer().connected());
}

// A copy would release twice what the original owns, and lose what it overwrites.
TEST_F(Session, EndsTheProcessRatherThanCopyWhatItOwns) {
    const auto expectDeath = [&] {
        EXPECT_DEATH(PubSubSession(session()).createCacheDir(), "ownsNothing");
        EXPECT_DEATH(session() = gPubSub, "ownsNothing");
        PubSubSession other;
        EXPECT_DEATH(other = session(), "ownsNothing");
    };
    EXPECT_TRUE(session().ownsNothing());
    session() = gPubSub;
    const PubSubSession copy(session());
    EXPECT_TRUE(copy.ownsNothing());

    setAccountDetails();
    EXPECT_TRUE(session().ownsNothing());
    ASSERT_TRUE(session().createSession());
    expectDeath();
    session().dropClient();
    expectDeath();  // the manager is still there
    delete std::exchange(session().m_pubsub, nullptr);
    EXPECT_TRUE(session().ownsNothing());
    session().persistSeqNo("/a", "1");
    expectDeath();
    QPAppFreeHandle(std::exchange(session().m_prefsHandle, nullptr), false);
    session().setOfflineMap("/a", "com.example.app");
    expectDeath();
    QPAppFreeHandle(std::exchange(session().m_offlinePrefHandle, nullptr), false);
    EXPECT_TRUE(session().ownsNothing());
    session().m_writeTimer = 1;
    expectDeath();
    session().m_writeTimer = 0;
}

TEST_F(Session, LogsTheLibrarysLinesUnderItsOwnName) {
    session().handleLog(gloox::LogLevelDebug, gloox::LogAreaXmlIncoming, "<a/>");
    EXPECT_EQ(takeLogLines(), Texts{"handleLog: Gloox dbg: <a/>"});
}

// Answers to operations that this service never requests.
TEST_F(Session, DoesNothingForResultsThatNobodyAskedFor) {
    const gloox::JID jid;
    PubSubSession& own = session();
    own.handleItem(jid, "", nullptr);
    own.handleItems("", jid, "", {}, nullptr);
    own.handleItemDeletation("", jid, "", {}, nullptr);
    own.handleSubscriptionOptions("", jid, jid, "", nullptr, "", nullptr);
    own.handleSubscriptionOptionsResult("", jid, jid, "", "", nullptr);
    own.handleSubscribers("", jid, "", {}, nullptr);
    own.handleSubscribersResult("", jid, "", nullptr, nullptr);
    own.handleAffiliates("", jid, "", nullptr, nullptr);
    own.handleAffiliatesResult("", jid, "", nullptr, nullptr);
    own.handleSubscriptions("", jid, {}, nullptr);
    own.handleAffiliations("", jid, {}, nullptr);
    own.handleDefaultNodeConfig("", jid, nullptr, nullptr);
    own.handleDiscoError(jid, nullptr, 0);
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
}

}  // namespace
