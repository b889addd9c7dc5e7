// SPDX-License-Identifier: GPL-3.0-only
// Messages of a push provider: handed out, answered, and refused.
#include "tests/unit/endpoints/pushtest.h"

namespace {

using Push = PushTest;

const std::string kHello = "aGVsbG8=";  // hello

TEST_F(Push, IsHandedOutAndAnsweredOnceItIsAcknowledged) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    push("p1", kHello);
    EXPECT_EQ(member(receiver, "item"), "hello");
    EXPECT_EQ(member(receiver, "encoding"), "");
    EXPECT_EQ(member(receiver, "endpoint"), "inbox");
    EXPECT_EQ(answered("p1"), "");
    takeEvents();
    const Answer done = askAcknowledge(receipt(receiver));
    EXPECT_EQ(done, kSuccess);
    EXPECT_EQ(takeEvents(), (Texts{"xmpp.send <iq to='push.example.org' id='ID' type='result'/>",
                                   "bus.respond acknowledge " + kSuccess}));
    EXPECT_EQ(answered("p1"), "result");
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(acknowledged(receipt(receiver)), refusal("inbox", "appErr", kUnknownReceipt));
}

TEST_F(Push, ThatIsNoTextForXmlStaysInBase64) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    push("p1", "AP/+\n AQ==");
    EXPECT_EQ(member(receiver, "item"), "AP/+AQ==");
    EXPECT_EQ(member(receiver, "encoding"), "base64");
}

TEST_F(Push, NeedsNoActivationAtTheServer) {
    makeEndpoint();
    const Answer receiver = askReceive();
    EXPECT_EQ(receiver, R"({ "returnValue": true, "endpoints": [ "inbox" ] })");
    loseConnection();
    reconnect();
    for (const SentStanza& stanza : fakeServer().stanzas())
        EXPECT_EQ(stanza.xml().find("limit="), std::string::npos) << stanza.xml();
    push("p1", kHello);
    EXPECT_EQ(member(receiver, "item"), "hello");
}

TEST_F(Push, IsRefusedForNowWithoutAReceiver) {
    makeEndpoint();
    push("p1", kHello);
    EXPECT_EQ(answered("p1"), "wait recipient-unavailable");
    const Answer receiver = receivePushes();
    EXPECT_EQ(receiver.all().size(), 1u) << "nothing was kept";
}

TEST_F(Push, OfAStrangerOrForAnUnknownEndpointIsRefusedAndHandedToNobody) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    push("p1", kHello, "stranger.example.org");
    push("p2", kHello, "someone@push.example.org/x");
    pushTo(application, "p3", kHello);
    application.front() ^= 1;
    push("p4", kHello);
    for (const char* id : {"p1", "p2", "p3", "p4"})
        EXPECT_EQ(answered(id), "cancel item-not-found") << id;
    EXPECT_EQ(receiver.all().size(), 1u);
}

TEST_F(Push, ThatIsMalformedOrTooLongIsRefused) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    push("p1", "");
    push("p2", "no base64!");
    push("p3", "aGVsbG8");  // without its padding
    gchar* tooLong = g_base64_encode(reinterpret_cast<const guchar*>(std::string(4097, 'x').data()), 4097);
    push("p4", tooLong);
    g_free(tooLong);
    gchar* longest = g_base64_encode(reinterpret_cast<const guchar*>(std::string(4096, 'x').data()), 4096);
    push("p5", longest);
    g_free(longest);
    EXPECT_EQ(answered("p1"), "modify bad-request");
    EXPECT_EQ(answered("p2"), "modify bad-request");
    EXPECT_EQ(answered("p3"), "modify bad-request");
    EXPECT_EQ(answered("p4"), "modify not-acceptable");
    EXPECT_EQ(member(receiver, "item"), std::string(4096, 'x'));
}

TEST_F(Push, WaitsBehindTheOpenOneUpToABound) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    for (int i = 0; i < 10; ++i)
        push("p" + std::to_string(i), kHello);
    EXPECT_EQ(receiver.all().size(), 2u);
    EXPECT_EQ(answered("p8"), "");
    EXPECT_EQ(answered("p9"), "wait resource-constraint");
    for (int i = 0; i < 9; ++i) {
        acknowledgeOpen(receiver);
        EXPECT_EQ(answered("p" + std::to_string(i)), "result");
    }
    EXPECT_EQ(receiver.all().size(), 10u);
}

TEST_F(Push, IsHandedOutAgainWhenItIsGivenBackForAShortTime) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    push("p1", kHello);
    const std::string first = receipt(receiver);
    EXPECT_EQ(acknowledged(first, "inbox", R"(,"retry":0)"), kSuccess);
    waitFor([&] { return receiver.all().size() == 3u; });
    EXPECT_EQ(answered("p1"), "");
    EXPECT_NE(receipt(receiver), first);
    acknowledgeOpen(receiver);
    EXPECT_EQ(answered("p1"), "result");
}

TEST_F(Push, IsRefusedForNowWhenItIsGivenBackForLongerAndTheNextOneFollows) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    push("p1", kHello);
    push("p2", "bmV4dA==");
    EXPECT_EQ(acknowledged(receipt(receiver), "inbox", R"(,"retry":61)"), kSuccess);
    EXPECT_EQ(answered("p1"), "wait recipient-unavailable");
    EXPECT_EQ(member(receiver, "item"), "next");
}

TEST_F(Push, IsRefusedForNowWhenItsReceiverLeaves) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    push("p1", kHello);
    push("p2", kHello);
    fakeBus().clientDies(receiver.message());
    EXPECT_EQ(answered("p1"), "wait recipient-unavailable");
    EXPECT_EQ(answered("p2"), "wait recipient-unavailable");
    const Answer next = receivePushes();
    push("p3", kHello);
    EXPECT_EQ(member(next, "item"), "hello");
}

TEST_F(Push, ThatIsOpenStaysSoWhenItsEndpointIsAskedForAgain) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    push("p1", kHello);
    EXPECT_EQ(askCreate(), kAddress);
    acknowledgeOpen(receiver);
    EXPECT_EQ(answered("p1"), "result");
}

TEST_F(Push, ThatIsTakenAfterALossOfTheConnectionIsAnsweredAtTheNext) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    push("p1", kHello);
    const std::string open = receipt(receiver);
    loseConnection();
    EXPECT_EQ(acknowledged(open), kSuccess);
    reconnect();
    EXPECT_EQ(answered("p1"), "result");
    push("p2", kHello);
    EXPECT_NE(receipt(receiver), open);
}

TEST_F(Push, OfTheAccountBeforeIsNotAnsweredInTheNameOfAnother) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    push("p1", kHello);
    session().disconnect();
    session().setSessionDetails("u9@example.org", "secret", kResource, kServer, kService, 5222);
    reconnect();
    fakeBus().clientDies(receiver.message());
    EXPECT_EQ(answered("p1"), "");
}

TEST_F(Push, ThatWaitedTooLongIsNotHandedOut) {
    makeEndpoint();
    const Answer receiver = receivePushes();
    push("p1", kHello);
    push("p2", kHello);
    for (_itemStruct& item : session().m_openNodes[kNode].pushed) {
        // As if it had come two minutes ago.
        const auto earlier =
            std::make_shared<PushReply>([reply = item.push](bool) {}, item.push->since() - 120'000'000);
        item.push = earlier;
    }
    acknowledgeOpen(receiver);
    EXPECT_EQ(receiver.all().size(), 2u);
    EXPECT_EQ(answered("p2"), "wait recipient-unavailable");
}

TEST_F(Push, BeyondTheBoundOfAllThatWaitIsRefusedForNow) {
    makeEndpoint();
    receivePushes();
    push("p1", kHello);
    _itemStruct large;
    large.text = std::string(1024 * 1024, 'x');
    session().m_openNodes["/other"].pushed.push_back(large);
    push("p2", kHello);
    EXPECT_EQ(answered("p2"), "wait resource-constraint");
}

TEST_F(Push, GoesToConfirmingHandlersToo) {
    makeEndpoint();
    session().addNodeToMap(kNode, "zelt://com.example.handler/item", false, *std::make_unique<bool>());
    session().setConfirming(kNode, "zelt://com.example.handler/item", true);
    session().handlersChanged(kNode);
    fakeServer().forgetStanzas();
    push("p1", kHello);
    ASSERT_FALSE(fakeBus().calls().empty());
    EXPECT_EQ(fakeBus().calls().back().uri, "zelt://com.example.handler/item");
    EXPECT_EQ(stanzaCount(), 0u);
}

}  // namespace
