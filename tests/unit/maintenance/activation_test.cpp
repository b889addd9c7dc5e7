// SPDX-License-Identifier: GPL-3.0-only
// Node activation: when a request is sent, the effects of its result, and who gets it.
#include <gloox/error.h>

#include <utility>

#include "maintenance/methods.h"
#include "tests/fakes/servicefixture.h"
#include "xmpp/manager.h"

namespace {

const std::string kNode = "/u1234/dev42/com.example.app/inbox";
const std::string kShown = R"(\/u1234\/dev42\/com.example.app\/inbox)";
const std::string kPing =
    R"(bus.call zelt://com.zelt.power/timeout/set {"key":"keepAliveTimer", )"
    R"("uri":"quor://com.zelt.pubsubservice/keepAliveTimer", "in":"00:25:00", "wakeup":true, "params":"{}"})";
const std::string kNotAllowed =
    "<error type='auth'><forbidden xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>";

std::string activateStanza(const std::string& node, const std::string& seqNo) {
    return "<iq to='pubsub.example.org' id='ID' type='set'><activate xmlns='urn:zelt:pubsub:device:0' "
           "node='" +
           node + "' seqNo='" + seqNo + "'/></iq>";
}

std::string deactivateStanza(const std::string& node) {
    return "<iq to='pubsub.example.org' id='ID' type='set'><deactivate xmlns='urn:zelt:pubsub:device:0' "
           "node='" +
           node + "'/></iq>";
}

std::string success(const std::string& endpoint = kShown) {
    return R"({ "returnValue": true, "endpoint": ")" + endpoint + R"(" })";
}

std::string refusal(const std::string& endpoint, const std::string& code, const std::string& text) {
    return R"({ "endpoint": ")" + endpoint + R"(", "returnValue": false, "errorCode": ")" + code +
           R"(", "errorText": ")" + text + R"(" })";
}

}  // namespace

class Activation : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        connectSession();
    }
    // {result, request id afterwards}
    std::pair<bool, std::string> activate(const std::string& node = kNode) {
        std::string id = "before";
        const bool result = session().activateNode(node, id);
        return {result, id};
    }
    Answer ask(const std::string& payload) { return callPrivate(activateNode, "activateNode", payload); }
    Answer askForNode() { return ask(R"({"node":")" + kNode + R"("})"); }
    void registerService() {
        bool present = false;
        session().addNodeToMap(kNode, "zelt://com.example.one/item", false, present);
    }
    // A public request for the node that waits under `id`.
    FakeMessage* waitUnder(const std::string& id, const std::string& method = "subscribe") {
        FakeMessage* message = fakeBus().request(publicHandle(), method, "{}", "com.example.app 1");
        session().setEndpointMap(id, message, "inbox", kNode, "com.example.app");
        QSMessageUnref(message);
        return message;
    }
    void disconnectSession() {
        fakeServer().closesWith(gloox::ConnStreamError);
        pump();
        ASSERT_FALSE(session().m_connected);
    }
};

// --- the session's own activation

TEST_F(Activation, IsNotAskedForANodeThatServicesTake) {
    registerService();
    EXPECT_EQ(activate(), std::pair(true, std::string("before")));
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(Activation, LooksForServicesBeforeItLooksForTheMark) {
    registerService();
    session().activated(kNode, true);
    EXPECT_EQ(activate(), std::pair(true, std::string("before")));
}

TEST_F(Activation, TakesNoNoticeOfApplicationHandlers) {
    bool present = false;
    session().addNodeToMap(kNode, "x", true, present);
    EXPECT_TRUE(activate().first);
    EXPECT_EQ(stanzaCount(), 1u);
}

TEST_F(Activation, IsNotAskedTwiceForAnActiveNode) {
    session().activated(kNode, true);
    EXPECT_EQ(activate(), std::pair(false, std::string()));
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(Activation, CarriesTheNumberOfTheLastItem) {
    session().persistSeqNo(kNode, "42");
    const auto [result, id] = activate();
    EXPECT_TRUE(result);
    EXPECT_EQ(expectStanza(activateStanza(kNode, "42")), id);
    EXPECT_FALSE(session().m_activateMap.contains(kNode));
}

TEST_F(Activation, StartsFromZeroForANodeWithoutItems) {
    activate();
    expectStanza(activateStanza(kNode, "0"));
}

TEST_F(Activation, IsAskedAgainForANodeThatIsMarkedInUse) {
    session().activated(kNode, true);
    session().activated(kNode, false);
    EXPECT_TRUE(activate().first);
    EXPECT_EQ(stanzaCount(), 1u);
}

TEST_F(Activation, HasNoIdWithoutAClientOrAManager) {
    session().dropClient();
    EXPECT_EQ(activate(), std::pair(true, std::string()));
    delete std::exchange(session().m_pubsub, nullptr);
    EXPECT_EQ(activate(), std::pair(true, std::string()));
}

TEST_F(Activation, MarksAreSetReplacedAndErased) {
    session().activated("a", false);
    session().activated("a", true);
    EXPECT_EQ(session().m_activateMap, (std::map<std::string, bool>{{"a", true}}));
    session().removeActivateMap("b");
    session().removeActivateMap("a");
    EXPECT_TRUE(session().m_activateMap.empty());
}

// --- results

TEST_F(Activation, SuccessMarksTheNodeAndAnswersTheRequest) {
    FakeMessage* message = waitUnder("id-1");
    session().handleActivateNode("id-1", gloox::JID(kService), kNode, nullptr);
    EXPECT_EQ(takeEvents(), (Texts{kPing, "bus.respond subscribe " + success("inbox")}));
    EXPECT_TRUE(session().m_activateMap.at(kNode));
    EXPECT_FALSE(message->kept());
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Activation, SuccessWithoutARequestMarksTheNode) {
    session().handleActivateNode("id-1", gloox::JID(kService), kNode, nullptr);
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_TRUE(session().m_activateMap.at(kNode));
}

TEST_F(Activation, ErrorDropsMarkAndSubscriberAndAnswersWithItsText) {
    FakeMessage* subscriber = fakeBus().request(publicHandle(), "subscribe", "{}", "com.example.app 1");
    ASSERT_TRUE(QSSubscriptionAdd(publicHandle(), kNode.c_str(), subscriber, nullptr));
    session().setSubMap(kNode, "com.example.app", publicHandle());
    const auto [asked, id] = activate();
    session().setEndpointMap(id, subscriber, "inbox", kNode, "com.example.app");
    QSMessageUnref(subscriber);
    session().activated(kNode, false);
    takeEvents();
    answerError(id, "auth", "forbidden");
    EXPECT_EQ(
        takeEvents(),
        (Texts{
            kPing, "bus.unsubscribe public " + kNode,
            R"(bus.respond subscribe { "returnValue": false, "endpoint": "inbox", "errorCode": "xmppErr", )"
            R"("errorText": "forbidden" })"}));
    EXPECT_EQ(takeLogLines(),
              (Texts{"printerror: ERR in func handleActivateNode: " + kNotAllowed,
                     "handleActivateNode: Endpoint inbox Sub error:  from pubsub.example.org"}));
    EXPECT_TRUE(session().m_activateMap.empty());
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_FALSE(subscriber->kept());
}

TEST_F(Activation, ErrorWithoutARequestDropsMarkAndSubscriberSilently) {
    session().setSubMap(kNode, "com.example.app", nullptr);
    const auto [asked, id] = activate();
    session().activated(kNode, false);
    takeEvents();
    answerError(id, "auth", "forbidden");
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(), Texts{"printerror: ERR in func handleActivateNode: " + kNotAllowed});
    EXPECT_TRUE(session().m_activateMap.empty());
    EXPECT_TRUE(session().subMap.empty());
}

TEST_F(Activation, AnswerThatCannotBeSentIsLoggedAndNothingIsKept) {
    FakeMessage* message = waitUnder("id-1");
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    session().handleActivateNode("id-1", gloox::JID(kService), kNode, nullptr);
    EXPECT_EQ(takeLogLines(),
              Texts{"handleActivateNode: Sending response to handleActivateNode failed id id-1 "
                    "Error no way "});
    EXPECT_FALSE(message->kept());
}

TEST_F(Activation, DeactivationDropsMarkAndSubscriberAndAnswers) {
    session().activated(kNode, true);
    session().setSubMap(kNode, "com.example.app", nullptr);
    FakeMessage* message = waitUnder("id-1", "unsubscribe");
    session().handleDeActivateNode("id-1", gloox::JID(kService), kNode, nullptr);
    EXPECT_EQ(takeEvents(), (Texts{kPing, "bus.respond unsubscribe " + success("inbox")}));
    EXPECT_TRUE(session().m_activateMap.empty());
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_FALSE(message->kept());
}

TEST_F(Activation, DeactivationThatTheServerRefusesLeavesMarkAndSubscriber) {
    session().activated(kNode, true);
    session().setSubMap(kNode, "com.example.app", nullptr);
    const std::string id = session().m_pubsub->deActivateNode(gloox::JID(kService), kNode, &session());
    EXPECT_EQ(expectStanza(deactivateStanza(kNode)), id);
    FakeMessage* message = waitUnder(id, "unsubscribe");
    takeEvents();
    answerError(id, "auth", "forbidden");
    EXPECT_EQ(takeEvents(),
              (Texts{kPing, R"(bus.respond unsubscribe { "returnValue": false, "endpoint": "inbox", )"
                            R"("errorCode": "xmppErr", "errorText": "forbidden" })"}));
    EXPECT_EQ(takeLogLines(),
              (Texts{"printerror: ERR in func handleDeActivateNode: " + kNotAllowed,
                     "handleDeActivateNode: Endpoint inbox Unsub error:  from pubsub.example.org"}));
    EXPECT_TRUE(session().m_activateMap.at(kNode));
    EXPECT_TRUE(session().subMap.contains(kNode));
    EXPECT_FALSE(message->kept());
}

TEST_F(Activation, DeactivationWithoutARequestChangesTheMapsAlone) {
    session().activated(kNode, true);
    session().setSubMap(kNode, "com.example.app", nullptr);
    session().handleDeActivateNode("id-1", gloox::JID(kService), kNode, nullptr);
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_TRUE(session().m_activateMap.empty());
    EXPECT_TRUE(session().subMap.empty());
}

TEST_F(Activation, DeactivationAnswerThatCannotBeSentIsLogged) {
    waitUnder("id-1", "unsubscribe");
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    session().handleDeActivateNode("id-1", gloox::JID(kService), kNode, nullptr);
    EXPECT_EQ(takeLogLines(),
              Texts{"handleDeActivateNode: Sending response to handleDeActivateNode failed id id-1 "
                    "Error no way "});
}

// --- bulk activation

TEST_F(Activation, BulkListsSubscribersThenOfflineEntriesAndBothTwice) {
    session().setSubMap("/b", "app", nullptr);
    session().setSubMap("/a", "app", nullptr);
    session().m_offlineMap = {{"/c", "app"}, {"/a", "app"}};
    session().activateNodes();
    expectStanza(
        "<iq to='pubsub.example.org' id='ID' type='set'><activate-nodes xmlns='urn:zelt:pubsub:device:0'>"
        "<node id='/a'/><node id='/b'/><node id='/a'/><node id='/c'/></activate-nodes></iq>");
    EXPECT_TRUE(session().m_activateMap.empty());
}

TEST_F(Activation, BulkIsSentAlsoWhenItIsEmpty) {
    session().activateNodes();
    expectStanza(
        "<iq to='pubsub.example.org' id='ID' type='set'><activate-nodes "
        "xmlns='urn:zelt:pubsub:device:0'/></iq>");
}

TEST_F(Activation, BulkWithoutAManagerDoesNothing) {
    session().dropClient();
    delete std::exchange(session().m_pubsub, nullptr);
    session().activateNodes();
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(Activation, BulkResultIsOnlyLogged) {
    session().activateNodes();
    const std::string id = lastId();
    takeEvents();
    answerError(id, "auth", "forbidden");
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_TRUE(log().contains("ERR in func handleBulkActivate: " + kNotAllowed));
    takeLog();
    session().activateNodes();
    answer(lastId());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Activation, SystemNodesResultIsOnlyLogged) {
    session().handleActivateSysNodes("id", gloox::JID(kService), nullptr);
    EXPECT_EQ(takeLogLines(), Texts{});
    const gloox::Error forbidden(gloox::StanzaErrorTypeAuth, gloox::StanzaErrorForbidden);
    session().handleActivateSysNodes("id", gloox::JID(kService), &forbidden);
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{"printerror: ERR in func handleActivateSysNodes: " + kNotAllowed});
}

// --- the bus method

TEST_F(Activation, MethodWaitsForTheServerAndAnswersWithTheNode) {
    const Answer reply = askForNode();
    EXPECT_TRUE(reply.waiting());
    const std::string id = expectStanza(activateStanza(kNode, "0"));
    const _endpointStruct& request = session().m_endpointMap.at(id);
    EXPECT_EQ(request.endpoint, kNode);
    EXPECT_EQ(request.node, kNode);
    EXPECT_EQ(request.appId, "");
    takeEvents();
    answer(id);
    EXPECT_EQ(takeEvents(), (Texts{kPing, "bus.respond activateNode " + success()}));
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_activateMap.at(kNode));
}

TEST_F(Activation, MethodReportsTheServersRefusalAndTheSubscriberGoes) {
    session().setSubMap(kNode, "com.example.app", nullptr);
    const Answer reply = askForNode();
    takeEvents();
    answerError(lastId(), "auth", "forbidden");
    EXPECT_EQ(takeEvents(),
              (Texts{kPing, R"(bus.respond activateNode { "returnValue": false, "endpoint": ")" + kShown +
                                R"(", "errorCode": "xmppErr", "errorText": "forbidden" })"}));
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().subMap.empty());
}

TEST_F(Activation, MethodAnswersLibErrAtOnceForANodeThatServicesTake) {
    registerService();
    const Answer reply = askForNode();
    EXPECT_EQ(reply, refusal(kShown, "libErr", "pubsubservice library is not initialized"));
    EXPECT_FALSE(reply.kept());
    EXPECT_EQ(stanzaCount(), 0u);
    EXPECT_EQ(takeLog()[0],
              R"(Error pubsubservice library is not initialized, Incoming {"node":")" + kNode + R"("})");
}

TEST_F(Activation, MethodForAnActiveNodeIsAnsweredByTheNextDisconnect) {
    askForNode();
    answer(lastId());
    const std::size_t before = stanzaCount();
    const Answer second = askForNode();
    EXPECT_EQ(stanzaCount(), before);
    EXPECT_TRUE(second.waiting());
    EXPECT_TRUE(session().m_endpointMap.contains(""));
    disconnectSession();
    EXPECT_EQ(second, R"({ "returnValue": false, "endpoint": ")" + kShown +
                          R"(", "errorCode": "connectionErr", "errorText": "pubsubservice disconnected" })");
    EXPECT_FALSE(second.kept());
}

TEST_F(Activation, MethodForAnActiveNodeIsReplacedByTheNext) {
    session().activated(kNode, true);
    const Answer first = askForNode();
    const Answer second = askForNode();
    EXPECT_FALSE(first.kept());
    EXPECT_TRUE(first.closedUnanswered());
    EXPECT_TRUE(second.waiting());
}

TEST_F(Activation, GoesToTheServerAgainAfterAReconnect) {
    askForNode();
    answer(lastId());
    disconnectSession();
    EXPECT_TRUE(session().m_activateMap.empty());
    connectSession();
    askForNode();
    expectStanza(activateStanza(kNode, "0"));
}

TEST_F(Activation, MethodRefusesANameThatXmlCannotCarry) {
    const Answer reply = ask(R"({"node":"a\u0001"})");
    EXPECT_EQ(reply, refusal(R"(a\u0001)", "libErr", "pubsubservice library is not initialized"));
    EXPECT_TRUE(session().m_endpointMap.empty());
}

struct Refused {
    const char* name;
    const char* payload;
    const char* text;
};

class ActivationRefusal : public Activation, public testing::WithParamInterface<Refused> {};

TEST_P(ActivationRefusal, NamesTheReasonAndTheRequest) {
    const Answer reply = ask(GetParam().payload);
    EXPECT_EQ(reply, refusal("", "parameterErr", GetParam().text));
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_EQ(stanzaCount(), 0u);
    EXPECT_TRUE(log().contains("Error " + std::string(GetParam().text) + ", Incoming " + GetParam().payload));
}

INSTANTIATE_TEST_SUITE_P(Payloads, ActivationRefusal,
                         testing::Values(Refused{"NoJson", "{", "Malformed json"},
                                         Refused{"Null", "null", "Malformed json"},
                                         Refused{"Array", "[]", "No node provided"},
                                         Refused{"Number", "5", "No node provided"},
                                         Refused{"Missing", "{}", "No node provided"},
                                         Refused{"NullNode", R"({"node":null})", "No node provided"},
                                         Refused{"Empty", R"({"node":""})", "Empty node provided"}),
                         [](const auto& refused) { return refused.param.name; });

TEST_F(Activation, MethodNeedsAConnectionThenAManager) {
    disconnectSession();
    EXPECT_EQ(ask("{"), refusal("", "connectionErr", "Not connected to xmpp server"));
    session().m_connected = true;
    delete std::exchange(session().m_pubsub, nullptr);
    EXPECT_EQ(ask("{"), refusal("", "libErr", "Service not initialized"));
    session().m_connected = false;
}
