// SPDX-License-Identifier: GPL-3.0-only
// deleteNode: its refusals, its stanza, its answers, and what remains of a deleted endpoint.
#include <utility>

#include "nodes/methods.h"
#include "tests/unit/nodes/refusal.h"
#include "tests/unit/nodes/requesttest.h"

namespace {

RefusalCase given(const char* name, Given state, const char* payload, std::string reply,
                  std::string log = "") {
    return {name, deleteNode, state, payload, std::move(reply), std::move(log)};
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    DeleteNode, NodeRefusal,
    testing::Values(
        given("NoManager", Given::NoManager, "{", nodeErrorReply("", "libErr", "Service not initialized"),
              "deleteNode: PubSub manager not intialized"),
        given("NoService", Given::NoService, "{", nodeErrorReply("", "libErr", "Service not initialized"),
              "deleteNode: PubSub manager not intialized"),
        given("Disconnected", Given::Disconnected, "{",
              nodeErrorReply("", "connectionErr", "Not connected to xmpp server")),
        given("NoJson", Given::Ready, "{", nodeErrorReply("", kQuotedCode, "Malformed json"),
              "deleteNode: Malformed json packet? \n"),
        given("ArrayPayload", Given::Ready, R"(["node"])", nodeErrorReply("", kQuotedCode, kQuotedText)),
        given("NodeMissing", Given::Ready, "{}", nodeErrorReply("", kQuotedCode, kQuotedText)),
        given("NodeEmpty", Given::Ready, R"({"node":""})", nodeErrorReply("", kQuotedCode, kQuotedText)),
        given("NoClient", Given::NoClient, R"({"node":"a"})",
              nodeErrorReply("a", "libErr", "gloox library is not initialized"))),
    caseName);

class DeleteNode : public RequestTest {};

TEST_F(DeleteNode, ReachesTheServer) {
    ask(deleteNode, R"({"node":"/a/b"})");
    expectStanza(ownerStanza("set", "<delete node='/a/b'/>"));
}

TEST_F(DeleteNode, AnswersWithTheNode) {
    const Answer reply = ask(deleteNode, R"({"node":"/a/b"})");
    answer(lastId());
    expectAnswered(reply, R"({ "returnValue": true, "node": "\/a\/b" })");
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(DeleteNode, ReportsAnUnknownNodeAsAnErrorToAPrivateCaller) {
    const Answer reply = ask(deleteNode, R"({"node":"a"})");
    answerError(lastId(), "cancel", "item-not-found");
    expectAnswered(
        reply,
        R"({ "returnValue": false, "node": "a", "errorCode": "cancel", "errorText": "item-not-found" })");
    EXPECT_EQ(takeLogLines(), errorLog("handleNodeDeletation", "Node a", kNotFound));
}

TEST_F(DeleteNode, LogsAnAnswerThatCannotBeSentAsOneToACreation) {
    const Answer reply = ask(deleteNode, R"({"node":"a"})");
    const std::string id = lastId();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    answer(id);
    EXPECT_EQ(takeLogLines(), Texts{"handleNodeDeletation: Sending response to create Node failed id " + id +
                                    " Error no way "});
    EXPECT_FALSE(reply.kept());
}

TEST_F(DeleteNode, TouchesNoRegistryForAPrivateCaller) {
    session().m_activateMap["a"] = true;
    session().m_offlineMap["a"] = "com.example.app";
    ask(deleteNode, R"({"node":"a"})");
    answer(lastId());
    EXPECT_TRUE(session().m_activateMap.contains("a"));
    EXPECT_TRUE(session().m_offlineMap.contains("a"));
}

TEST_F(DeleteNode, SendsNothingForAResultThatNobodyWaitsFor) {
    session().handleNodeDeletation("unknown", gloox::JID(kService), "b", nullptr);
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(), Texts{});
}

class DeleteEndpoint : public RequestTest {
  protected:
    static constexpr char kNode[] = "/u1234/dev42/com.example.app/inbox";

    // A deleteEndpoint request that waits under "id1", for a node that is in every map and store.
    void SetUp() override {
        RequestTest::SetUp();
        m_message = fakeBus().request(publicHandle(), "deleteEndpoint", "{}", "com.example.app 1");
        session().setEndpointMap("id1", m_message, "inbox", kNode, "com.example.app");
        QSMessageUnref(m_message);
        session().m_activateMap[kNode] = true;
        session().setSubMap(kNode, "com.example.app 1", nullptr);
        session().setOfflineMap(kNode, "com.example.app");
        session().addNodeToDeleteStore(kNode, "com.example.app");
        takeEvents();
        takeLog();
    }
    void finish(const gloox::Error* error = nullptr) {
        session().handleNodeDeletation("id1", gloox::JID(kService), kNode, error);
        EXPECT_TRUE(session().m_endpointMap.empty());
        EXPECT_FALSE(m_message->kept());
    }
    void expectEverythingKept() {
        EXPECT_TRUE(session().m_activateMap.contains(kNode));
        EXPECT_TRUE(session().subMap.contains(kNode));
        EXPECT_TRUE(session().m_offlineMap.contains(kNode));
        EXPECT_TRUE(fakePrefs().stored("com.zelt.pubsubservice").contains("deletecom.example.app"));
    }

    FakeMessage* m_message = nullptr;
};

TEST_F(DeleteEndpoint, IsRemovedFromEveryRegistryBeforeTheAnswer) {
    finish();
    EXPECT_FALSE(session().m_activateMap.contains(kNode));
    EXPECT_FALSE(session().subMap.contains(kNode));
    EXPECT_FALSE(session().m_offlineMap.contains(kNode));
    EXPECT_FALSE(fakePrefs().stored("com.zelt.pubsubservice").contains("deletecom.example.app"));
    const Texts events = takeEvents();
    EXPECT_EQ(events.front(), kPing);
    EXPECT_EQ(events.back(), R"(bus.respond deleteEndpoint { "returnValue": true, "endpoint": "inbox" })");
}

TEST_F(DeleteEndpoint, RemovesTheSubscriberThenTheOfflineEntryThenTheDeleteStoreEntry) {
    BusError error;
    FakeMessage* subscriber = fakeBus().request(publicHandle(), "subscribe", "{}", "com.example.app 1");
    ASSERT_TRUE(QSSubscriptionAdd(publicHandle(), kNode, subscriber, error));
    QSMessageUnref(subscriber);
    session().setSubMapHandle(kNode, publicHandle());
    takeEvents();
    finish();
    Texts removals;
    for (const std::string& event : takeEvents())
        if (event.starts_with("prefs.remove ") || event.starts_with("bus.unsubscribe "))
            removals.push_back(event);
    EXPECT_EQ(removals, (Texts{std::string("bus.unsubscribe public ") + kNode,
                               std::string("prefs.remove pubsubservice.offlineMap ") + kNode,
                               "prefs.remove com.zelt.pubsubservice deletecom.example.app"}));
}

TEST_F(DeleteEndpoint, KeepsTheNumberOfAnItemThatStillCame) {
    session().persistSeqNo(kNode, "7");
    finish();
    std::string seqNo;
    EXPECT_TRUE(session().getSeqNo(kNode, seqNo));
    EXPECT_EQ(seqNo, "7");
}

TEST_F(DeleteEndpoint, CountsAnUnknownNodeAsDeletedAndCleansNothing) {
    const gloox::Error error(gloox::StanzaErrorTypeCancel, gloox::StanzaErrorItemNotFound);
    finish(&error);
    EXPECT_EQ(
        m_message->reply(),
        R"({ "returnValue": true, "node": "\/u1234\/dev42\/com.example.app\/inbox", "status": "notfound" })");
    EXPECT_EQ(takeLogLines(), errorLog("handleNodeDeletation", std::string("Node ") + kNode, kNotFound));
    expectEverythingKept();
}

TEST_F(DeleteEndpoint, AnswersAnotherErrorWithTheFixedCode) {
    const gloox::Error error(gloox::StanzaErrorTypeAuth, gloox::StanzaErrorForbidden);
    finish(&error);
    EXPECT_EQ(
        m_message->reply(),
        R"({ "returnValue": false, "endpoint": "inbox", "errorCode": "xmppErr", "errorText": "forbidden" })");
    expectEverythingKept();
}

TEST_F(DeleteEndpoint, TakesOnlyTheExactConditionForDeleted) {
    auto* detail = new gloox::Tag("unsupported", "xmlns", "http://jabber.org/protocol/pubsub#errors");
    const gloox::Error error(gloox::StanzaErrorTypeCancel, gloox::StanzaErrorItemNotFound, detail);
    finish(&error);
    EXPECT_EQ(m_message->reply(), R"({ "returnValue": false, "endpoint": "inbox", "errorCode": "xmppErr", )"
                                  R"("errorText": "item-not-found unsupported" })");
}

TEST_F(DeleteEndpoint, LogsAnAnswerThatCannotBeSentAsADeletion) {
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    finish();
    EXPECT_EQ(takeLogLines(),
              Texts{"handleNodeDeletation: Sending response to delete Node failed id id1 Error no way "});
}

class NodePurge : public RequestTest {};

TEST_F(NodePurge, IsReportedOnStandardOutput) {
    testing::internal::CaptureStdout();
    session().handleNodePurge("id1", gloox::JID(kService), "/a", nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Purged node /a in pubsub.example.org Yay! \n");
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(NodePurge, ReportsAnErrorThereAndInTheLog) {
    const gloox::Error error(gloox::StanzaErrorTypeCancel, gloox::StanzaErrorConflict);
    testing::internal::CaptureStdout();
    session().handleNodePurge("id1", gloox::JID(kService), "/a", &error);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Node /a error:  from pubsub.example.org\n");
    EXPECT_EQ(takeLogLines(), Texts{"printerror: ERR in func handleNodePurge: " + kConflict});
}
