// SPDX-License-Identifier: GPL-3.0-only
// receive and acknowledge: one open item for each endpoint, which the server keeps until it is acknowledged.
#include "tests/unit/endpoints/receivetest.h"

using Receive = ReceiveTest;

// --- the request

TEST_F(Receive, AnswersWithTheEndpointsOfTheApplicationAndActivatesThemForOneItemEach) {
    own({"inbox", "news"});
    fakePrefs().store(kPrefs, "deletecom.example.other", R"({"nodes":["/u1234/dev42/com.example.other/a"]})");
    const Answer receiver = askReceive();
    EXPECT_EQ(receiver.all(), Texts{R"({ "returnValue": true, "endpoints": [ "inbox", "news" ] })"});
    EXPECT_TRUE(receiver.kept());
    expectStanza(deviceIq("set", "<activate-nodes xmlns='urn:zelt:pubsub:device:0'><node id='" + kNode +
                                     "' limit='1'/><node id='" + nodeOf("news") +
                                     "' limit='1'/></activate-nodes>"));
    EXPECT_EQ(stanzaCount(), 1u);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Receive, OfANamedEndpointLeavesTheOthersAlone) {
    own({"inbox", "news"});
    const Answer receiver = askReceive(R"({"subscribe":true,"endpoints":["inbox","inbox"]})");
    EXPECT_EQ(receiver, R"({ "returnValue": true, "endpoints": [ "inbox" ] })");
    expectStanza(limitedStanza());
    EXPECT_FALSE(session().keepsOpenItem(nodeOf("news")));
}

TEST_F(Receive, OfAnApplicationWithoutEndpointsWaitsForTheFirst) {
    const Answer receiver = askReceive();
    EXPECT_EQ(receiver, R"({ "returnValue": true, "endpoints": [ ] })");
    EXPECT_EQ(stanzaCount(), 0u);
    createEndpointOf("inbox");
    expectStanza(limitedStanza());
    answer(lastId());
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(receiver.all().size(), 2u);
}

TEST_F(Receive, OfNamedEndpointsDoesNotTakeOneThatIsCreatedLater) {
    own({"inbox"});
    askReceive(R"({"subscribe":true,"endpoints":["inbox"]})");
    createEndpointOf("news");
    EXPECT_FALSE(session().keepsOpenItem(nodeOf("news")));
}

TEST_F(Receive, TakesANamedEndpointThatIsDeletedAndCreatedAgain) {
    own({"inbox"});
    const Answer receiver = askReceive(R"({"subscribe":true,"endpoints":["inbox"]})");
    answer(lastId());
    pushItem(kNode, "7", "i1", "hello");
    ask(deleteEndpoint, "deleteEndpoint");
    answer(lastId());
    EXPECT_FALSE(session().keepsOpenItem(kNode));
    EXPECT_EQ(acknowledged(receipt(receiver)), refusal("inbox", "appErr", kUnknownReceipt));
    createEndpointOf("inbox");
    EXPECT_TRUE(session().keepsOpenItem(kNode));
    expectStanza(limitedStanza());
}

TEST_F(Receive, WithoutAConnectionSucceedsAndActivatesAtTheNextBeforeThePresence) {
    own({"inbox"});
    loseConnection();
    const Answer receiver = askReceive();
    EXPECT_EQ(receiver, R"({ "returnValue": true, "endpoints": [ "inbox" ] })");
    reconnect();
    ASSERT_GE(stanzaCount(), 2u);
    EXPECT_EQ(fakeServer().stanzas()[0].textWithoutId(), limitedStanza());
    EXPECT_EQ(fakeServer().stanzas()[1].tag().name(), "presence");
}

class ReceiveRefusal : public ReceiveTest, public testing::WithParamInterface<std::array<const char*, 3>> {};

TEST_P(ReceiveRefusal, NamesWhatIsWrongAndReceivesNothing) {
    own({"inbox"});
    const auto& [payload, code, text] = GetParam();
    const Answer receiver = askReceive(payload);
    EXPECT_EQ(receiver, std::string(R"({ "returnValue": false, "errorCode": ")") + code +
                            R"(", "errorText": ")" + text + R"(" })");
    EXPECT_FALSE(receiver.kept());
    EXPECT_FALSE(session().keepsOpenItem(kNode));
    EXPECT_EQ(stanzaCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Payloads, ReceiveRefusal,
    testing::Values(std::array{"{}", "parameterErr", "No subscribe provided"},
                    std::array{R"({"subscribe":false})", "parameterErr", "Subscribe should be true"},
                    std::array{"no json", "parameterErr", "Malformed json"},
                    std::array{R"({"subscribe":true,"endpoints":"inbox"})", "parameterErr",
                               "Malformed json - endpoints takes an array of endpoints"},
                    std::array{R"({"subscribe":true,"endpoints":["inbox",7]})", "parameterErr",
                               "Malformed json - endpoints takes an array of endpoints"},
                    std::array{R"({"subscribe":true,"endpoints":[]})", "parameterErr",
                               "Empty endpoints provided"},
                    std::array{R"({"subscribe":true,"endpoints":["inbox","other"]})", "appErr",
                               "No endpoint other. Call createEndpoint first"}));

TEST_F(Receive, IsRefusedForAnEndpointThatSomebodyReceives) {
    own({"inbox", "news"});
    const Answer first = askReceive(R"({"subscribe":true,"endpoints":["news"]})");
    const Answer second = askReceive();
    EXPECT_EQ(
        second,
        R"({ "returnValue": false, "errorCode": "appErr", "errorText": "Endpoint news is received by )" +
            first.message()->client + R"(. End that receive, or name other endpoints" })");
    EXPECT_FALSE(session().keepsOpenItem(kNode));
    fakeBus().clientDies(first.message());
    EXPECT_TRUE(askReceive().kept());
}

TEST_F(Receive, IsRefusedWhenTheBusDoesNotTakeIt) {
    own({"inbox"});
    fakeBus().failNext("QSSubscriptionProcess", -122, "too many");
    EXPECT_EQ(
        askReceive(),
        R"({ "returnValue": false, "errorCode": "libErr", "errorText": "Processing subscription failed" })");
    EXPECT_FALSE(session().keepsOpenItem(kNode));
}

// --- items

TEST_F(Receive, HandsOutOneItemAndTheNextAfterItsAcknowledgement) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "first");
    EXPECT_EQ(takeEvents(),
              (Texts{kPing, "bus.respond receive " + itemOf("first", "i1", receipt(receiver)), kPowerOn}));
    EXPECT_EQ(fakePrefs().stored(kPrefs).count(kNode), 0u) << "nothing is stored before the acknowledgement";
    const Answer done = askAcknowledge(receipt(receiver));
    EXPECT_TRUE(done.waiting()) << "the number is not on disk yet";
    pump();
    EXPECT_EQ(done.all(), Texts{kSuccess});
    EXPECT_EQ(takeEvents(),
              (Texts{"prefs.set " + kPrefs + ' ' + kNode + R"( { "seqNo": "7" })", "prefs.commit " + kPrefs,
                     ackOf("i1", "7"), "bus.respond acknowledge " + kSuccess}));
    pushItem(kNode, "8", "i2", "second");
    EXPECT_EQ(receiver.all().back(), itemOf("second", "i2", receipt(receiver)));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Receive, NamesWhatTheServerSaysOfAnItem) {
    const Answer receiver = receiveInbox();
    serverSends(
        "<message from='pubsub.example.org' to='u1234@example.org/dev42' id='m1'>"
        "<event xmlns='http://jabber.org/protocol/pubsub#event'><items node='" +
        kNode +
        "'><item id='i1' seqNo='7' expires='4102444800' published='1795252840'>"
        "<payload encoding='base64'>aGVsbG8=</payload></item></items></event></message>");
    EXPECT_EQ(
        receiver.all().back(),
        R"({ "returnValue": true, "endpoint": "inbox", "item": "aGVsbG8=", "itemid": "i1", "receipt": ")" +
            receipt(receiver) +
            R"(", "encoding": "base64", "expires": 4102444800, "published": 1795252840 })");
}

TEST_F(Receive, BypassesHandlerSubscriberAndCache) {
    const Answer subscriber = askSubscribe();
    answer(lastId());
    const Answer receiver = receiveInbox();
    bool present = false;
    session().addNodeToMap(kNode, "zelt://com.example.one/item", false, present);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(receiver.all().size(), 2u);
    EXPECT_EQ(subscriber.all(), (Texts{kSuccess, kSuccess}));
    EXPECT_EQ(fakeBus().payloadsTo("zelt://com.example.one/item"), Texts{});
    EXPECT_FALSE(std::filesystem::exists(cacheFile()));
}

TEST_F(Receive, HoldsOneFurtherItemAndHasTheServerSendWhatElseArrived) {
    const Answer receiver = receiveInbox();
    for (const char* number : {"7", "8", "9"})
        pushItem(kNode, number, std::string("i") + number, number);
    EXPECT_EQ(receiver.all().size(), 2u);
    acknowledgeOpen(receiver);
    EXPECT_EQ(receiver.all().back(), itemOf("8", "i8", receipt(receiver)));
    acknowledgeOpen(receiver);
    EXPECT_EQ(receiver.all().size(), 3u);
    expectStanza(deactivateStanza());
    answer(lastId());
    expectStanza(limitedStanza("8"));
    answer(lastId());
    pushItem(kNode, "9", "i9", "9");
    EXPECT_EQ(receiver.all().back(), itemOf("9", "i9", receipt(receiver)));
}

TEST_F(Receive, TheSameItemAgainIsNotHandedOutTwice) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    const std::string before = receipt(receiver);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(receiver.all().size(), 2u);
    EXPECT_EQ(acknowledged(before), kSuccess);
    fakeServer().forgetStanzas();
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(receiver.all().size(), 2u) << "it is stale";
    EXPECT_EQ("xmpp.send " + lastStanza().textWithoutId(), ackOf("i1", "7"));
}

TEST_F(Receive, ASlowEndpointDelaysNoOther) {
    own({"inbox", "news"});
    const Answer receiver = askReceive();
    answerBulk();
    pushItem(kNode, "7", "i1", "slow");
    for (int number = 1; number <= 5; ++number) {
        pushItem(nodeOf("news"), std::to_string(number), "n", "fast");
        EXPECT_EQ(acknowledged(receipt(receiver), "news"), success("news"));
    }
    EXPECT_EQ(receiver.all().size(), 7u);
}

TEST_F(Receive, AReceiptIsGoodOnceForItsEndpointAndApplication) {
    own({"inbox", "news"});
    const Answer receiver = askReceive();
    answerBulk();
    pushItem(kNode, "7", "i1", "hello");
    const std::string good = receipt(receiver);
    EXPECT_EQ(acknowledged(good + "0"), refusal("inbox", "appErr", kUnknownReceipt));
    EXPECT_EQ(acknowledged(good, "news"), refusal("news", "appErr", kUnknownReceipt));
    EXPECT_EQ(ask(acknowledge, "acknowledge", R"({"endpoint":"inbox","receipt":")" + good + "\"}",
                  "com.example.other 1"),
              refusal("inbox", "appErr", kUnknownReceipt));
    EXPECT_EQ(fakePrefs().stored(kPrefs).count(kNode), 0u);
    EXPECT_EQ(acknowledged(good), kSuccess);
    EXPECT_EQ(acknowledged(good), refusal("inbox", "appErr", kUnknownReceipt));
}

TEST_F(Receive, AReceiptIsGoodOnceAlsoBeforeTheCommit) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    const Answer first = askAcknowledge(receipt(receiver));
    EXPECT_EQ(askAcknowledge(receipt(receiver)).text(), refusal("inbox", "appErr", kUnknownReceipt));
    EXPECT_EQ(askAcknowledge(receipt(receiver), "inbox", R"(,"retry":0)").text(),
              refusal("inbox", "appErr", kUnknownReceipt));
    fakeServer().forgetStanzas();
    pump();
    EXPECT_EQ(first.all(), Texts{kSuccess});
    EXPECT_EQ(fakeServer().stanzas().size(), 1u);
    EXPECT_EQ(receiver.all().size(), 2u);
}

TEST_F(Receive, AReceiptStaysGoodOverADisconnect) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    loseConnection();
    reconnect();
    answer(fakeServer().stanzas()[0].id());
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(receiver.all().size(), 2u);
    EXPECT_EQ(acknowledged(receipt(receiver)), kSuccess);
}

TEST_F(Receive, WithoutAStreamTheNumberIsStoredAndTheRepeatedItemAcknowledgedAtOnce) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    loseConnection();
    EXPECT_EQ(acknowledged(receipt(receiver)), kSuccess);
    EXPECT_EQ(fakePrefs().stored(kPrefs).at(kNode), R"({ "seqNo": "7" })");
    reconnect();
    answer(fakeServer().stanzas()[0].id());
    fakeServer().forgetStanzas();
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ("xmpp.send " + lastStanza().textWithoutId(), ackOf("i1", "7"));
    EXPECT_EQ(receiver.all().size(), 2u);
}

TEST_F(Receive, AcknowledgementsThatArriveTogetherShareACommit) {
    own({"inbox", "news"});
    const Answer receiver = askReceive();
    answerBulk();
    pushItem(kNode, "7", "i1", "a");
    const std::string first = receipt(receiver);
    pushItem(nodeOf("news"), "8", "i2", "b");
    const std::string second = receipt(receiver);
    takeEvents();
    askAcknowledge(first);
    askAcknowledge(second, "news");
    pump();
    EXPECT_EQ(journal().eventsOf("prefs.commit").size(), 1u);
    const Texts events = takeEvents();
    ASSERT_EQ(events.size(), 7u);
    EXPECT_EQ(events[2], "prefs.commit " + kPrefs);
    EXPECT_EQ(events[3], ackOf("i1", "7"));
    EXPECT_EQ(events[4], ackOf("i2", "8", nodeOf("news")));
    EXPECT_EQ(events[5], "bus.respond acknowledge " + kSuccess);
    EXPECT_EQ(events[6], "bus.respond acknowledge " + success("news"));
}

TEST_F(Receive, AtMost64AcknowledgementsWaitForACommit) {
    std::vector<std::string> names;
    for (int i = 0; i < 64; ++i)
        names.push_back("e" + std::to_string(100 + i));
    own(names);
    const Answer receiver = askReceive();
    answerBulk();
    std::vector<std::string> receipts;
    for (const std::string& name : names) {
        pushItem(nodeOf(name), "7", "i", "x");
        receipts.push_back(receipt(receiver));
    }
    Answer last = askAcknowledge(receipts[0], names[0]);
    for (std::size_t i = 1; i < names.size(); ++i) {
        EXPECT_TRUE(last.waiting());
        last = askAcknowledge(receipts[i], names[i]);
    }
    EXPECT_EQ(last, success(names.back())) << "without a turn of the loop";
}

// --- items that are given back

TEST_F(Receive, AnItemThatIsGivenBackIsHandedOutAgainWithANewReceipt) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    const std::string first = receipt(receiver);
    EXPECT_EQ(acknowledged(first, "inbox", R"(,"retry":0)"), kSuccess);
    waitFor([&] { return receiver.all().size() == 3; });
    EXPECT_NE(receipt(receiver), first);
    EXPECT_EQ(receiver.all().back(), itemOf("hello", "i1", receipt(receiver)));
    EXPECT_EQ(acknowledged(first), refusal("inbox", "appErr", kUnknownReceipt));
    EXPECT_EQ(acknowledged(receipt(receiver)), kSuccess);
    EXPECT_EQ(session().m_dueTimer, 0u) << "nothing is left to wake the process";
}

TEST_F(Receive, AnItemThatIsGivenBackForLongStaysOpen) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    const std::string first = receipt(receiver);
    EXPECT_EQ(acknowledged(first, "inbox", R"(,"retry":86400)"), kSuccess);
    pushItem(kNode, "8", "i2", "next");
    EXPECT_EQ(receiver.all().size(), 2u);
    EXPECT_EQ(acknowledged(first), refusal("inbox", "appErr", kUnknownReceipt));
    EXPECT_EQ(fakePrefs().stored(kPrefs).count(kNode), 0u);
    fakeBus().clientDies(receiver.message());
    EXPECT_EQ(session().m_dueTimer, 0u);
}

class RetryRefusal : public ReceiveTest, public testing::WithParamInterface<const char*> {};

TEST_P(RetryRefusal, IsABadArgumentAndChangesNothing) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(acknowledged(receipt(receiver), "inbox", std::string(",\"retry\":") + GetParam()),
              refusal("inbox", "parameterErr", R"(\"Bad Argument\")"));
    EXPECT_EQ(acknowledged(receipt(receiver)), kSuccess);
}

INSTANTIATE_TEST_SUITE_P(Values, RetryRefusal,
                         testing::Values("-1", "86401", "1.5", "\"1\"", "true", "[1]",
                                         "99999999999999999999"));

TEST_F(Receive, AcknowledgingNeedsAReceipt) {
    receiveInbox();
    EXPECT_EQ(ask(acknowledge, "acknowledge"), refusal("inbox", "parameterErr", "No receipt provided"));
    EXPECT_EQ(acknowledged(""), refusal("inbox", "parameterErr", "Empty receipt provided"));
}

// --- receivers that go

TEST_F(Receive, WhenTheClientDiesTheNodeIsDeactivatedAndNothingIsTakenUntilTheAnswer) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    takeEvents();
    fakeBus().clientDies(receiver.message());
    const std::string id = expectStanza(deactivateStanza());
    pushItem(kNode, "8", "i2", "on its way");
    EXPECT_FALSE(std::filesystem::exists(cacheFile()));
    EXPECT_EQ(fakePrefs().stored(kPrefs).count(kNode), 0u);
    EXPECT_EQ(stanzaCount(), 1u) << "nothing is acknowledged";
    answer(id);
    EXPECT_FALSE(session().keepsOpenItem(kNode));
    EXPECT_EQ(stanzaCount(), 1u);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_TRUE(std::filesystem::exists(cacheFile())) << "from here on it is as without a receiver";
}

TEST_F(Receive, WhenTheClientCancelsTheNextReceiverGetsTheSameItemWithANewReceipt) {
    const Answer first = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    const std::string old = receipt(first);
    ASSERT_TRUE(fakeBus().cancel(first.message()));
    const std::string closing = expectStanza(deactivateStanza());
    const Answer second = askReceive();
    EXPECT_EQ(acknowledged(old), refusal("inbox", "appErr", kUnknownReceipt));
    EXPECT_EQ(stanzaCount(), 1u) << "the deactivation is not answered yet";
    answer(closing);
    answer(expectStanza(limitedStanza()));
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(second.all().back(), itemOf("hello", "i1", receipt(second)));
    EXPECT_NE(receipt(second), old);
    EXPECT_EQ(acknowledged(receipt(second)), kSuccess);
}

TEST_F(Receive, AnItemThatWasTakenJustBeforeTheClientDiedIsAcknowledgedBeforeTheNodeIsDeactivated) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    askAcknowledge(receipt(receiver));
    fakeServer().forgetStanzas();
    fakeBus().clientDies(receiver.message());
    EXPECT_EQ(fakePrefs().stored(kPrefs).count(kNode), 1u);
    ASSERT_EQ(fakeServer().stanzas().size(), 2u);
    EXPECT_EQ("xmpp.send " + fakeServer().stanzas()[0].textWithoutId(), ackOf("i1", "7"));
    EXPECT_EQ(fakeServer().stanzas()[1].textWithoutId(), deactivateStanza());
}

TEST_F(Receive, TheNextReceiverGetsNothingThatWasOnItsWayToTheOneBefore) {
    const Answer first = receiveInbox();
    pushItem(kNode, "7", "i1", "one");
    ASSERT_TRUE(fakeBus().cancel(first.message()));
    const std::string closing = expectStanza(deactivateStanza());
    const Answer second = askReceive();
    pushItem(kNode, "8", "i2", "two");
    EXPECT_EQ(second.all().size(), 1u) << "the first item was given back and comes before it";
    answer(closing);
    pushItem(kNode, "8", "i2", "two");
    EXPECT_EQ(second.all().size(), 1u);
    answer(expectStanza(limitedStanza()));
}

TEST_F(Receive, AnItemBeforeTheAnswerToTheActivationIsAskedForAgain) {
    own({"inbox"});
    const Answer receiver = askReceive();
    pushItem(kNode, "7", "i1", "early");
    EXPECT_EQ(receiver.all().size(), 1u);
    EXPECT_EQ(stanzaCount(), 1u);
    answer(lastId());
    answer(expectStanza(deactivateStanza()));
    answer(expectStanza(limitedStanza()));
    pushItem(kNode, "7", "i1", "early");
    EXPECT_EQ(receiver.all().size(), 2u);
}

TEST_F(Receive, ANodeThatWasActiveIsDeactivatedFirst) {
    own({"inbox"});
    pushItem(kNode, "5", "i0", "cached");
    askReceive();
    answer(expectStanza(deactivateStanza()));
    expectStanza(limitedStanza("5"));
    EXPECT_TRUE(std::filesystem::exists(cacheFile())) << "it stays for a subscriber";
}

TEST_F(Receive, WhenTheClientDiesTheNodeIsActivatedForASubscriberThatWaits) {
    const Answer subscriber = askSubscribe();
    answer(lastId());
    const Answer receiver = receiveInbox();
    fakeBus().clientDies(receiver.message());
    answer(expectStanza(deactivateStanza()));
    answer(expectStanza(activateStanza()));
    EXPECT_TRUE(session().subMap.contains(kNode));
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(subscriber.all().back(), item("hello"));
}

TEST_F(Receive, ASubscriberThatGoesDoesNotEndTheReceiver) {
    askSubscribe();
    answer(lastId());
    const Answer receiver = receiveInbox();
    const Answer gone = askUnsubscribe();
    answer(expectStanza(deactivateStanza()));
    EXPECT_EQ(gone.all(), (Texts{kSuccess, kSuccess}));
    EXPECT_FALSE(session().subMap.contains(kNode));
    answer(expectStanza(limitedStanza()));
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(receiver.all().size(), 2u);
}

TEST_F(Receive, ADisconnectEndsNoReceiverAndLeavesOutItsNodeFromTheBulkActivation) {
    const Answer receiver = receiveInbox();
    session().setOfflineMap(kNode, "com.example.app");
    session().m_bootFinished = true;
    loseConnection();
    reconnect();
    Texts sent;
    for (const SentStanza& stanza : fakeServer().stanzas())
        sent.push_back(stanza.textWithoutId());
    ASSERT_GE(sent.size(), 3u);
    EXPECT_EQ(sent[0], limitedStanza());
    EXPECT_EQ(sent[2], deviceIq("set", "<activate-nodes xmlns='urn:zelt:pubsub:device:0'/>"));
    EXPECT_TRUE(receiver.kept());
    session().m_bootFinished = false;
}

TEST_F(Receive, AnApplicationThatIsRemovedLosesItsNodes) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    session().cleanupNodes("com.example.app", "");
    EXPECT_FALSE(session().keepsOpenItem(kNode));
    EXPECT_EQ(acknowledged(receipt(receiver)), refusal("inbox", "appErr", kUnknownReceipt));
}

// --- receivers that do not read
