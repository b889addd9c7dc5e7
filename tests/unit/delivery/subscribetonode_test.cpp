// SPDX-License-Identifier: GPL-3.0-only
// subscribeToNode: its refusals, the subscriber and the depth, and the server's answer.
#include <gloox/error.h>

#include <utility>

#include "delivery/methods.h"
#include "tests/unit/nodes/refusal.h"
#include "tests/unit/nodes/requesttest.h"

// The refusals of all methods of this folder; the rows are in the tests of the methods.
TEST_P(NodeRefusal, IsAnsweredAtOnceAndKeepsNothing) {
    checkRefusal();
}

namespace {

RefusalCase given(const char* name, Given state, const char* payload, std::string reply,
                  std::string log = "") {
    return {name, subscribeToNode, state, payload, std::move(reply), std::move(log)};
}
RefusalCase badArgument(const char* name, Given state, const char* payload, const std::string& node) {
    return given(name, state, payload, nodeErrorReply(node, "errBadArgument", "Bad Argument"));
}
const std::string kMalformed = nodeErrorReply("", "errBadArgument", "Malformed json");
const std::string kMalformedLog = "subscribeToNode: Malformed json packet? \n";
const std::string kNoLibrary = nodeErrorReply("a", "libErr", "gloox library is not initialized");

struct Subscription {
    const char* name;
    const char* payload;
    const char* inside;  // content of the pubsub element
};

void PrintTo(const Subscription& subscription, std::ostream* out) {
    *out << subscription.payload;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    SubscribeToNode, NodeRefusal,
    testing::Values(given("NoJson", Given::Ready, "{", kMalformed, kMalformedLog),
                    given("NullPayload", Given::Ready, "null", kMalformed, kMalformedLog),
                    given("NoJsonBeforeNoManager", Given::NoManager, "", kMalformed, kMalformedLog),
                    badArgument("ArrayPayload", Given::Ready, "[]", ""),
                    badArgument("NodeMissing", Given::Ready, R"({"jid":"j@h"})", ""),
                    badArgument("NodeEmpty", Given::Ready, R"({"node":""})", ""),
                    badArgument("NodeBeforeConnection", Given::Disconnected, "{}", ""),
                    badArgument("JidThatIsNone", Given::Ready, R"({"node":"a","jid":"@h"})", "a"),
                    given("NoManager", Given::NoManager, R"({"node":"a"})", kNoLibrary),
                    given("NoService", Given::NoService, R"({"node":"a"})", kNoLibrary),
                    given("NoClient", Given::NoClient, R"({"node":"a"})", kNoLibrary)),
    caseName);

class SubscribeToNode : public RequestTest {};

class SubscribeToNodeShape : public RequestTest, public testing::WithParamInterface<Subscription> {};

TEST_P(SubscribeToNodeShape, ReachesTheServer) {
    ask(subscribeToNode, GetParam().payload);
    expectStanza(pubsubStanza(GetParam().inside));
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, SubscribeToNodeShape,
    testing::Values(
        Subscription{"TheSessionItself", R"({"node":"/a/b"})",
                     "<subscribe node='/a/b' jid='u1234@example.org'/>"},
        Subscription{"AGivenJid", R"({"node":"a","jid":"friend@example.net/home"})",
                     "<subscribe node='a' jid='friend@example.net/home'/>"},
        Subscription{"EmptyJidCountsAsAbsent", R"({"node":"a","jid":""})",
                     "<subscribe node='a' jid='u1234@example.org'/>"},
        Subscription{"DeviceChangesNothing", R"({"node":"a","device":true})",
                     "<subscribe node='a' jid='u1234@example.org'/>"},
        Subscription{"DepthOneIsTheDefault", R"({"node":"a","depth":1})",
                     "<subscribe node='a' jid='u1234@example.org'/>"},
        Subscription{"DepthNullCountsAsAbsent", R"({"node":"a","depth":null})",
                     "<subscribe node='a' jid='u1234@example.org'/>"},
        Subscription{"DepthThatIsATextIsConverted", R"({"node":"a","depth":"1"})",
                     "<subscribe node='a' jid='u1234@example.org'/>"},
        Subscription{"DepthZero", R"({"node":"a","depth":0})",
                     "<subscribe node='a' jid='u1234@example.org'/><options>"
                     "<x xmlns='jabber:x:data' type='submit'><field var='FORM_TYPE' type='hidden'>"
                     "<value>http://jabber.org/protocol/pubsub#subscribe_options</value></field>"
                     "<field var='pubsub#subscription_depth'><value>all</value></field></x></options>"},
        Subscription{"DepthTwo", R"({"node":"a","depth":2})",
                     "<subscribe node='a' jid='u1234@example.org'/><options>"
                     "<x xmlns='jabber:x:data' type='submit'><field var='FORM_TYPE' type='hidden'>"
                     "<value>http://jabber.org/protocol/pubsub#subscribe_options</value></field>"
                     "<field var='pubsub#subscription_depth'><value>2</value></field></x></options>"}),
    [](const auto& test) { return test.param.name; });

TEST_F(SubscribeToNode, AnswersWithTheSubscriptionsIdAndType) {
    const Answer reply = ask(subscribeToNode, R"({"node":"/a"})");
    answer(lastId(),
           "<pubsub xmlns='http://jabber.org/protocol/pubsub'><subscription node='/a' "
           "jid='u1234@example.org' subid='ba49252a' subscription='pending'/></pubsub>");
    expectAnswered(reply, R"({ "returnValue": true, "node": "\/a", "subid": "ba49252a", "type": )" +
                              std::to_string(gloox::PubSub::SubscriptionPending) + " }");
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(SubscribeToNode, PassesTheTypeOnUnchanged) {
    const Answer reply = ask(subscribeToNode, R"({"node":"a"})");
    session().handleSubscriptionResult(lastId(), gloox::JID(kService), "a", "", gloox::JID(kJid),
                                       gloox::PubSub::SubscriptionUnconfigured, nullptr);
    EXPECT_EQ(reply, R"({ "returnValue": true, "node": "a", "subid": "", "type": )" +
                         std::to_string(gloox::PubSub::SubscriptionUnconfigured) + " }");
}

TEST_F(SubscribeToNode, AnswersWithTheServersError) {
    const Answer reply = ask(subscribeToNode, R"({"node":"/a"})");
    answerError(lastId(), "cancel", "item-not-found");
    expectAnswered(
        reply,
        R"({ "returnValue": false, "node": "\/a", "errorCode": "cancel", "errorText": "item-not-found" })");
    EXPECT_EQ(takeLogLines(), errorLog("handleSubscriptionResult", "Node /a", kNotFound));
}

TEST_F(SubscribeToNode, SubscribesTheSessionsJidAsItIsHeld) {
    session().m_jid = gloox::JID(kFullJid);
    ask(subscribeToNode, R"({"node":"a"})");
    expectStanza(pubsubStanza("<subscribe node='a' jid='u1234@example.org/dev42'/>"));
}

TEST_F(SubscribeToNode, LogsTheFullNameOfTheServiceThatRefused) {
    const gloox::Error error(gloox::StanzaErrorTypeCancel, gloox::StanzaErrorItemNotFound);
    session().handleSubscriptionResult("unknown", gloox::JID("nodes@example.org/a"), "a", "", gloox::JID(),
                                       gloox::PubSub::SubscriptionNone, &error);
    EXPECT_EQ(takeLog().front(), "Node a error:  from nodes@example.org/a");
}

TEST_F(SubscribeToNode, LogsAnAnswerThatCannotBeSent) {
    const Answer reply = ask(subscribeToNode, R"({"node":"a"})");
    const std::string id = lastId();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    answer(id);
    EXPECT_EQ(takeLogLines(),
              Texts{"handleSubscriptionResult: Sending response to handleSubscriptionResult failed id " + id +
                    " Error no way "});
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_msgMap.empty());
}

TEST_F(SubscribeToNode, LogsAResultThatNobodyWaitsFor) {
    session().handleSubscriptionResult("unknown", gloox::JID(kService), "a", "", gloox::JID(),
                                       gloox::PubSub::SubscriptionSubscribed, nullptr);
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(),
              Texts{"handleSubscriptionResult: Sending response to handleSubscriptionResult failed "
                    "id unknown Error not a request "});
}

TEST_F(SubscribeToNode, ChangesNoRegistry) {
    ask(subscribeToNode, R"({"node":"a"})");
    answer(lastId());
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_TRUE(session().serviceNodeMap.empty());
    EXPECT_TRUE(session().m_offlineMap.empty());
    EXPECT_TRUE(session().m_activateMap.empty());
}

class SubscribeWhileConnecting : public ServiceTest {};

TEST_F(SubscribeWhileConnecting, SendsTheRequestOnceTheStreamIsUp) {
    setAccountDetails();
    ASSERT_TRUE(session().connectToService());
    ASSERT_FALSE(session().m_connected);
    const Answer reply = call(subscribeToNode, R"({"node":"a"})");
    EXPECT_TRUE(reply.waiting());
    EXPECT_EQ(session().m_msgMap.size(), 1u);

    const std::string id = session().m_msgMap.begin()->first;
    pump();
    ASSERT_TRUE(session().m_connected);
    answer(id);
    EXPECT_TRUE(reply.text().starts_with(R"({ "returnValue": true, "node": "a")")) << reply.text();
}
