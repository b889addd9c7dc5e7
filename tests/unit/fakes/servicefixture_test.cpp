// SPDX-License-Identifier: GPL-3.0-only
// The fixture itself: a session that logs in over the fake server, the functions of the dialogue, and
// the final checks.
#include "tests/fakes/servicefixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>

#include "nodes/methods.h"
#include "service/methods.h"
#include "util/log.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

KeptMessage gStray;

bool keepStray(QSHandle*, QSMessage* message, void*) {
    gStray = KeptMessage(message);
    return true;
}

constexpr char kCreateNode[] = R"({"node":"/u1234/dev42/app/inbox"})";

class ServiceFixtureTest : public ServiceTest {};

// A test that leaks a message, run by hand.
class LeakingTest : public ServiceTest {
  public:
    void TestBody() override {}
    void leak() {
        SetUp();
        call(keepStray, "{\"left\":true}");
        TearDown();
        gStray = KeptMessage();
    }
};

// A test that calls another service over the public bus, run by hand.
class PubliclyCallingTest : public ServiceTest {
  public:
    void TestBody() override {}
    void callPublicly() {
        SetUp();
        EXPECT_TRUE(
            QSCall(publicHandle(), "zelt://com.zelt.power/a", "{}", nullptr, nullptr, nullptr, nullptr));
        TearDown();
    }
};

}  // namespace

TEST_F(ServiceFixtureTest, BeginsWithAFreshSession) {
    EXPECT_EQ(session().m_client, nullptr);
    EXPECT_FALSE(session().m_connected);
    EXPECT_EQ(session().m_privateHandle, privateHandle());
    EXPECT_EQ(session().m_publicHandle, publicHandle());
    EXPECT_EQ(session().m_serviceHandle, serviceHandle());
    EXPECT_EQ(session().m_mainLoop, mainLoop());
    EXPECT_TRUE(std::filesystem::is_empty(stateFolder()));
    EXPECT_THAT(takeEvents(), IsEmpty());
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ServiceFixtureTest, LogsInOverTheFakeServer) {
    connectSession();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().host(), kServer);
    EXPECT_EQ(fakeServer().port(), 5222);
    EXPECT_EQ(fakeServer().localAddress(), kLocalAddress);
    EXPECT_THAT(takeEvents(), IsEmpty()) << "what the login wrote is forgotten";
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ServiceFixtureTest, RunsARequestAndItsAnswer) {
    connectSession();
    const Answer created = callPrivate(createNode, "createNode", kCreateNode);
    EXPECT_TRUE(created.waiting());
    answer(lastId());
    EXPECT_FALSE(created.waiting());
    EXPECT_FALSE(created.kept());
    EXPECT_EQ(created.all().size(), 1u);
}

TEST_F(ServiceFixtureTest, RunsARequestAndItsError) {
    connectSession();
    const Answer created = callPrivate(createNode, "createNode", kCreateNode);
    answerError(lastId(), "cancel", "conflict");
    EXPECT_NE(created.text().find("conflict"), std::string::npos) << created.text();
}

TEST_F(ServiceFixtureTest, HidesTheIdsOfStanzas) {
    connectSession();
    callPrivate(createNode, "createNode", kCreateNode);
    const std::string id = expectStanza(lastStanza().textWithoutId());
    const Texts events = takeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].find(id), std::string::npos);
    EXPECT_NE(events[0].find("id='ID'"), std::string::npos);
}

TEST_F(ServiceFixtureTest, PushesItems) {
    connectSession();
    session().createCacheDir();
    pushItem("/u1234/dev42/app/in'box", "7", "item-1", "1 < 2 & 'x'");
    EXPECT_FALSE(takeEvents().empty()) << "the session handled it";
    EXPECT_EQ(fakePrefs().stored("com.zelt.pubsubservice").count("/u1234/dev42/app/in'box"), 1u);
}

TEST_F(ServiceFixtureTest, KeepsStoreAndFilesOverARestart) {
    fakePrefs().store("com.zelt.pubsubservice", "key", "1");
    writeFile(stateFolder() / "pubsub.conf", "line\n");
    connectSession();
    restartService();
    EXPECT_FALSE(session().m_connected);
    EXPECT_EQ(session().m_username, "");
    EXPECT_EQ(fakePrefs().stored("com.zelt.pubsubservice").at("key"), "1");
    EXPECT_EQ(fileText(stateFolder() / "pubsub.conf"), "line\n");
    connectSession();
}

TEST_F(ServiceFixtureTest, GivesTheLogOfTheService) {
    PrvPrintErr({"somewhere", 12}, "text %d", 1);
    EXPECT_THAT(takeLogLines(), ElementsAre("somewhere: text 1"));
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ServiceFixtureTest, AllowsARequestThatIsStillWaitingAtTheEnd) {
    connectSession();
    EXPECT_TRUE(callPrivate(createNode, "createNode", kCreateNode).waiting());
}

TEST_F(ServiceFixtureTest, AllowsAMessageThatTheTestDeclared) {
    allowHeld(call(keepStray, "{}"));
}

TEST(ServiceFixtureLeakTest, FailsWhenAMessageIsLeftBehind) {
    gStray = KeptMessage();
    EXPECT_NONFATAL_FAILURE(LeakingTest().leak(), "still held: method {\"left\":true}, 1 reference");
}

TEST(ServiceFixtureCallTest, FailsWhenACallGoesOverThePublicBus) {
    EXPECT_NONFATAL_FAILURE(PubliclyCallingTest().callPublicly(),
                            "A call over the public bus: zelt://com.zelt.power/a");
}
