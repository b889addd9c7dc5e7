// SPDX-License-Identifier: GPL-3.0-only
// subscribe without a connection: one answer, after the next connect and before any item.
#include "tests/unit/endpoints/endpointtest.h"

class DeferredSubscribe : public EndpointTest {
  protected:
    void SetUp() override {
        EndpointTest::SetUp();
        loseConnection();
    }
    std::vector<std::string> sent() {
        std::vector<std::string> found;
        for (const SentStanza& stanza : fakeServer().stanzas())
            found.push_back(stanza.textWithoutId());
        return found;
    }
};

TEST_F(DeferredSubscribe, GetsNoAnswerWhileThereIsNoConnection) {
    const Answer reply = askSubscribe();
    EXPECT_TRUE(reply.waiting());
    EXPECT_EQ(takeEvents(), Texts{"bus.subscribe public " + kNode});
    EXPECT_EQ(session().subMap.at(kNode).handle, publicHandle());
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_EQ(session().m_deferredSubscribes.size(), 1u);
}

TEST_F(DeferredSubscribe, ActivatesItsNodeAfterThePresenceWhateverTheBootStatus) {
    const Answer reply = askSubscribe();
    session().m_bootFinished = false;
    reconnect();
    const std::vector<std::string> stanzas = sent();
    ASSERT_EQ(stanzas.size(), 2u);
    EXPECT_TRUE(stanzas[0].starts_with("<presence to='pubsub.example.org'")) << stanzas[0];
    EXPECT_EQ(stanzas[1], activateStanza());
    EXPECT_TRUE(reply.waiting());
    EXPECT_EQ(session().m_endpointMap.at(lastId()).node, kNode);
}

TEST_F(DeferredSubscribe, ActivatesItsNodeBeforeTheBulkActivation) {
    askSubscribe();
    session().m_bootFinished = true;
    reconnect();
    const std::vector<std::string> stanzas = sent();
    ASSERT_EQ(stanzas.size(), 3u);
    EXPECT_EQ(stanzas[1], activateStanza());
    EXPECT_NE(stanzas[2].find("<activate-nodes"), std::string::npos);
}

TEST_F(DeferredSubscribe, IsAnsweredOnceByTheResult) {
    const Answer reply = askSubscribe();
    reconnect();
    answer(lastId());
    EXPECT_EQ(reply.all(), Texts{kSuccess});
    EXPECT_TRUE(reply.kept());
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_TRUE(session().m_deferredSubscribes.empty());
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(reply.all(), (Texts{kSuccess, item("hello")}));
    EXPECT_FALSE(reply.kept());
}

TEST_F(DeferredSubscribe, IsAnsweredOnceByAnError) {
    const Answer reply = askSubscribe();
    reconnect();
    answerError(lastId(), "auth", "forbidden");
    EXPECT_EQ(reply.all(), Texts{kServerRefused});
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_TRUE(session().m_deferredSubscribes.empty());
}

TEST_F(DeferredSubscribe, IsAnsweredBeforeAnItemThatComesBeforeTheResult) {
    const Answer reply = askSubscribe();
    reconnect();
    const std::string id = lastId();
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(reply.all(), (Texts{kSuccess, item("hello")}));
    answer(id);
    EXPECT_EQ(reply.all(), (Texts{kSuccess, item("hello")}));
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_TRUE(session().m_deferredSubscribes.empty());
}

TEST_F(DeferredSubscribe, OutlivesConnectsThatFail) {
    const Answer reply = askSubscribe();
    fakeServer().refuseConnections(gloox::ConnConnectionRefused);
    session().connectToService();
    pump();
    EXPECT_TRUE(reply.waiting());
    fakeServer().refuseConnections(gloox::ConnNoError);
    fakeServer().failAfterConnect(gloox::ConnStreamError);
    session().connectToService();
    pump();
    EXPECT_FALSE(session().m_connected);
    EXPECT_TRUE(reply.waiting());
    fakeServer().failAfterConnect(gloox::ConnNoError);
    reconnect();
    answer(lastId());
    EXPECT_EQ(reply.all(), Texts{kSuccess});
}

TEST_F(DeferredSubscribe, IsAnsweredByADisconnectThatComesBeforeTheResult) {
    const Answer reply = askSubscribe();
    reconnect();
    loseConnection();
    EXPECT_EQ(reply.all(), Texts{kDisconnected});
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_TRUE(session().m_deferredSubscribes.empty());
}

TEST_F(DeferredSubscribe, IsRefusedAtTheConnectWhenItsNodeCannotBeActivated) {
    const std::string payload = R"({"endpoint":"a\u0001"})";
    const Answer reply = askSubscribe(payload);
    EXPECT_TRUE(reply.waiting());
    reconnect();
    EXPECT_EQ(reply.all(),
              Texts{refusal(R"(a\u0001)", "libErr", "pubsubservice library is not initialized")});
    EXPECT_TRUE(log().contains("Error pubsubservice library is not initialized, Incoming " + payload));
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_TRUE(session().m_deferredSubscribes.empty());
    EXPECT_TRUE(session().m_endpointMap.empty());
}

TEST_F(DeferredSubscribe, IsRefusedAtTheConnectWhenServicesHaveTakenItsNode) {
    const Answer reply = askSubscribe();
    bool present = false;
    session().addNodeToMap(kNode, "zelt://com.example.one/item", false, present);
    reconnect();
    EXPECT_EQ(reply.all(), Texts{refusal("inbox", "libErr", "pubsubservice library is not initialized")});
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().subMap.empty());
}

TEST_F(DeferredSubscribe, IsAnsweredAtTheConnectWhenItsNodeIsActiveByThen) {
    const Answer reply = askSubscribe();
    session().activated(kNode, true);
    reconnect();
    EXPECT_EQ(reply.all(), Texts{kSuccess});
    EXPECT_TRUE(reply.kept());
    EXPECT_TRUE(session().subMap.contains(kNode));
    EXPECT_TRUE(session().m_deferredSubscribes.empty());
}

TEST_F(DeferredSubscribe, IsDroppedByAWithdrawal) {
    const Answer reply = askSubscribe();
    EXPECT_EQ(askUnsubscribe().all(), Texts{kSuccess});
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(reply.closedUnanswered());
    reconnect();
    EXPECT_EQ(sent().size(), 1u);
    EXPECT_EQ(reply.all(), Texts{});
}

TEST_F(DeferredSubscribe, IsDroppedWithItsSubscriber) {
    const Answer reply = askSubscribe();
    session().setSubMapHandle(kNode, nullptr);
    fakeBus().dropSubscriptions();
    session().removeSubMap(kNode);
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_deferredSubscribes.empty());
}

TEST_F(DeferredSubscribe, BlocksASecondSubscriber) {
    const Answer first = askSubscribe();
    const Answer second = askSubscribe();
    EXPECT_EQ(second.all(), Texts{R"({ "returnValue": true, "endpoint": "inbox", "status": "subscribed" })"});
    EXPECT_TRUE(first.waiting());
    EXPECT_EQ(session().m_deferredSubscribes.size(), 1u);
}

TEST_F(DeferredSubscribe, WaitsForOwnResultWhenAnotherRequestActivatesTheNode) {
    const Answer reply = askSubscribe();
    reconnect();
    const std::string own = lastId();
    FakeMessage* other = fakeBus().request(privateHandle(), "activateNode", "{}");
    session().setEndpointMap("other", other, kNode, kNode, "");
    QSMessageUnref(other);
    session().handleActivateNode("other", gloox::JID(kService), kNode, nullptr);
    EXPECT_EQ(reply.all(), Texts{});
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(reply.all(), (Texts{kSuccess, item("hello")}));
    answer(own);
    EXPECT_EQ(reply.all().size(), 2u);
}

TEST_F(DeferredSubscribe, OfManyNodesAreAllActivatedAndAnsweredApart) {
    const Answer inbox = askSubscribe();
    const Answer news = askSubscribe(R"({"endpoint":"news"})");
    reconnect();
    ASSERT_EQ(fakeServer().stanzas().size(), 3u);
    const std::string inboxId = fakeServer().stanzas()[1].id();
    const std::string newsId = fakeServer().stanzas()[2].id();
    answer(newsId);
    EXPECT_EQ(news.all(), Texts{R"({ "returnValue": true, "endpoint": "news" })"});
    EXPECT_TRUE(inbox.waiting());
    answer(inboxId);
    EXPECT_EQ(inbox.all(), Texts{kSuccess});
}
