// SPDX-License-Identifier: GPL-3.0-only
// unsubscribeFromNode: its refusals in their order, its stanza, and the server's answer.
#include <gloox/error.h>

#include <utility>

#include "delivery/methods.h"
#include "tests/unit/nodes/refusal.h"
#include "tests/unit/nodes/requesttest.h"

namespace {

constexpr char kRequest[] = R"({"node":"/a","jid":"friend@example.net","subid":"s1"})";

RefusalCase given(const char* name, Given state, const char* payload, std::string reply,
                  std::string log = "") {
    return {name, unsubscribeFromNode, state, payload, std::move(reply), std::move(log)};
}
RefusalCase badArgument(const char* name, const char* payload, const std::string& node) {
    return given(name, Given::Ready, payload, nodeErrorReply(node, "errBadArgument", "Bad Argument"));
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    UnsubscribeFromNode, NodeRefusal,
    testing::Values(given("NoManager", Given::NoManager, "{",
                          nodeErrorReply("", "libErr", "Service not initialized"),
                          "unsubscribeFromNode: PubSub manager not intialized"),
                    given("Disconnected", Given::Disconnected, "{",
                          nodeErrorReply("", "connectionErr", "Not connected to xmpp server")),
                    given("NoJson", Given::Ready, "{", nodeErrorReply("", "errBadArgument", "Malformed json"),
                          "unsubscribeFromNode: Malformed json packet? \n"),
                    badArgument("ArrayPayload", "[]", ""), badArgument("Nothing", "{}", ""),
                    badArgument("NodeMissing", R"({"jid":"friend@example.net","subid":"s1"})", ""),
                    badArgument("JidMissing", R"({"node":"a","subid":"s1"})", "a"),
                    badArgument("JidEmpty", R"({"node":"a","jid":"","subid":"s1"})", "a"),
                    badArgument("JidThatIsNone", R"({"node":"a","jid":"@h","subid":"s1"})", "a"),
                    badArgument("SubidMissing", R"({"node":"a","jid":"friend@example.net"})", "a"),
                    given("NoService", Given::NoService, kRequest,
                          nodeErrorReply(R"(\/a)", "libErr", "gloox library is not initialized")),
                    given("NoClient", Given::NoClient, kRequest,
                          nodeErrorReply(R"(\/a)", "libErr", "gloox library is not initialized"))),
    caseName);

class UnsubscribeFromNode : public RequestTest {};

TEST_F(UnsubscribeFromNode, ReachesTheServer) {
    ask(unsubscribeFromNode, kRequest);
    expectStanza(pubsubStanza("<unsubscribe node='/a' jid='friend@example.net' subid='s1'/>"));
}

TEST_F(UnsubscribeFromNode, AnswersWithTheNode) {
    const Answer reply = ask(unsubscribeFromNode, kRequest);
    answer(lastId());
    expectAnswered(reply, R"({ "returnValue": true, "node": "\/a" })");
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(UnsubscribeFromNode, AnswersWithTheServersErrorAndTheNode) {
    const Answer reply = ask(unsubscribeFromNode, kRequest);
    answerError(lastId(), "cancel", "unexpected-request", "not-subscribed");
    expectAnswered(reply, R"({ "returnValue": false, "node": "\/a", "errorCode": "cancel", )"
                          R"("errorText": "unexpected-request not-subscribed" })");
    EXPECT_EQ(
        takeLogLines(),
        errorLog("handleUnsubscriptionResult", "Unsubscribe /a",
                 "<error type='cancel'><unexpected-request xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/>"
                 "<not-subscribed xmlns='http://jabber.org/protocol/pubsub#errors'/></error>"));
}

TEST_F(UnsubscribeFromNode, LogsTheFullNameOfTheServiceThatRefused) {
    const gloox::Error error(gloox::StanzaErrorTypeCancel, gloox::StanzaErrorItemNotFound);
    session().handleUnsubscriptionResult("unknown", gloox::JID("nodes@example.org/a"), "a", "", gloox::JID(),
                                         &error);
    EXPECT_EQ(takeLog().front(), "Unsubscribe a error:  from nodes@example.org/a");
}

TEST_F(UnsubscribeFromNode, LogsAnAnswerThatCannotBeSentAsOneToADeletion) {
    const Answer reply = ask(unsubscribeFromNode, kRequest);
    const std::string id = lastId();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    answer(id);
    EXPECT_EQ(takeLogLines(), Texts{"handleUnsubscriptionResult: Sending response to delete Node failed id " +
                                    id + " Error no way "});
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_msgMap.empty());
}

TEST_F(UnsubscribeFromNode, LogsAResultThatNobodyWaitsFor) {
    session().handleUnsubscriptionResult("unknown", gloox::JID(kService), "a", "", gloox::JID(), nullptr);
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(),
              Texts{"handleUnsubscriptionResult: Sending response to delete Node failed id unknown "
                    "Error not a request "});
}
