// SPDX-License-Identifier: GPL-3.0-only
// Who gives endpoints of web push their addresses: how the service finds out, and what it answers when nobody does.
#include "tests/unit/endpoints/pushtest.h"

namespace {

class PushBackendTest : public PushTest {
  protected:
    void SetUp() override {
        PushTest::SetUp();
        unsetenv("PUBSUB_PUSH_PROVIDER");
    }
    // The provider is this entity, found among what the domain lists.
    void answerParts(const std::string& items) {
        answerFrom("example.org", idOf(discoStanza("example.org", "items")),
                   "<query xmlns='http://jabber.org/protocol/disco#items'>" + items + "</query>");
    }
    Answer askBackend() { return callPrivate(getPushBackend, "getPushBackend", "{}"); }
};

using Backend = PushBackendTest;

const std::string kRefused =
    R"({ "returnValue": false, "endpoint": "inbox", "errorCode": "xmppErr", "errorText": ")";

TEST_F(Backend, OfAServerWithTheExtensionIsNotAskedFor) {
    const Answer created = askCreate();
    answer(lastId(),
           "<key xmlns='urn:zelt:pubsub:device:0' node='" + kNode + "' url='" + kUrl + "'>KEY</key>");
    EXPECT_EQ(member(created, "publishKey"), "KEY");
    EXPECT_EQ(count(discoStanza("pubsub.example.org")), 0);
    EXPECT_EQ(stanzaCount(), 1u);
}

TEST_F(Backend, OfAServerWithTheExtensionLeavesItsRefusalAsItIs) {
    const Answer created = askCreate();
    answerError(lastId(), "cancel", "feature-not-implemented");
    EXPECT_TRUE(created.waiting());
    answer(idOf(discoStanza("pubsub.example.org")), features("urn:zelt:pubsub:device:0"));
    EXPECT_EQ(created, kRefused + "feature-not-implemented\" }");
    // It is known from now on.
    fakeServer().forgetStanzas();
    const Answer again = askCreate();
    answerError(lastId(), "cancel", "feature-not-implemented");
    EXPECT_EQ(again, kRefused + "feature-not-implemented\" }");
    EXPECT_EQ(stanzaCount(), 1u);
}

TEST_F(Backend, IsNotLookedForWithoutWebPushNorAfterOtherRefusals) {
    const Answer plain = askCreate(kInbox);
    answerError(lastId(), "cancel", "service-unavailable");
    EXPECT_EQ(plain, kRefused + "service-unavailable\" }");
    const Answer conflict = askCreate();
    answerError(lastId(), "cancel", "conflict");
    EXPECT_EQ(conflict, kRefused + "conflict\" }");
    EXPECT_EQ(stanzaCount(), 2u);
}

TEST_F(Backend, IsTheDomainItselfWhenThatHasTheFeature) {
    const Answer created = askCreate();
    lackExtension();
    answerFrom("example.org", idOf(discoStanza("example.org")), features(kPushXmlns));
    EXPECT_EQ(lastRegister().tag().findAttribute("to"), "example.org");
    EXPECT_TRUE(created.waiting());
    answerParts("<item jid='late.example.org'/>");
    EXPECT_EQ(count(discoStanza("late.example.org")), 0) << "it is found";
    fakeServer().forgetStanzas();
    // The next one goes there at once.
    askCreate(R"({"endpoint":"news","webPush":true})");
    ASSERT_EQ(stanzaCount(), 1u);
    EXPECT_EQ(lastRegister().tag().findAttribute("to"), "example.org");
    loseConnection();
}

TEST_F(Backend, IsFoundAmongWhatTheDomainLists) {
    const Answer created = askCreate();
    lackExtension();
    refuseFrom("example.org", idOf(discoStanza("example.org")), "cancel", "service-unavailable");
    answerParts(
        "<item jid='pubsub.example.org'/><item jid='rooms.example.org'/><item jid='push.example.org'/>"
        "<item node='nameless'/>");
    EXPECT_EQ(count(discoStanza("pubsub.example.org")), 1) << "the pub-sub service was asked before";
    EXPECT_EQ(registers(), 0);
    answerFrom(kProvider, idOf(discoStanza(kProvider)), features(kPushXmlns));
    giveAddress();
    EXPECT_EQ(created, kAddress);
    answerFrom("rooms.example.org", idOf(discoStanza("rooms.example.org")), features(kPushXmlns));
    EXPECT_EQ(registers(), 1) << "the first one stays";
}

TEST_F(Backend, ThatIsNotThereIsToldWithWhatToDo) {
    const Answer created = askCreate();
    lackExtension();
    const Answer report = askBackend();
    EXPECT_TRUE(report.waiting());
    answerFrom("example.org", idOf(discoStanza("example.org")), features("urn:other"));
    EXPECT_TRUE(created.waiting());
    answerParts("<item jid='rooms.example.org'/>");
    refuseFrom("rooms.example.org", idOf(discoStanza("rooms.example.org")), "cancel", "item-not-found");
    const std::string none =
        kRefused +
        "feature-not-implemented: the server has neither the device extension nor a push provider. "
        "Ask its operator for one of them, or name a provider in PUBSUB_PUSH_PROVIDER\" }";
    EXPECT_EQ(created, none);
    EXPECT_EQ(report, R"({ "returnValue": true, "backend": "none" })");
    fakeServer().forgetStanzas();
    EXPECT_EQ(askCreate(), none);
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(Backend, IsTheConfiguredProviderWithoutAQuestionToTheDomain) {
    setenv("PUBSUB_PUSH_PROVIDER", kProvider.c_str(), 1);
    askCreate();
    lackExtension();
    EXPECT_EQ(lastRegister().tag().findAttribute("to"), kProvider);
    EXPECT_EQ(count(discoStanza("example.org")), 0);
    EXPECT_EQ(askBackend(),
              R"({ "returnValue": true, "backend": "provider", "provider": "push.example.org" })");
    loseConnection();
}

TEST_F(Backend, IsAskedForAgainWhenTheServiceCouldNotSay) {
    const Answer created = askCreate();
    answerError(lastId(), "wait", "remote-server-timeout");
    answerError(idOf(discoStanza("pubsub.example.org")), "wait", "remote-server-timeout");
    EXPECT_EQ(created, kRefused + "remote-server-timeout\" }");
    fakeServer().forgetStanzas();
    const Answer report = askBackend();
    answer(idOf(discoStanza("pubsub.example.org")), features("urn:zelt:pubsub:device:0"));
    EXPECT_EQ(report, R"({ "returnValue": true, "backend": "extension" })");
    EXPECT_EQ(askBackend(), R"({ "returnValue": true, "backend": "extension" })");
}

TEST_F(Backend, IsLookedForOnceByTwoRequestsAtOnce) {
    setenv("PUBSUB_PUSH_PROVIDER", kProvider.c_str(), 1);
    const Answer first = askCreate();
    const std::string request = lastId();
    const Answer second = askCreate(R"({"endpoint":"news","webPush":true})");
    const std::string other = lastId();
    answerError(request, "cancel", "service-unavailable");
    answerError(idOf(discoStanza("pubsub.example.org")), "cancel", "service-unavailable");
    EXPECT_EQ(registers(), 1);
    answerError(other, "cancel", "service-unavailable");
    EXPECT_EQ(registers(), 2);
    EXPECT_EQ(count(discoStanza("pubsub.example.org")), 1);
    EXPECT_TRUE(first.waiting() && second.waiting());
    loseConnection();
}

TEST_F(Backend, OfARequestWhoseClientCannotBeToldIsLogged) {
    askCreate();
    answerError(lastId(), "cancel", "not-allowed");
    takeLog();
    fakeBus().failNext("QSMessageRespond", -1, "gone");
    answer(idOf(discoStanza("pubsub.example.org")), features("urn:zelt:pubsub:device:0"));
    EXPECT_EQ(takeLog(), Texts{"Sending response to client failed id  Error gone "});
}

TEST_F(Backend, OfAnAccountWithoutAServiceIsNotKnown) {
    session().m_pubsubService.clear();
    EXPECT_NE(askBackend().text().find("The server does not say now what it can do"), std::string::npos);
}

TEST_F(Backend, OfAServiceThatCannotSayIsNotReported) {
    const Answer report = askBackend();
    answerError(idOf(discoStanza("pubsub.example.org")), "wait", "resource-constraint");
    EXPECT_EQ(report, R"({ "returnValue": false, "errorCode": "xmppErr", )"
                      R"("errorText": "The server does not say now what it can do. Try again" })");
}

TEST_F(Backend, IsForgottenWithTheConnectionWhichAnswersWhoeverWaits) {
    const Answer created = askCreate();
    answerError(lastId(), "cancel", "not-allowed");
    const Answer report = askBackend();
    loseConnection();
    EXPECT_EQ(created, kDisconnected);
    const std::string away =
        R"({ "returnValue": false, "errorCode": "connectionErr", "errorText": "Not connected to xmpp server" })";
    EXPECT_EQ(report, away);
    EXPECT_EQ(askBackend(), away);
    reconnect();
    fakeServer().forgetStanzas();
    askCreate();
    EXPECT_NE(lastStanza().xml().find("create-key-node"), std::string::npos);
    loseConnection();
}

}  // namespace
