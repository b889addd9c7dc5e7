// SPDX-License-Identifier: GPL-3.0-only
// Pending subscribers: listeners, requests to the server, and the owner's decision.
#include <utility>

#include "nodes/methods.h"
#include "tests/unit/nodes/refusal.h"
#include "tests/unit/nodes/requesttest.h"
#include "xmpp/manager.h"

namespace {

RefusalCase given(QSFilter handler, const char* name, Given state, const char* payload, std::string reply,
                  std::string log = "") {
    return {name, handler, state, payload, std::move(reply), std::move(log)};
}
RefusalCase listening(const char* name, const char* payload, const std::string& text, std::string log = "") {
    return given(subscribeNodeAuth, name, Given::Ready, payload, errorReply(kQuotedCode, text),
                 std::move(log));
}
RefusalCase approving(const char* name, const char* payload, const std::string& node) {
    return given(approvePending, name, Given::Ready, payload, nodeErrorReply(node, kQuotedCode, kQuotedText));
}

const std::string kNoService = errorReply("libErr", "Service not initialized");
const std::string kNoConnection = errorReply("connectionErr", "Not connected to xmpp server");
const std::string kMalformed = errorReply(kQuotedCode, "Malformed json");
const std::string kNoLibrary = errorReply("libErr", "gloox library is not initialized");
constexpr char kNoArray[] = "Malformed json - nodes takes an array of nodes ";
constexpr char kNoArrayLog[] = "subscribeNodeAuth: Error: nodes takes an array of nodes \n";
constexpr char kDone[] = R"({ "returnValue": true })";
constexpr char kReset[] =
    "handlePendingRequest: We had an handler for non existent node?, Resetting pending list";

constexpr char kAskAll[] =
    "<iq to='pubsub.example.org' id='ID' type='set'><command xmlns='http://jabber.org/protocol/commands' "
    "node='http://jabber.org/protocol/pubsub#get-pending' action='execute'/></iq>";

std::string askNode(const std::string& node, const std::string& commandSession) {
    return "<iq to='pubsub.example.org' id='ID' type='set'><command "
           "xmlns='http://jabber.org/protocol/commands' "
           "node='http://jabber.org/protocol/pubsub#get-pending' action='execute' sessionid='" +
           commandSession + "'><x xmlns='jabber:x:data' type='submit'><field var='pubsub#node'><value>" +
           node + "</value></field></x></command></iq>";
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    SubscribeNodeAuth, NodeRefusal,
    testing::Values(
        given(subscribeNodeAuth, "NoManager", Given::NoManager, "{", kNoService,
              "subscribeNodeAuth: PubSub manager not intialized"),
        given(subscribeNodeAuth, "NoService", Given::NoService, "{", kNoService,
              "subscribeNodeAuth: PubSub manager not intialized"),
        given(subscribeNodeAuth, "Disconnected", Given::Disconnected, "{", kNoConnection),
        given(subscribeNodeAuth, "NoJson", Given::Ready, "{", kMalformed,
              "subscribeNodeAuth: Malformed json packet? \n"),
        listening("ArrayPayload", "[]", "No subscribe provided"),
        listening("SubscribeMissing", R"({"nodes":["a"]})", "No subscribe provided"),
        listening("SubscribeNull", R"({"subscribe":null,"nodes":["a"]})", "No subscribe provided"),
        listening("SubscribeFalse", R"({"subscribe":false,"nodes":["a"]})", "Subscribe should be true"),
        listening("SubscribeBeforeNodes", R"({"subscribe":false,"nodes":"a"})", "Subscribe should be true"),
        listening("NodesMissing", R"({"subscribe":true})", kNoArray, kNoArrayLog),
        listening("NodesAsText", R"({"subscribe":true,"nodes":"a"})", kNoArray, kNoArrayLog),
        listening("NodesAsObject", R"({"subscribe":true,"nodes":{}})", kNoArray, kNoArrayLog),
        listening("NoNodes", R"({"subscribe":true,"nodes":[]})", "No nodes provided")),
    caseName);

INSTANTIATE_TEST_SUITE_P(
    GetPendingAuth, NodeRefusal,
    testing::Values(given(getPendingAuth, "NoManager", Given::NoManager, "{", kNoService,
                          "getPendingAuth: PubSub manager not intialized"),
                    given(getPendingAuth, "NoService", Given::NoService, "{", kNoService,
                          "getPendingAuth: PubSub manager not intialized"),
                    given(getPendingAuth, "Disconnected", Given::Disconnected, "{", kNoConnection),
                    given(getPendingAuth, "NoJson", Given::Ready, "", kMalformed,
                          "getPendingAuth: Malformed json packet? \n"),
                    given(getPendingAuth, "NoClient", Given::NoClient, "{}", kNoLibrary)),
    caseName);

INSTANTIATE_TEST_SUITE_P(
    ApprovePending, NodeRefusal,
    testing::Values(
        given(approvePending, "NoManager", Given::NoManager, "{",
              nodeErrorReply("", "libErr", "Service not initialized"),
              "approvePending: PubSub manager not intialized"),
        given(approvePending, "NoService", Given::NoService, "{",
              nodeErrorReply("", "libErr", "Service not initialized"),
              "approvePending: PubSub manager not intialized"),
        given(approvePending, "Disconnected", Given::Disconnected, "{",
              nodeErrorReply("", "connectionErr", "Not connected to xmpp server")),
        given(approvePending, "NoJson", Given::Ready, "{", nodeErrorReply("", kQuotedCode, "Malformed json"),
              "approvePending: Malformed json packet? \n"),
        approving("Nothing", "{}", ""),
        approving("NodeMissing", R"({"id":"i","subid":"s","approve":"true","subscriber_jid":"j@h"})", ""),
        approving("IdMissing", R"({"node":"n","subid":"s","approve":"true","subscriber_jid":"j@h"})", "n"),
        approving("SubidMissing", R"({"node":"n","id":"i","approve":"true","subscriber_jid":"j@h"})", "n"),
        approving("ApproveMissing", R"({"node":"n","id":"i","subid":"s","subscriber_jid":"j@h"})", "n"),
        approving("SubscriberMissing", R"({"node":"n","id":"i","subid":"s","approve":"true"})", "n"),
        approving("SubscriberEmpty",
                  R"({"node":"n","id":"i","subid":"s","approve":"true","subscriber_jid":""})", "n"),
        given(approvePending, "NoClient", Given::NoClient,
              R"({"node":"n","id":"i","subid":"s","approve":"true","subscriber_jid":"j@h"})",
              nodeErrorReply("n", "libErr", "gloox library is not initialized"))),
    caseName);

class PendingAuth : public RequestTest {
  protected:
    Answer listen(const std::string& nodes) {
        const Answer listener = call(subscribeNodeAuth, R"({"subscribe":true,"nodes":)" + nodes + "}");
        EXPECT_EQ(listener, kDone);
        return listener;
    }
    // The server's answer to the request for all pending nodes.
    void answerPending(const std::string& id, const std::string& commandSession, const Texts& nodes) {
        std::string options;
        for (const std::string& node : nodes)
            options += "<option><value>" + node + "</value></option>";
        answer(id, "<command xmlns='http://jabber.org/protocol/commands' sessionid='" + commandSession +
                       "' node='http://jabber.org/protocol/pubsub#get-pending' status='executing'>"
                       "<x xmlns='jabber:x:data' type='form'><field type='list-single' var='pubsub#node'>" +
                       options + "</field></x></command>");
    }
    // The events without the ping alarm, which is the first one of every result.
    Texts eventsAfterPing() {
        Texts events = takeEvents();
        EXPECT_FALSE(events.empty());
        if (!events.empty()) {
            EXPECT_EQ(events.front(), kPing);
            events.erase(events.begin());
        }
        return events;
    }
};

TEST_F(PendingAuth, ListensToEachNodeAndThenAsksForWhatIsPending) {
    const Answer listener = listen(R"(["/a","b"])");
    EXPECT_EQ(takeEvents(),
              (Texts{"bus.subscribe private handleAuth:/a", "bus.subscribe private handleAuth:b",
                     std::string("xmpp.send ") + kAskAll, std::string("bus.reply method ") + kDone}));
    EXPECT_EQ(session().m_msgMap.size(), 2u);
    EXPECT_EQ(session().m_msgMap.at("handleAuth:/a").get(), listener.message());
    EXPECT_EQ(session().m_msgMap.at("handleAuth:b").get(), listener.message());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(PendingAuth, TakesTheTextOfEachElementAsANode) {
    listen(R"(["\"a\"\\b",5,null])");
    EXPECT_TRUE(session().m_msgMap.contains("handleAuth:ab"));
    EXPECT_TRUE(session().m_msgMap.contains("handleAuth:5"));
    EXPECT_TRUE(session().m_msgMap.contains("handleAuth:null"));
}

TEST_F(PendingAuth, StaysOpenForFormsAfterItsReply) {
    const Answer listener = listen(R"(["a"])");
    BusError error;
    EXPECT_TRUE(QSSubscriptionRespond(serviceHandle(), "handleAuth:a", R"({"subid":"1"})", error));
    EXPECT_EQ(listener.all(), (Texts{kDone, R"({"subid":"1"})"}));
}

TEST_F(PendingAuth, GivesAnEarlierListenersReferenceBackWhenALaterOneComes) {
    const Answer first = listen(R"(["a"])");
    const int kept = first.message()->references;
    const Answer second = listen(R"(["a"])");
    EXPECT_EQ(first.message()->references, kept - 1);
    EXPECT_EQ(session().m_msgMap.at("handleAuth:a").get(), second.message());
}

class RefusedByTheBus : public PendingAuth {
  protected:
    // Requests "b", "c" and "d"; the bus accepts the first `taken` of them and refuses the next.
    Answer listenToThree(int taken) {
        fakeBus().failNext("QSSubscriptionAdd", -12, "too many subscriptions", 1, taken);
        const Answer refused = call(subscribeNodeAuth, R"({"subscribe":true,"nodes":["b","c","d"]})");
        EXPECT_EQ(refused.all(), Texts{kReply});
        EXPECT_EQ(takeLogLines(), (Texts{"subscribeNodeAuth: Adding pending auth subscription callback "
                                         "failed too many subscriptions\n",
                                         "HandleError: Sending return error " + kReply + " \n"}));
        return refused;
    }

    const std::string kReply = errorReply("quorbusErr", "too many subscriptions - QSAddSubscription- failed");
};

TEST_F(RefusedByTheBus, AListenerKeepsNothingOfItsFirstNode) {
    listen(R"(["a"])");
    takeEvents();
    const Answer refused = listenToThree(0);
    EXPECT_EQ(takeEvents(), Texts{"bus.reply method " + kReply});
    EXPECT_EQ(session().m_msgMap.size(), 1u);
    EXPECT_FALSE(refused.kept());
}

TEST_F(RefusedByTheBus, AListenerStopsAtItsSecondNodeAndKeepsListeningToTheFirst) {
    const Answer refused = listenToThree(1);
    EXPECT_EQ(takeEvents(), (Texts{"bus.subscribe private handleAuth:b", "bus.reply method " + kReply}));
    EXPECT_EQ(stanzaCount(), 0u) << "nothing is asked of the server";
    EXPECT_EQ(session().m_msgMap.size(), 1u);
    EXPECT_EQ(session().m_msgMap.at("handleAuth:b").get(), refused.message());

    BusError error;
    EXPECT_TRUE(QSSubscriptionRespond(serviceHandle(), "handleAuth:b", R"({"subid":"1"})", error));
    EXPECT_FALSE(QSSubscriptionRespond(serviceHandle(), "handleAuth:c", "{}", error));
    EXPECT_EQ(refused.all(), (Texts{kReply, R"({"subid":"1"})"}));
}

TEST_F(RefusedByTheBus, AListenerLeavesTheEarlierOneOfItsSecondNodeInPlace) {
    const Answer earlier = listen(R"(["c"])");
    takeLog();
    const Answer refused = listenToThree(1);
    EXPECT_EQ(session().m_msgMap.at("handleAuth:c").get(), earlier.message());
    EXPECT_EQ(session().m_msgMap.at("handleAuth:b").get(), refused.message());
}

TEST_F(PendingAuth, RefusesAListenerWhenTheServerCannotBeAskedButKeepsItListening) {
    session().m_pubsub->detach();
    const Answer listener = call(subscribeNodeAuth, R"({"subscribe":true,"nodes":["a"]})");
    EXPECT_EQ(listener, kNoLibrary);
    EXPECT_TRUE(session().m_msgMap.contains("handleAuth:a"));
}

TEST_F(PendingAuth, LogsAReplyThatCannotBeSentAndKeepsListening) {
    fakeBus().failNext("QSMessageReply", -5, "no way");
    call(subscribeNodeAuth, R"({"subscribe":true,"nodes":["a"]})");
    EXPECT_EQ(takeLogLines(), Texts{"subscribeNodeAuth: Sending reply to client failed -5 no way"});
    EXPECT_TRUE(session().m_msgMap.contains("handleAuth:a"));
}

TEST_F(PendingAuth, AsksAgainAtAnOwnersRequestAndAnswersAtOnce) {
    const Answer owner = call(getPendingAuth, "{}");
    EXPECT_EQ(takeEvents(),
              (Texts{std::string("xmpp.send ") + kAskAll, std::string("bus.reply method ") + kDone}));
    EXPECT_EQ(owner, kDone);
    EXPECT_FALSE(owner.kept());
    EXPECT_TRUE(session().m_msgMap.empty());
}

TEST_F(PendingAuth, TakesAnyJsonAsAnOwnersRequest) {
    EXPECT_EQ(call(getPendingAuth, "[]"), kDone);
    fakeBus().failNext("QSMessageReply", -5, "no way");
    call(getPendingAuth, "5");
    EXPECT_EQ(takeLogLines(), Texts{"getPendingAuth: Sending reply to client failed -5 no way"});
}

TEST_F(PendingAuth, SendsTheOwnersDecisionUnderTheIdOfTheForm) {
    const Answer owner = call(approvePending, R"({"node":"/n","id":"form-1","subid":"s1","approve":"true",)"
                                              R"("subscriber_jid":"friend@example.net"})");
    EXPECT_EQ(
        takeEvents(),
        (Texts{"xmpp.send <message to='pubsub.example.org' id='ID'><x xmlns='jabber:x:data' type='submit'>"
               "<field var='FORM_TYPE' type='hidden'>"
               "<value>http://jabber.org/protocol/pubsub#subscribe_authorization</value></field>"
               "<field var='pubsub#subid'><value>s1</value></field>"
               "<field var='pubsub#node'><value>/n</value></field>"
               "<field var='pubsub#subscriber_jid'><value>friend@example.net</value></field>"
               "<field var='pubsub#allow'><value>true</value></field></x></message>",
               std::string("bus.reply method ") + kDone}));
    EXPECT_EQ(lastId(), "form-1");
    EXPECT_FALSE(owner.kept());
}

TEST_F(PendingAuth, TakesABooleanDecisionAsItsText) {
    EXPECT_EQ(
        call(approvePending,
             R"({"node":"/n","id":"i","subid":"s","approve":false,"subscriber_jid":"friend@example.net"})"),
        kDone);
    EXPECT_NE(lastStanza().xml().find("<field var='pubsub#allow'><value>false</value></field>"),
              std::string::npos);
}

TEST_F(PendingAuth, LogsAReplyToADecisionThatCannotBeSent) {
    fakeBus().failNext("QSMessageReply", -5, "no way");
    call(approvePending, R"({"node":"/n","id":"i","subid":"s","approve":"true","subscriber_jid":"j@h"})");
    EXPECT_EQ(takeLogLines(), Texts{"approvePending: Sending reply to client failed -5 no way"});
}

TEST_F(PendingAuth, AsksForTheFormsOfEachNodeThatHasAListener) {
    listen(R"(["a","b"])");
    takeEvents();
    answerPending(lastId(), "S1", {"b", "a"});
    EXPECT_EQ(eventsAfterPing(),
              (Texts{"xmpp.send " + askNode("b", "S1"), "xmpp.send " + askNode("a", "S1")}));
    EXPECT_TRUE(session().m_pendingList.empty());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(PendingAuth, AsksOnceForANodeThatIsListedTwice) {
    listen(R"(["a"])");
    takeEvents();
    const gloox::StringList nodes{"a", "a"};
    session().handlePendingRequest("id1", "S1", &nodes, nullptr);
    EXPECT_EQ(eventsAfterPing(), Texts{"xmpp.send " + askNode("a", "S1")});
}

TEST_F(PendingAuth, AsksForNothingWhenNothingIsPending) {
    listen(R"(["a"])");
    takeEvents();
    answerPending(lastId(), "S1", {});
    EXPECT_EQ(eventsAfterPing(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(PendingAuth, RenewsTheListOnceForANodeWithoutAListener) {
    listen(R"(["*"])");
    takeEvents();
    answerPending(lastId(), "S1", {"a"});
    EXPECT_EQ(eventsAfterPing(), Texts{std::string("xmpp.send ") + kAskAll});
    EXPECT_EQ(takeLogLines(), Texts{kReset});

    answerPending(lastId(), "S2", {"a"});
    EXPECT_EQ(eventsAfterPing(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(stanzaCount(), 2u);
}

TEST_F(PendingAuth, AsksForListenedNodesAlsoInTheAnswerThatRenewsNoMore) {
    listen(R"(["a"])");
    answerPending(lastId(), "S1", {"other"});
    takeEvents();
    answerPending(lastId(), "S2", {"other", "a"});
    EXPECT_EQ(eventsAfterPing(), Texts{"xmpp.send " + askNode("a", "S2")});
}

TEST_F(PendingAuth, AsksForTheListenedNodesBeforeItRenewsForTheRest) {
    listen(R"(["a"])");
    takeEvents();
    answerPending(lastId(), "S1", {"other", "a"});
    EXPECT_EQ(eventsAfterPing(),
              (Texts{"xmpp.send " + askNode("a", "S1"), std::string("xmpp.send ") + kAskAll}));
    EXPECT_EQ(session().m_pendingList, std::list<std::string>{"other"});
}

TEST_F(PendingAuth, DropsTheNodesOfAnEarlierAnswer) {
    call(getPendingAuth, "{}");
    answerPending(lastId(), "S1", {"a"});
    answerPending(lastId(), "S2", {"b"});
    EXPECT_EQ(session().m_pendingList, std::list<std::string>{"b"});
    listen(R"(["b"])");
    takeEvents();
    answerPending(lastId(), "S3", {});
    EXPECT_EQ(eventsAfterPing(), Texts{}) << "nothing is pending any more";
    EXPECT_TRUE(session().m_pendingList.empty());
}

TEST_F(PendingAuth, RenewsAgainAfterANewRequest) {
    call(getPendingAuth, "{}");
    answerPending(lastId(), "S1", {"a"});
    answerPending(lastId(), "S2", {"a"});
    EXPECT_EQ(stanzaCount(), 2u);
    call(getPendingAuth, "{}");
    answerPending(lastId(), "S3", {"a"});
    EXPECT_EQ(stanzaCount(), 4u);
    answerPending(lastId(), "S4", {"a"});
    EXPECT_EQ(stanzaCount(), 4u);
    listen(R"(["b"])");
    answerPending(lastId(), "S5", {"a"});
    EXPECT_EQ(stanzaCount(), 6u);
}

TEST_F(PendingAuth, HasNoListenerForAServersError) {
    call(getPendingAuth, "{}");
    takeEvents();
    const std::string id = lastId();
    answerError(id, "auth", "forbidden");
    EXPECT_EQ(eventsAfterPing(), Texts{});
    EXPECT_EQ(takeLogLines(),
              (Texts{"printerror: ERR in func handlePendingRequest: <error type='auth'>"
                     "<forbidden xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>",
                     "handlePendingRequest: Sending response to handlePendingRequest failed id " + id +
                         " Error not a request "}));
}

TEST_F(PendingAuth, SendsAServersErrorToTheListenerOfThatName) {
    const Answer listener = listen(R"(["a"])");
    const gloox::Error error(gloox::StanzaErrorTypeAuth, gloox::StanzaErrorForbidden);
    takeEvents();
    session().handlePendingRequest("id1", "a", nullptr, &error);
    EXPECT_EQ(
        eventsAfterPing(),
        Texts{
            R"(bus.respond method { "returnValue": false, "errorCode": "auth", "errorText": "forbidden" })"});
    EXPECT_TRUE(session().m_msgMap.contains("handleAuth:a"));
    EXPECT_TRUE(listener.kept());
}

TEST_F(PendingAuth, ReportsAnAnswerWithoutAListToTheListener) {
    listen(R"(["a"])");
    takeEvents();
    session().handlePendingRequest("id1", "a", nullptr, nullptr);
    EXPECT_EQ(eventsAfterPing(), Texts{R"(bus.respond method { "returnValue": false, "errorCode": "libErr", )"
                                       R"("errorText": "Error parsing response from server" })"});
}

TEST_F(PendingAuth, LogsAnAnswerWithoutAListOrWithoutASessionThatNobodyListensTo) {
    call(getPendingAuth, "{}");
    const std::string id = lastId();
    answer(id);
    const std::string failed = "handlePendingRequest: Sending response to handlePendingRequest failed id ";
    EXPECT_EQ(takeLogLines(), Texts{failed + id + " Error not a request "});
    const gloox::StringList nodes{"a"};
    session().handlePendingRequest("id1", "", &nodes, nullptr);
    EXPECT_EQ(takeLogLines(), Texts{failed + "id1 Error not a request "});
    EXPECT_EQ(stanzaCount(), 1u);
}

TEST_F(PendingAuth, StillRequestsTheNodeOfAListenerWhoseClientHasGone) {
    const Answer listener = listen(R"(["a"])");
    fakeBus().clientDies(listener.message());
    call(getPendingAuth, "{}");
    takeEvents();
    answerPending(lastId(), "S1", {"a"});
    EXPECT_EQ(eventsAfterPing(), Texts{"xmpp.send " + askNode("a", "S1")});
    EXPECT_EQ(takeLogLines(), Texts{});
    BusError error;
    EXPECT_FALSE(QSSubscriptionRespond(serviceHandle(), "handleAuth:a", "{}", error));
    EXPECT_EQ(listener.all(), Texts{kDone});
}

TEST_F(PendingAuth, HandsTheNodeOfADeadListenerToTheNextOne) {
    const Answer dead = listen(R"(["a"])");
    fakeBus().clientDies(dead.message());
    const Answer next = listen(R"(["a"])");
    EXPECT_FALSE(dead.kept());
    EXPECT_EQ(session().m_msgMap.at("handleAuth:a").get(), next.message());
    BusError error;
    EXPECT_TRUE(QSSubscriptionRespond(serviceHandle(), "handleAuth:a", R"({"subid":"1"})", error));
    EXPECT_EQ(next.all(), (Texts{kDone, R"({"subid":"1"})"}));
}

TEST_F(PendingAuth, TakesTheResultForOneNodeInSilence) {
    session().handlePendingNodeRequest("id1", gloox::JID(kService), "a", nullptr);
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(PendingAuth, LogsAnErrorForOneNodeAndRepliesNothing) {
    listen(R"(["/a"])");
    answerPending(lastId(), "S1", {"/a"});
    takeEvents();
    answerError(lastId(), "cancel", "item-not-found");
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(
        takeLogLines(),
        (Texts{
            "handlePendingNodeRequest: Error in handlePendingNodeRequest /a error:  from pubsub.example.org",
            "printerror: ERR in func handlePendingNodeRequest: " + kNotFound}));
}
