// SPDX-License-Identifier: GPL-3.0-only
// subscribe and unsubscribe with a connection: cached items, activation and its two answers.
#include "tests/unit/endpoints/endpointtest.h"

class PublicSubscribe : public EndpointTest {
  protected:
    const std::string kSubscribed = R"({ "returnValue": true, "endpoint": "inbox", "status": "subscribed" })";
    const std::string kNotSubscribed =
        R"({ "returnValue": true, "endpoint": "inbox", "status": "not subscribed" })";
    const std::string kNotInitialized = "pubsubservice library is not initialized";
    const std::string kUnsendable = R"({"endpoint":"a\u0001"})";
};

TEST_F(PublicSubscribe, AnswersAtOnceAndAgainWhenTheNodeIsActive) {
    const Answer reply = askSubscribe();
    const std::string id = expectStanza(activateStanza());
    EXPECT_EQ(takeEvents(), (Texts{"bus.subscribe public " + kNode, "xmpp.send " + activateStanza(),
                                   "bus.respond subscribe " + kSuccess}));
    const _endpointStruct& entry = session().m_endpointMap.at(id);
    EXPECT_EQ(entry.endpoint, "inbox");
    EXPECT_EQ(entry.node, kNode);
    EXPECT_EQ(entry.appId, "com.example.app");
    EXPECT_EQ(session().subMap.at(kNode).appId, "com.example.app");
    EXPECT_EQ(session().subMap.at(kNode).handle, publicHandle());

    answer(id);
    EXPECT_EQ(takeEvents(), (Texts{kPing, "bus.respond subscribe " + kSuccess}));
    EXPECT_EQ(reply.all(), (Texts{kSuccess, kSuccess}));
    EXPECT_TRUE(reply.kept());
    EXPECT_TRUE(session().m_deferredSubscribes.empty());
}

TEST_F(PublicSubscribe, ActivationErrorIsTheSecondAnswerAndEndsTheSubscription) {
    const Answer reply = askSubscribe();
    answerError(lastId(), "auth", "forbidden");
    EXPECT_EQ(reply.all(), (Texts{kSuccess, kServerRefused}));
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(reply.message()->ended);
    EXPECT_TRUE(session().subMap.empty());
}

TEST_F(PublicSubscribe, ItemAfterTheFirstAnswerComesBeforeTheSecond) {
    const Answer reply = askSubscribe();
    const std::string id = lastId();
    pushItem(kNode, "7", "i1", "hello");
    answer(id);
    EXPECT_EQ(reply.all(), (Texts{kSuccess, item("hello"), kSuccess}));
    EXPECT_FALSE(reply.kept());
}

TEST_F(PublicSubscribe, SecondSubscriberOfANodeGetsTheStatusAndChangesNothing) {
    askSubscribe();
    const std::size_t before = stanzaCount();
    takeEvents();
    const Answer second = askSubscribe();
    EXPECT_EQ(takeEvents(), Texts{"bus.respond subscribe " + kSubscribed});
    EXPECT_FALSE(second.kept());
    EXPECT_EQ(stanzaCount(), before);
    EXPECT_EQ(fakeBus().subscribers(publicHandle(), kNode).size(), 1u);
}

TEST_F(PublicSubscribe, SecondSubscriberGetsTheStatusAlsoWhenAnItemWaits) {
    askSubscribe();
    writeFile(cacheFile(), item("hello"));
    EXPECT_EQ(askSubscribe().all(), Texts{kSubscribed});
    EXPECT_EQ(fileText(cacheFile()), item("hello"));
}

TEST_F(PublicSubscribe, RecordsTheConnectionThatTheRequestCameOver) {
    callPrivate(subscribe, "subscribe", kInbox, "com.example.app 4711");
    EXPECT_EQ(session().subMap.at(kNode).handle, privateHandle());
    EXPECT_EQ(fakeBus().subscribers(privateHandle(), kNode).size(), 1u);
}

TEST_F(PublicSubscribe, GetsNoAnswerWhileActivationIsHeldBack) {
    session().m_spare3 = true;
    const Answer reply = askSubscribe();
    EXPECT_TRUE(reply.waiting());
    EXPECT_EQ(takeEvents(), Texts{"bus.subscribe public " + kNode});
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_TRUE(session().m_deferredSubscribes.contains(kNode));
}

TEST_F(PublicSubscribe, WaitingItemIsSentAndItsFileDeleted) {
    pushItem(kNode, "7", "i1", "hello");
    ASSERT_TRUE(std::filesystem::exists(cacheFile()));
    fakeServer().forgetStanzas();
    takeEvents();
    takeLog();
    const Answer reply = askSubscribe();
    EXPECT_EQ(takeEvents(),
              (Texts{"bus.respond subscribe " + kSuccess, "bus.respond subscribe " + item("hello")}));
    EXPECT_EQ(reply.all(), (Texts{kSuccess, item("hello")}));
    EXPECT_FALSE(reply.kept());
    EXPECT_FALSE(std::filesystem::exists(cacheFile()));
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_EQ(stanzaCount(), 0u);
    EXPECT_EQ(takeLogLines(), Texts{});

    const Answer next = askSubscribe();
    EXPECT_EQ(next.all(), Texts{kSuccess});
    EXPECT_TRUE(next.kept());
    expectStanza(activateStanza("7"));
}

TEST_F(PublicSubscribe, WaitingItemIsHandedOverAlsoWithoutAConnection) {
    pushItem(kNode, "7", "i1", "hello");
    loseConnection();
    EXPECT_EQ(askSubscribe().all(), (Texts{kSuccess, item("hello")}));
    EXPECT_TRUE(session().m_deferredSubscribes.empty());
}

TEST_F(PublicSubscribe, WaitingItemStaysWhenItCannotBeSent) {
    pushItem(kNode, "7", "i1", "hello");
    takeLog();
    fakeBus().failNext("QSMessageRespond", -5, "no way", 1, 1);
    const Answer reply = askSubscribe();
    EXPECT_EQ(reply.all(), Texts{kSuccess});
    EXPECT_FALSE(reply.kept());
    EXPECT_EQ(fileText(cacheFile()), item("hello"));
    EXPECT_EQ(takeLogLines(),
              Texts{"subscribe: Warning: Sending item failed, no subscriber for Node?  Bus error no way "});
}

TEST_F(PublicSubscribe, WaitingItemStaysAndIsNotSentWhenTheFirstAnswerCannotBeSent) {
    pushItem(kNode, "7", "i1", "hello");
    takeLog();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    const Answer reply = askSubscribe();
    EXPECT_EQ(reply.all(), Texts{});
    EXPECT_EQ(fileText(cacheFile()), item("hello"));
    EXPECT_EQ(takeLogLines(), Texts{"subscribe: Sending response to subscribe failed id  Error no way "});
}

TEST_F(PublicSubscribe, DamagedCacheFileDoesNotPreventTheSubscription) {
    writeFile(cacheFile(), "damaged");
    const Answer reply = askSubscribe();
    EXPECT_EQ(reply.all(), Texts{kSuccess});
    EXPECT_TRUE(session().subMap.contains(kNode));
    EXPECT_EQ(fileText(cacheFile()), "damaged");
}

TEST_F(PublicSubscribe, IsRefusedWhenTheBusDoesNotTakeIt) {
    fakeBus().failNext("QSSubscriptionAdd", -5, "no way");
    const Answer reply = askSubscribe();
    EXPECT_EQ(reply, refusal("inbox", "libErr", "Adding subscription callback failed"));
    EXPECT_TRUE(log().contains("Adding subscribe callback failed no way\n"));
    EXPECT_TRUE(log().contains("Error Adding subscription callback failed, Incoming " + kInbox));
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_EQ(stanzaCount(), 0u);
    EXPECT_FALSE(reply.kept());
}

TEST_F(PublicSubscribe, OfAnActiveNodeIsAnsweredOnceAndNotRecorded) {
    session().activated(kNode, true);
    const Answer reply = askSubscribe();
    EXPECT_EQ(reply.all(), Texts{kSuccess});
    EXPECT_EQ(stanzaCount(), 0u);
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_TRUE(session().subMap.contains(kNode));
    EXPECT_TRUE(reply.kept());
}

TEST_F(PublicSubscribe, OfANodeThatServicesTakeIsRefusedAndLeavesTheBusList) {
    bool present = false;
    session().addNodeToMap(kNode, "zelt://com.example.one/item", false, present);
    const Answer reply = askSubscribe();
    EXPECT_EQ(takeEvents(), (Texts{"bus.subscribe public " + kNode, "bus.unsubscribe public " + kNode,
                                   "bus.reply subscribe " + refusal("inbox", "libErr", kNotInitialized)}));
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_TRUE(log().contains("Error " + kNotInitialized + ", Incoming " + kInbox));
}

TEST_F(PublicSubscribe, ThatIsRefusedRemovesNoOtherSubscriber) {
    FakeMessage* other = fakeBus().request(publicHandle(), "other", "{}", "com.example.app 1");
    ASSERT_TRUE(QSSubscriptionAdd(publicHandle(), kNode.c_str(), other, nullptr));
    QSMessageUnref(other);
    bool present = false;
    session().addNodeToMap(kNode, "zelt://com.example.one/item", false, present);
    askSubscribe();
    EXPECT_EQ(fakeBus().subscribers(publicHandle(), kNode), std::vector<FakeMessage*>{other});
}

TEST_F(PublicSubscribe, ThatIsRefusedStaysOnABusListThatCannotBeRead) {
    bool present = false;
    session().addNodeToMap(kNode, "zelt://com.example.one/item", false, present);
    fakeBus().failNext("QSSubscriptionAcquire", -5, "no way");
    const Answer reply = askSubscribe();
    EXPECT_EQ(reply, refusal("inbox", "libErr", kNotInitialized));
    EXPECT_EQ(fakeBus().subscribers(publicHandle(), kNode), std::vector<FakeMessage*>{reply.message()});
    EXPECT_TRUE(session().subMap.empty());
    allowHeld(reply);
}

TEST_F(PublicSubscribe, OfANameMadeOfQuotesAndBackslashesIsThatOfTheEmptyName) {
    const Answer reply = askSubscribe(R"({"endpoint":"\"\\\""})");
    EXPECT_EQ(reply, R"({ "returnValue": true, "endpoint": "" })");
    expectStanza(activateStanza("0", "/u1234/dev42/com.example.app/"));
}

TEST_F(PublicSubscribe, OfANameThatXmlCannotCarryIsRefused) {
    const Answer reply = askSubscribe(kUnsendable);
    EXPECT_EQ(reply, refusal(R"(a\u0001)", "libErr", kNotInitialized));
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_FALSE(reply.kept());
}

TEST_F(PublicSubscribe, LogsAFirstAnswerThatCannotBeSent) {
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    askSubscribe();
    EXPECT_TRUE(log().contains("Sending response to subscribe failed id " + lastId() + " Error no way "));
}

TEST_F(PublicSubscribe, IsAnsweredAndEndedByADisconnect) {
    const Answer reply = askSubscribe();
    loseConnection();
    EXPECT_EQ(reply.all(), (Texts{kSuccess, kDisconnected}));
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().subMap.empty());
}

TEST_F(PublicSubscribe, OutlivesADisconnectOnceItsNodeWasActivated) {
    const Answer reply = askSubscribe();
    answer(lastId());
    loseConnection();
    EXPECT_EQ(reply.all(), (Texts{kSuccess, kSuccess}));
    EXPECT_TRUE(reply.kept());
    EXPECT_TRUE(session().subMap.contains(kNode));
}

// --- unsubscribe

TEST_F(PublicSubscribe, WithdrawalAnswersAtOnceAndAgainWhenTheServerHasAnswered) {
    const Answer subscriber = askSubscribe();
    answer(lastId());
    takeEvents();
    const Answer reply = askUnsubscribe();
    const std::string id = expectStanza(deactivateStanza());
    EXPECT_EQ(takeEvents(),
              (Texts{"xmpp.send " + deactivateStanza(), "bus.respond unsubscribe " + kSuccess}));
    EXPECT_FALSE(session().m_activateMap.at(kNode));
    EXPECT_TRUE(session().subMap.contains(kNode));
    EXPECT_EQ(session().m_endpointMap.at(id).node, kNode);
    answer(id);
    EXPECT_EQ(takeEvents(),
              (Texts{kPing, "bus.unsubscribe public " + kNode, "bus.respond unsubscribe " + kSuccess}));
    EXPECT_EQ(reply.all(), (Texts{kSuccess, kSuccess}));
    EXPECT_FALSE(reply.kept());
    EXPECT_FALSE(subscriber.kept());
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_TRUE(session().m_activateMap.empty());
}

TEST_F(PublicSubscribe, WithdrawalThatTheServerRefusesKeepsTheSubscriber) {
    askSubscribe();
    answer(lastId());
    const Answer reply = askUnsubscribe();
    answerError(lastId(), "auth", "forbidden");
    EXPECT_EQ(reply.all(), (Texts{kSuccess, kServerRefused}));
    EXPECT_TRUE(session().subMap.contains(kNode));
}

TEST_F(PublicSubscribe, WithdrawalWithoutASubscriberReportsIt) {
    const Answer reply = askUnsubscribe();
    EXPECT_EQ(reply.all(), Texts{kNotSubscribed});
    EXPECT_EQ(takeEvents(), Texts{"bus.respond unsubscribe " + kNotSubscribed});
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_activateMap.empty());
}

TEST_F(PublicSubscribe, WithdrawalDropsTheOfflineEntryOnlyWhenAsked) {
    session().setOfflineMap(kNode, "com.example.app");
    askUnsubscribe();
    askUnsubscribe(R"({"endpoint":"inbox","onclose":false})");
    askUnsubscribe(R"({"endpoint":"inbox","onclose":null})");
    EXPECT_TRUE(session().m_offlineMap.contains(kNode));
    takeEvents();
    askUnsubscribe(R"({"endpoint":"inbox","onclose":true})");
    EXPECT_EQ(takeEvents(),
              (Texts{"prefs.remove pubsubservice.offlineMap " + kNode,
                     "prefs.commit pubsubservice.offlineMap", "bus.respond unsubscribe " + kNotSubscribed}));
    EXPECT_FALSE(session().m_offlineMap.contains(kNode));
    EXPECT_EQ(fakePrefs().stored("pubsubservice.offlineMap"), FakePrefs::Values{});
}

TEST_F(PublicSubscribe, WithdrawalWithoutAConnectionTakesEffectAtOnce) {
    const Answer subscriber = askSubscribe();
    answer(lastId());
    loseConnection();
    const Answer reply = askUnsubscribe();
    EXPECT_EQ(takeEvents(),
              (Texts{"bus.unsubscribe public " + kNode, "bus.respond unsubscribe " + kSuccess}));
    EXPECT_EQ(reply.all(), Texts{kSuccess});
    EXPECT_FALSE(reply.kept());
    EXPECT_FALSE(subscriber.kept());
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_EQ(session().m_activateMap, (std::map<std::string, bool>{{kNode, false}}));
}

TEST_F(PublicSubscribe, WithdrawalTakesEffectAtOnceWhileActivationIsHeldBack) {
    askSubscribe();
    answer(lastId());
    session().m_spare3 = true;
    takeEvents();
    EXPECT_EQ(askUnsubscribe().all(), Texts{kSuccess});
    EXPECT_EQ(takeEvents(),
              (Texts{"bus.unsubscribe public " + kNode, "bus.respond unsubscribe " + kSuccess}));
    EXPECT_TRUE(session().subMap.empty());
}

TEST_F(PublicSubscribe, WithdrawalThatCannotBeSentIsRefusedAndNotRecorded) {
    const std::string node = kNode.substr(0, kNode.size() - 5) + "a\x01";
    session().setSubMap(node, "com.example.app", nullptr);
    const Answer reply = askUnsubscribe(kUnsendable);
    EXPECT_EQ(reply, refusal(R"(a\u0001)", "libErr", kNotInitialized));
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_TRUE(log().contains("Error " + kNotInitialized + ", Incoming " + kUnsendable));
}

TEST_F(PublicSubscribe, WithdrawalLogsAnAnswerThatCannotBeSent) {
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    askUnsubscribe();
    EXPECT_EQ(takeLogLines(), Texts{"unsubscribe: Sending response to unsubscribe failed id  Error no way "});
    askSubscribe();
    takeLog();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    askUnsubscribe();
    EXPECT_EQ(takeLogLines(),
              Texts{"unsubscribe: Sending response to unsubscribe failed id " + lastId() + " Error no way "});
}
