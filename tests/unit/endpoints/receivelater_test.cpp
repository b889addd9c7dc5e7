// SPDX-License-Identifier: GPL-3.0-only
// receive and acknowledge when the server refuses or answers late, and when the bus does not take an item.
#include "tests/unit/endpoints/receivetest.h"

using Receive = ReceiveTest;

TEST_F(Receive, RecordsTheStationsOfAMarkedItem) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "trace-1", "hello");
    const auto stations = [this] { return session().m_traces.of("trace-1"); };
    ASSERT_EQ(stations().size(), 2u);
    EXPECT_EQ(stations()[1].name + '/' + stations()[1].to, "handed on/receiver com.example.app");
    acknowledgeOpen(receiver);
    ASSERT_EQ(stations().size(), 3u);
    EXPECT_EQ(stations()[2].name, "acknowledged");
}

TEST_F(Receive, AnActivationThatTheServerRefusesForNowIsAskedForAgain) {
    own({"inbox"});
    const Answer receiver = askReceive();
    answerError(expectStanza(limitedStanza()), "wait", "resource-constraint");
    EXPECT_NE(session().m_dueTimer, 0u);
    waitFor([&] { return stanzaCount() == 2; });
    answer(expectStanza(limitedStanza()));
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(receiver.all().size(), 2u);
    EXPECT_EQ(session().m_dueTimer, 0u);
}

TEST_F(Receive, ABulkActivationThatTheServerRefusesForNowIsAskedForAgain) {
    own({"inbox", "news"});
    askReceive();
    answerError(lastId(), "wait", "resource-constraint");
    waitFor([&] { return stanzaCount() == 2; });
    answerBulk();
    EXPECT_EQ(session().m_dueTimer, 0u);
}

TEST_F(Receive, OfTheNodesOfABulkActivationOnlyThoseThatTheServerRefusesForNowAreAskedForAgain) {
    own({"gone", "inbox", "news"});
    const Answer receiver = askReceive();
    takeLogLines();
    answer(lastId(), "<activate-nodes xmlns='urn:zelt:pubsub:device:0'><node id='" + nodeOf("gone") +
                         "' error='item-not-found'/><node id='" + kNode +
                         "' error='resource-constraint'/></activate-nodes>");
    pushItem(nodeOf("news"), "7", "i1", "hello");
    EXPECT_EQ(receiver.all().size(), 2u);
    EXPECT_EQ(takeLogLines().back(),
              "activationAnswered: No items of " + nodeOf("gone") +
                  " are received, the server refused its activation: <error type='cancel'><item-not-found "
                  "xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>");
    waitFor([&] { return stanzaCount() == 2; });
    answer(expectStanza(limitedStanza()));
    EXPECT_EQ(session().m_dueTimer, 0u);
    createEndpointOf("gone");
    answer(expectStanza(limitedStanza("0", nodeOf("gone"))));
    pushItem(nodeOf("gone"), "8", "i2", "hello");
    EXPECT_EQ(receiver.all().size(), 3u);
}

TEST_F(Receive, AnActivationThatTheServerRefusesForGoodIsNot) {
    own({"inbox"});
    askReceive();
    answerError(expectStanza(limitedStanza()), "cancel", "item-not-found");
    EXPECT_EQ(session().m_dueTimer, 0u);
    EXPECT_EQ(stanzaCount(), 1u);
}

TEST_F(Receive, AnItemThatIsTakenIsNotHandedOutAgainBeforeItsCommit) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    askAcknowledge(receipt(receiver));
    session().handOut(kNode);
    EXPECT_EQ(receiver.all().size(), 2u);
    pump();
}

TEST_F(Receive, TheServerIsToldNoNumberThatIsNotOnDisk) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    askAcknowledge(receipt(receiver));
    takeEvents();
    session().reopenNode(kNode);
    EXPECT_EQ(takeEvents(), (Texts{"prefs.commit " + kPrefs, "xmpp.send " + limitedStanza("7")}));
    pump();
}

// It may be gone from the server by the next connect, or come after one that is older.
TEST_F(Receive, AFurtherItemIsNotHandedOutAfterADisconnect) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "first");
    pushItem(kNode, "8", "i2", "second");
    loseConnection();
    EXPECT_EQ(acknowledged(receipt(receiver)), kSuccess);
    EXPECT_EQ(receiver.all().size(), 2u);
}

TEST_F(Receive, AClientThatDiesWithoutAConnectionLeavesNothing) {
    const Answer receiver = receiveInbox();
    loseConnection();
    fakeBus().clientDies(receiver.message());
    EXPECT_FALSE(session().keepsOpenItem(kNode));
}

TEST_F(Receive, AnItemBeforeTheAnswerToABulkActivationIsAskedForAgain) {
    own({"inbox", "news"});
    const Answer receiver = askReceive();
    const std::string bulk = lastId();
    pushItem(kNode, "7", "i1", "early");
    EXPECT_EQ(receiver.all().size(), 1u);
    answer(bulk, "<activate-nodes xmlns='urn:zelt:pubsub:device:0'/>");
    EXPECT_EQ(lastStanza().textWithoutId(), deactivateStanza());
    answer(lastId());
    answer(expectStanza(limitedStanza()));
    pushItem(kNode, "7", "i1", "early");
    EXPECT_EQ(receiver.all().size(), 2u);
}

TEST_F(Receive, TheAnswerToABulkActivationLeavesOtherNodesAlone) {
    own({"inbox", "news", "third"});
    const Answer first = askReceive(R"({"subscribe":true,"endpoints":["inbox","news"]})");
    const std::string bulk = lastId();
    const Answer second = askReceive(R"({"subscribe":true,"endpoints":["third"]})");
    answer(bulk, "<activate-nodes xmlns='urn:zelt:pubsub:device:0'/>");
    pushItem(nodeOf("third"), "7", "i1", "too early");
    EXPECT_EQ(second.all().size(), 1u);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(first.all().size(), 2u);
}

TEST_F(Receive, OneThatIsWrittenLaterDoesNotWaitForAnEndpointThatIsDeleted) {
    own({"inbox", "news"});
    const Answer receiver = askReceive();
    answerBulk();
    fakeBus().failNext("QSMessageRespond", -ENOBUFS, "The client does not read");
    pushItem(kNode, "7", "i1", "hello");
    pushItem(nodeOf("news"), "8", "i2", "news");
    ask(deleteEndpoint, "deleteEndpoint");
    answer(lastId());
    waitFor([&] { return receiver.all().size() == 2; });
    EXPECT_EQ(session().m_dueTimer, 0u);
}

TEST_F(Receive, TheRestIsWrittenLaterWhenTheBusTakesOneOfThemAlone) {
    own({"inbox", "news", "third"});
    const Answer receiver = askReceive();
    answerBulk();
    fakeBus().failNext("QSMessageRespond", -ENOBUFS, "The client does not read");
    pushItem(kNode, "7", "i1", "hello");
    pushItem(nodeOf("news"), "8", "i2", "news");
    pushItem(nodeOf("third"), "9", "i3", "third");
    fakeBus().failNext("QSMessageRespond", -ENOBUFS, "The client does not read", 1, 1);
    waitFor([&] { return receiver.all().size() == 4; });
    EXPECT_EQ(session().m_dueTimer, 0u);
}

TEST_F(Receive, AnAcknowledgementWhoseAnswerCannotBeSentCounts) {
    const Answer receiver = receiveInbox();
    pushItem(kNode, "7", "i1", "hello");
    takeLogLines();
    fakeBus().failNext("QSMessageRespond", -ENOBUFS, "The client does not read");
    askAcknowledge(receipt(receiver));
    pump();
    EXPECT_EQ(takeLogLines().size(), 1u);
    EXPECT_EQ(fakePrefs().stored(kPrefs).count(kNode), 1u);
}

TEST_F(Receive, AnEndpointThatIsCreatedAgainStaysWithItsReceiver) {
    const Answer receiver = receiveInbox();
    createEndpointOf("inbox");
    EXPECT_EQ(lastStanza().textWithoutId(), deactivateStanza());
    answer(lastId());
    answer(expectStanza(limitedStanza()));
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(receiver.all().size(), 2u);
}

TEST_F(Receive, OfNamedEndpointsIsActivatedAtTheNextConnect) {
    own({"inbox", "news"});
    askReceive(R"({"subscribe":true,"endpoints":["inbox"]})");
    answer(lastId());
    loseConnection();
    fakeServer().forgetStanzas();
    reconnect();
    EXPECT_EQ(fakeServer().stanzas()[0].textWithoutId(), limitedStanza());
}

// Each account has nodes of its own, and a node of another one is not this device's to activate.
TEST_F(Receive, AfterAChangeOfTheAccountTakesTheEndpointsOfTheNewOneAlone) {
    own({"inbox", "news"});
    const Answer named = askReceive(R"({"subscribe":true,"endpoints":["inbox"]})");
    answer(lastId());
    ask(receive, "receive", R"({"subscribe":true})", "com.example.other 7");
    ask(createEndpoint, "createEndpoint", kInbox, "com.example.other 7");
    answer(lastId(),
           "<key xmlns='urn:zelt:pubsub:device:0' node='/u1234/dev42/com.example.other/inbox'>K</key>");
    pushItem(kNode, "7", "i1", "hello");
    loseConnection();
    session().m_username = "other";
    fakePrefs().store(kPrefs, "deletecom.example.app",
                      R"({"nodes":[")" + kNode + R"(","/other/dev42/com.example.app/inbox",)" +
                          R"("/other/dev42/com.example.app/news"]})");
    reconnect();
    EXPECT_EQ(fakeServer().stanzas()[0].textWithoutId(),
              limitedStanza("0", "/other/dev42/com.example.app/inbox"));
    EXPECT_EQ(fakeServer().stanzas()[1].tag().name(), "presence");
    EXPECT_FALSE(session().keepsOpenItem(kNode));
    EXPECT_FALSE(session().keepsOpenItem("/u1234/dev42/com.example.other/inbox"));
    EXPECT_EQ(acknowledged(receipt(named)), refusal("inbox", "appErr", kUnknownReceipt));
    answer(fakeServer().stanzas()[0].id());
    pushItem("/other/dev42/com.example.app/inbox", "3", "i2", "of the other");
    EXPECT_EQ(named.all().back(), itemOf("of the other", "i2", receipt(named)));

    loseConnection();
    session().m_username = "u1234";
    reconnect();
    EXPECT_TRUE(session().keepsOpenItem(kNode));
    EXPECT_FALSE(session().keepsOpenItem(nodeOf("news")));
    EXPECT_TRUE(session().keepsOpenItem("/u1234/dev42/com.example.other/inbox"));
    EXPECT_FALSE(session().keepsOpenItem("/other/dev42/com.example.app/inbox"));
}

TEST_F(Receive, ANamedEndpointThatIsMissingAfterAChangeOfTheAccountIsTakenWhenItIsCreated) {
    own({"inbox"});
    askReceive(R"({"subscribe":true,"endpoints":["inbox"]})");
    answer(lastId());
    loseConnection();
    session().m_username = "other";
    reconnect();
    const std::string node = "/other/dev42/com.example.app/inbox";
    EXPECT_FALSE(session().keepsOpenItem(node));
    ask(createEndpoint, "createEndpoint");
    answer(lastId(), "<key xmlns='urn:zelt:pubsub:device:0' node='" + node + "'>KEY</key>");
    expectStanza(limitedStanza("0", node));
}

TEST_F(Receive, OfAllEndpointsHasThoseThatAreStoredApart) {
    own({"inbox"});
    session().furtherNodes("deletecom.example.app").insert(nodeOf("apart"));
    EXPECT_EQ(askReceive(), R"({ "returnValue": true, "endpoints": [ "inbox", "apart" ] })");
}

TEST_F(Receive, WithoutTheStoreKnowsNoEndpoint) {
    own({"inbox"});
    fakePrefs().failNext("QPAppCopyValue", QP_IO);
    EXPECT_EQ(askReceive(), R"({ "returnValue": true, "endpoints": [ ] })");
    takeLogLines();
}

TEST_F(Receive, AnItemThatCannotBeWrittenStaysUnacknowledgedAndIsWrittenLater) {
    own({"inbox", "news"});
    const Answer receiver = askReceive();
    answerBulk();
    fakeBus().failNext("QSMessageRespond", -ENOBUFS, "The client does not read", 2);
    pushItem(kNode, "7", "i1", "hello");
    pushItem(nodeOf("news"), "8", "i2", "news");
    EXPECT_EQ(receiver.all().size(), 1u);
    EXPECT_EQ(fakePrefs().stored(kPrefs).count(kNode), 0u);
    EXPECT_EQ(takeLogLines().size(), 1u);
    waitFor([&] { return receiver.all().size() == 3; });
    EXPECT_EQ(session().m_dueTimer, 0u);
}

TEST_F(Receive, AnAcknowledgementHasWhatCouldNotBeWrittenWritten) {
    own({"inbox", "news"});
    const Answer receiver = askReceive();
    answerBulk();
    pushItem(kNode, "7", "i1", "hello");
    const std::string open = receipt(receiver);
    fakeBus().failNext("QSMessageRespond", -ENOBUFS, "The client does not read");
    pushItem(nodeOf("news"), "8", "i2", "news");
    EXPECT_EQ(receiver.all().size(), 2u);
    askAcknowledge(open);
    EXPECT_EQ(receiver.all().size(), 3u) << "without a turn of the loop";
    pump();
}
