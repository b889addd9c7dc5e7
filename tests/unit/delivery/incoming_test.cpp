// SPDX-License-Identifier: GPL-3.0-only
// Who gets an item, and the order in which it is delivered, numbered and acknowledged.
#include <cerrno>

#include "tests/unit/delivery/incomingtest.h"

// --- items

TEST_F(Incoming, ItemGoesToEveryRegisteredServiceInTheirOrder) {
    registerService("zelt://com.example.two/item");
    registerService("zelt://com.example.one/box/item");
    pushItem(kNode, "7", "i1", "hello");
    const std::string object = serviceObject("hello", "i1");
    EXPECT_EQ(takeEvents(), join({{kPing, "bus.call zelt://com.example.two/item " + object,
                                   "bus.call zelt://com.example.one/box/item " + object},
                                  persisted("7"),
                                  {ack("i1")}}));
    EXPECT_FALSE(isCached());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, ServiceCallsAskForNoReply) {
    registerService("zelt://com.example.one/item");
    pushItem(kNode, "7", "i1", "hello");
    ASSERT_FALSE(fakeBus().calls().empty());
    const PlacedCall& call = fakeBus().calls().back();
    EXPECT_EQ(call.uri, "zelt://com.example.one/item");
    EXPECT_EQ(call.callback, nullptr);
    EXPECT_EQ(call.handle, privateHandle());
}

TEST_F(Incoming, ItemGoesToTheNextServiceWhenTheCallToOneFailsAndIsNotCached) {
    registerService("zelt://com.example.one/item");
    registerService("zelt://com.example.two/item");
    fakeBus().failNext("QSCall", -113, "not there", 1, 1);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(),
              join({{kPing, "bus.call zelt://com.example.two/item " + serviceObject("hello", "i1")},
                    persisted("7"),
                    {ack("i1")}}));
    EXPECT_NE(log().raw().find("bus error -113: not there"), std::string::npos);
    EXPECT_EQ(takeLogLines(),
              Texts{"sendMessageToServices: QSCall to a registered callback failed. Item sent to cache\n"});
    EXPECT_FALSE(isCached());
}

TEST_F(Incoming, ItemIsTheServicesAlsoWhenEveryCallToThemFails) {
    FakeMessage* subscriber = subscribePublic();
    registerService("zelt://com.example.one/item");
    registerService("zelt://com.example.two/item");
    fakeBus().failNext("QSCall", -113, "not there", 2, 1);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(takeLog().size(), 2u);
    EXPECT_EQ(subscriber->answers, Texts{});
    EXPECT_TRUE(session().subMap.contains(kNode));
    EXPECT_FALSE(isCached());
}

TEST_F(Incoming, ServiceKeepsItsItemFromThePublicSubscriberWhoStays) {
    FakeMessage* subscriber = subscribePublic();
    registerService("zelt://com.example.one/item");
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_TRUE(session().subMap.contains(kNode));
    EXPECT_TRUE(subscriber->kept());
    EXPECT_EQ(subscriber->answers, Texts{});
    EXPECT_FALSE(isCached());
}

TEST_F(Incoming, ApplicationHandlersGetNothing) {
    bool present = false;
    session().addNodeToMap(kNode, "zelt://com.example.one/item", true, present);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject("hello"));
}

TEST_F(Incoming, PublicSubscriberGetsOneItemAndTheNextIsCached) {
    FakeMessage* subscriber = subscribePublic();
    pushItem(kNode, "7", "i1", "first");
    EXPECT_EQ(takeEvents(), join({{kPing, "bus.push " + kNode + ' ' + appObject("first"), kPowerOn,
                                   "bus.unsubscribe public " + kNode},
                                  persisted("7"),
                                  {ack("i1")}}));
    EXPECT_EQ(subscriber->answers, Texts{appObject("first")});
    EXPECT_FALSE(subscriber->kept());
    EXPECT_FALSE(session().subMap.contains(kNode));
    EXPECT_FALSE(isCached());

    pushItem(kNode, "8", "i2", "second");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("8"), {ack("i2")}}));
    EXPECT_EQ(cached(), appObject("second"));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, ItemForASubscriberThatCancelledIsCachedAndTheRecordStays) {
    session().setSubMap(kNode, "com.example.app", nullptr);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_TRUE(session().subMap.contains(kNode));
}

TEST_F(Incoming, ItemThatCannotBePushedIsCachedAndTheSubscriberRemoved) {
    session().setSubMap(kNode, "com.example.app", publicHandle());
    fakeBus().failNext("QSSubscriptionRespond", -2, "nobody");
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_FALSE(session().subMap.contains(kNode));
    EXPECT_EQ(
        takeLogLines(),
        Texts{"sendMessageToApp: Warning: Sending item failed, no subscriber for Node?  Bus error nobody "});
}

TEST_F(Incoming, ItemForASubscriberThatDoesNotReadIsCached) {
    session().setSubMap(kNode, "com.example.app", publicHandle());
    fakeBus().failNext("QSSubscriptionRespond", -ENOBUFS, "The client :1.7 does not read");
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_FALSE(session().subMap.contains(kNode));
}

TEST_F(Incoming, ItemThatNobodyTakesIsCachedItsNumberStoredAndAcknowledged) {
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, ItemThatCannotBeCachedIsNeitherStoredNorAcknowledged) {
    std::filesystem::remove_all(stateFolder() / "cache");
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), Texts{kPing});
    const Texts lines = takeLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("updateFile: Error saving item to cache ")) << lines[0];
    // The server sends it again.
    std::filesystem::create_directory(stateFolder() / "cache");
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
}

TEST_F(Incoming, PayloadArrivesAsItIs) {
    registerService("zelt://com.example.one/item");
    pushItem(kNode, "7", "i1", " <a b=\"c\">\n&amp;\\ \xc3\xa4 ");
    EXPECT_EQ(fakeBus().payloadsTo("zelt://com.example.one/item"),
              Texts{serviceObject(" <a b=\\\"c\\\">\\n&amp;\\\\ \xc3\xa4 ", "i1")});
}

TEST_F(Incoming, PayloadIsAllCharacterDataOfItsElement) {
    registerService("zelt://com.example.one/item");
    pushEvent("<items node='" + kNode +
              "'><item id='i1' seqNo='1'><payload>one <b>inner</b>two</payload></item></items>");
    EXPECT_EQ(fakeBus().payloadsTo("zelt://com.example.one/item"), Texts{serviceObject("one two", "i1")});
}

TEST_F(Incoming, EmptyPayloadIsAnItem) {
    pushItem(kNode, "7", "i1", "");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject(""));
}

TEST_F(Incoming, EveryItemsChildIsHandledInItsOrder) {
    registerService("zelt://com.example.one/item");
    pushEvent("<items node='" + kNode +
              "'><item id='i1' seqNo='1'><payload>a</payload></item></items>"
              "<collection node='c'/>"
              "<items node='" +
              kNode + "'><item id='i2' seqNo='2'><payload>b</payload></item></items>");
    EXPECT_EQ(takeEvents(),
              join({{kPing, "bus.call zelt://com.example.one/item " + serviceObject("a", "i1"),
                     persisted("1")[0], "bus.call zelt://com.example.one/item " + serviceObject("b", "i2")},
                    persisted("2"),
                    {ack("i1"), ack("i2")}}));
}

TEST_F(Incoming, ChildThatFailsKeepsNothingFromTheNext) {
    registerService("zelt://com.example.one/item");
    pushEvent("<subscription node='nobody'/><items node='" + kNode + "'/><items node='" + kNode +
              "'><item id='i1' seqNo='1'><payload>a</payload></item></items>");
    EXPECT_EQ(takeEvents(), join({{kPing, "bus.call zelt://com.example.one/item " + serviceObject("a", "i1")},
                                  persisted("1"),
                                  {ack("i1")}}));
    EXPECT_EQ(takeLog().size(), 2u);
}

TEST_F(Incoming, OnlyTheFirstItemOfAnItemsElementCounts) {
    pushEvent("<items node='" + kNode +
              "'><item id='i1' seqNo='1'><payload>a</payload></item>"
              "<item id='i2' seqNo='2'><payload>b</payload></item></items>");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("1"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject("a"));
}

TEST_F(Incoming, ItemMarksTheNodeToBeActivatedAgain) {
    session().activated(kNode, true);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_FALSE(session().m_activateMap.at(kNode));
}

// --- stale items

TEST_F(Incoming, StaleItemIsAcknowledgedAndNotDelivered) {
    registerService("zelt://com.example.one/item");
    storeSeqNo("7");
    pushItem(kNode, "7", "i1", "hello");
    session().activated(kNode, true);
    pushItem(kNode, "6", "i0", "hello");
    EXPECT_EQ(takeEvents(), (Texts{kPing, ack("i1"), kPing, ack("i0")}));
    EXPECT_FALSE(session().m_activateMap.at(kNode));
    EXPECT_EQ(fakeBus().payloadsTo("zelt://com.example.one/item"), Texts{});
    EXPECT_FALSE(isCached());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, StaleItemOfASubscribedNodeHasItActivatedAgain) {
    FakeMessage* subscriber = subscribePublic();
    session().activated(kNode, true);
    storeSeqNo("10");
    pushItem(kNode, "10", "i1", "hello");
    EXPECT_EQ(takeEvents(), (Texts{kPing, ack("i1"),
                                   "xmpp.send <iq to='pubsub.example.org' id='ID' type='set'><activate "
                                   "xmlns='urn:zelt:pubsub:device:0' node='" +
                                       kNode + "' seqNo='10'/></iq>"}));
    EXPECT_TRUE(session().subMap.contains(kNode));
    EXPECT_EQ(subscriber->answers, Texts{});
    EXPECT_TRUE(session().m_endpointMap.empty());
}

TEST_F(Incoming, StaleItemOfASubscriberThatCancelledHasItsNodeActivatedAsWell) {
    session().setSubMap(kNode, "com.example.app", nullptr);
    storeSeqNo("10");
    pushItem(kNode, "10", "i1", "hello");
    const Texts events = takeEvents();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[1], ack("i1"));
    EXPECT_NE(events[2].find("<activate "), std::string::npos) << events[2];
}

TEST_F(Incoming, SecondItemWithoutANumberIsStale) {
    pushEvent("<items node='" + kNode + "'><item id='i1'><payload>a</payload></item></items>");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted(""), {ack("i1")}}));
    pushEvent("<items node='" + kNode + "'><item id='i2'><payload>b</payload></item></items>");
    EXPECT_EQ(takeEvents(), (Texts{kPing, ack("i2")}));
    EXPECT_EQ(cached(), appObject("a"));
}

TEST_F(Incoming, ItemIsStaleAlsoAfterARestart) {
    pushItem(kNode, "7", "i1", "hello");
    restartService();
    connectSession();
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), (Texts{kPing, ack("i1")}));
}

// --- closed applications

TEST_F(Incoming, NodeOfAClosedApplicationIsLoggedWhenNobodyListens) {
    session().m_offlineMap[kNode] = "com.example.app";
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(takeLogLines(),
              Texts{"sendMessageToApp: Sub Map present - No subs, no offlineclose? " + kNode});
    EXPECT_EQ(cached(), appObject("hello"));
}

TEST_F(Incoming, ListenerForClosedApplicationsGetsTheItemAndItIsCachedAsWell) {
    FakeMessage* listener = listenOnClose();
    session().m_offlineMap[kNode] = "com.example.app";
    pushItem(kNode, "7", "i1", "hello");
    const std::string posted = serviceObject("hello", "i1", R"(, "appid": "com.example.app")");
    EXPECT_EQ(takeEvents(),
              join({{kPing, "bus.post private / registerOnClose " + posted}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(listener->answers, Texts{posted});
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, SubscriberWithoutAHandleEndsBeforeTheListenerForClosedApplications) {
    FakeMessage* listener = listenOnClose();
    session().m_offlineMap[kNode] = "com.example.app";
    session().setSubMap(kNode, "com.example.app", nullptr);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}})) << "no notice, no answer";
    EXPECT_EQ(listener->answers, Texts{});
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, FailedPostToTheListenerIsLoggedAndTheItemCached) {
    listenOnClose();
    session().m_offlineMap[kNode] = "com.example.app";
    fakeBus().failNext("QSSubscriptionPost", -5, "no way");
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeLogLines(),
              Texts{"sendMessageToApp: Sending item to registerOnclose failed. Error no way "});
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
}

TEST_F(Incoming, PublicSubscriberComesBeforeTheListenerForClosedApplications) {
    FakeMessage* listener = listenOnClose();
    FakeMessage* subscriber = subscribePublic();
    session().m_offlineMap[kNode] = "com.example.app";
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(subscriber->answers, Texts{appObject("hello")});
    EXPECT_EQ(listener->answers, Texts{});
    EXPECT_FALSE(isCached());
}

TEST_F(Incoming, ListenerForClosedApplicationsGetsNothingForASubscriberThatCancelled) {
    FakeMessage* listener = listenOnClose();
    session().setSubMap(kNode, "com.example.app", nullptr);
    session().m_offlineMap[kNode] = "com.example.app";
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(listener->answers, Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(cached(), appObject("hello"));
}

TEST_F(Incoming, ClosedApplicationWithoutAnEntryInTheMapIsNotNotified) {
    FakeMessage* listener = listenOnClose();
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(listener->answers, Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(cached(), appObject("hello"));
}

// --- nodes of other accounts under this device's name

class NodeNames : public Incoming {
  protected:
    // Its items reach a handler.
    void expectDelivery(const std::string& node) {
        const std::string handler = "zelt://com.example.one/item" + std::to_string(++m_handlers);
        bool present = false;
        session().addNodeToMap(node, handler, false, present);
        pushItem(node, "7", "i1", "hello");
        EXPECT_EQ(fakeBus().payloadsTo(handler).size(), 1u) << node;
    }

  private:
    int m_handlers = 0;
};

class ForeignNode : public NodeNames, public testing::WithParamInterface<const char*> {};

TEST_P(ForeignNode, IsAcknowledgedLoggedAndDropped) {
    const std::string node = GetParam();
    registerService("zelt://com.example.one/item");
    bool present = false;
    session().addNodeToMap(node, "zelt://com.example.one/item", false, present);
    pushItem(node, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), (Texts{kPing, ack("i1", node)}));
    EXPECT_EQ(takeLogLines(),
              Texts{"handleIncomingItem: Item dropped, its node " + node + " belongs to another account"});
    EXPECT_TRUE(session().m_activateMap.empty());
    EXPECT_TRUE(std::filesystem::is_empty(stateFolder() / "cache"));
    expectNothingKept();
}

INSTANTIATE_TEST_SUITE_P(Names, ForeignNode,
                         testing::Values("/stranger/dev42/com.example.app/inbox", "/stranger/dev42/x",
                                         "/stranger/dev42/", "//dev42/com.example.app/inbox",
                                         "/u1234x/dev42/com.example.app/inbox"));

TEST_F(NodeNames, WaitingItemOfAnApplicationOutlivesOneOfAnotherAccount) {
    pushItem(kNode, "7", "i1", "genuine");
    pushItem("/stranger/dev42/com.example.app/inbox", "8", "i2", "forged");
    EXPECT_EQ(cached(), appObject("genuine"));
}

TEST_F(NodeNames, OtherResourcesShorterNamesAndTheOwnAccountStay) {
    for (const char* node : {"/stranger/dev43/com.example.app/inbox", "/stranger/dev42", "stranger/dev42/a/b",
                             "/news", "news", "/u1234/dev42/com/zelt/news", "/u1234/dev43/a/b"}) {
        expectDelivery(node);
    }
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(NodeNames, AccountsOwnNameCountsAlsoAsTheServerWritesIt) {
    session().setSessionDetails("U1234@example.org", "secret", kResource, kServer, kService, 5222);
    expectDelivery("/u1234/dev42/com/zelt/news");
    EXPECT_EQ(takeLogLines(), Texts{});
}
