// SPDX-License-Identifier: GPL-3.0-only
// Endpoints and their publish keys: the stanzas, the answers, and the state after creating and deleting.
#include <gloox/error.h>

#include "tests/unit/endpoints/endpointtest.h"

namespace {

const std::string kStore = "com.zelt.pubsubservice";

std::string keyResult(const std::string& key, const std::string& attributes = "") {
    return "<key xmlns='urn:zelt:pubsub:device:0' node='" + kNode + "'" + attributes + ">" + key + "</key>";
}

std::string createStanza(const std::string& title, const std::string& access) {
    const auto field = [](const std::string& name, const std::string& value) {
        return "<field var='pubsub#" + name + "'><value>" + value + "</value></field>";
    };
    return deviceIq("set",
                    "<create-key-node xmlns='urn:zelt:pubsub:device:0' node='" + kNode +
                        "'><x xmlns='jabber:x:data' type='submit'><field var='FORM_TYPE' type='hidden'>"
                        "<value>http://jabber.org/protocol/pubsub#node_config</value></field>" +
                        field("node_type", "leaf") + (title.empty() ? "" : field("title", title)) +
                        field("access_model", access) + "</x></create-key-node>");
}

std::string getKeyStanza() {
    return deviceIq("get", "<key xmlns='urn:zelt:pubsub:device:0' node='" + kNode + "'/>");
}

}  // namespace

class PublishKeys : public EndpointTest {
  protected:
    Answer create(const std::string& payload = kInbox) {
        return ask(createEndpoint, "createEndpoint", payload);
    }
    Answer remove() { return ask(deleteEndpoint, "deleteEndpoint"); }
    Answer getKey() { return ask(getPublishKey, "getPublishKey"); }
    bool lastHas(const std::string& text) { return lastStanza().xml().find(text) != std::string::npos; }
};

// --- the map of waiting requests

TEST_F(PublishKeys, MapKeepsTheRequestUntilItIsTakenOut) {
    FakeMessage* message = fakeBus().request(publicHandle(), "x", "{}", "com.example.app 1");
    session().setEndpointMap("id", message, "inbox", kNode, "com.example.app");
    QSMessageUnref(message);
    const _endpointStruct& entry = session().m_endpointMap.at("id");
    EXPECT_EQ(entry.endpoint, "inbox");
    EXPECT_EQ(entry.appId, "com.example.app");
    EXPECT_EQ(entry.node, kNode);
    EXPECT_EQ(entry.message.get(), message);
    EXPECT_TRUE(message->kept());
    session().removeFromEndointMap("id");
    EXPECT_FALSE(message->kept());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(PublishKeys, MapLogsAnIdThatItDoesNotHold) {
    session().removeFromEndointMap("id");
    EXPECT_EQ(takeLogLines(), Texts{"removeFromEndointMap: Did not find id in endpoint map"});
}

TEST_F(PublishKeys, MapGivesTheReferenceOfAReplacedRequestBack) {
    FakeMessage* first = fakeBus().request(publicHandle(), "x", "{}", "com.example.app 1");
    FakeMessage* second = fakeBus().request(publicHandle(), "x", "{}", "com.example.app 1");
    session().setEndpointMap("id", first, "inbox", kNode, "com.example.app");
    session().setEndpointMap("id", second, "inbox", kNode, "com.example.app");
    QSMessageUnref(first);
    QSMessageUnref(second);
    EXPECT_FALSE(first->kept());
    EXPECT_TRUE(second->kept());
}

// --- createEndpoint

TEST_F(PublishKeys, CreationWaitsUnderItsIdWithNodeAndApplication) {
    const Answer reply = create();
    EXPECT_TRUE(reply.waiting());
    const std::string id = expectStanza(createStanza("", "whitelist"));
    const _endpointStruct& entry = session().m_endpointMap.at(id);
    EXPECT_EQ(entry.endpoint, "inbox");
    EXPECT_EQ(entry.node, kNode);
    EXPECT_EQ(entry.appId, "com.example.app");
}

TEST_F(PublishKeys, CreationAsksForTheAccessModelAndTheTitle) {
    create(R"({"endpoint":"inbox","accessType":2,"description":"My news"})");
    expectStanza(createStanza("My news", "authorize"));
    for (const std::string accessType : {"0", "1", "3", "-2", "\"x\"", "null"}) {
        create(R"({"endpoint":"inbox","accessType":)" + accessType + "}");
        expectStanza(createStanza("", "whitelist"));
    }
}

TEST_F(PublishKeys, CreationAnswersWithTheKeyAndEntersTheDeleteStore) {
    const Answer reply = create();
    takeEvents();
    answer(lastId(), keyResult("k-1"));
    EXPECT_EQ(
        takeEvents(),
        (Texts{
            kPing,
            "prefs.set " + kStore +
                R"( deletecom.example.app { "nodes": [ "\/u1234\/dev42\/com.example.app\/inbox" ] })",
            "prefs.commit " + kStore,
            R"(bus.respond createEndpoint { "returnValue": true, "endpoint": "inbox", "publishKey": "k-1" })"}));
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(PublishKeys, CreationNamesTheStatusThatTheServerGives) {
    const Answer reply = create();
    answer(lastId(), keyResult("k-1", " status='exists'"));
    EXPECT_EQ(reply,
              R"({ "returnValue": true, "endpoint": "inbox", "publishKey": "k-1", "status": "exists" })");
}

TEST_F(PublishKeys, CreationReportsTheServersRefusal) {
    const Answer reply = create();
    takeEvents();
    answerError(lastId(), "auth", "forbidden");
    EXPECT_EQ(takeEvents(), (Texts{kPing, "bus.respond createEndpoint " + kServerRefused}));
    EXPECT_EQ(takeLogLines(), (Texts{"handleCreateKey: Node " + kNode + " error:  from pubsub.example.org",
                                     "printerror: ERR in func handleCreateKey: " + kForbidden}));
    EXPECT_FALSE(reply.kept());
    EXPECT_EQ(fakePrefs().stored(kStore), FakePrefs::Values{});
}

TEST_F(PublishKeys, CreationIsAnsweredAlsoWhenTheDeleteStoreFails) {
    const Answer reply = create();
    fakePrefs().failNext("QPAppSetValue", QP_BUSY);
    answer(lastId(), keyResult("k-1"));
    EXPECT_EQ(reply, R"({ "returnValue": true, "endpoint": "inbox", "publishKey": "k-1" })");
    EXPECT_EQ(takeLog(), Texts{"Error: QPAppSetValue returned 4, On failed"});
}

TEST_F(PublishKeys, CreationThatIsRefusedNamesNoKeyAndNoStatus) {
    const Answer reply = create();
    const gloox::Error forbidden(gloox::StanzaErrorTypeAuth, gloox::StanzaErrorForbidden);
    session().handleCreateKey(lastId(), gloox::JID(kService), "k-1", "https://x", "exists", &forbidden);
    EXPECT_EQ(reply, kServerRefused);
}

TEST_F(PublishKeys, CreationLogsAnAnswerThatCannotBeSent) {
    const Answer reply = create();
    const std::string id = lastId();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    answer(id, keyResult("k-1"));
    EXPECT_EQ(takeLogLines(),
              Texts{"handleCreateKey: Sending response to client failed id " + id + " Error no way "});
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_endpointMap.empty());
}

TEST_F(PublishKeys, CreationResultThatNobodyWaitsForIsLogged) {
    session().handleCreateKey("unknown", gloox::JID(kService), "k-1", "", "", nullptr);
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(), Texts{"handleCreateKey: We got a create key with no endpointmap unknown"});
}

TEST_F(PublishKeys, CreationAcceptsADescriptionOfFortyNineBytes) {
    const Answer reply = create(R"({"endpoint":"inbox","description":")" + std::string(49, 'd') + R"("})");
    EXPECT_TRUE(reply.waiting());
    expectStanza(createStanza(std::string(49, 'd'), "whitelist"));
    // The length counts without quotes and backslashes.
    create(R"({"endpoint":"inbox","description":"\"\\)" + std::string(49, 'd') + R"("})");
    expectStanza(createStanza(std::string(49, 'd'), "whitelist"));
}

TEST_F(PublishKeys, CreationRefusesADescriptionOfFiftyBytes) {
    const std::string payload = R"({"endpoint":"inbox","description":")" + std::string(50, 'd') + R"("})";
    EXPECT_EQ(create(payload), refusal("inbox", "parameterErr", "description too long"));
    EXPECT_EQ(takeLogLines()[0], "createEndpoint: desc. too long");
    EXPECT_EQ(stanzaCount(), 0u);
    // Bytes, not characters.
    std::string umlauts;
    for (int i = 0; i < 25; ++i)
        umlauts += "\xc3\xa4";
    EXPECT_EQ(create(R"({"endpoint":"inbox","description":")" + umlauts + R"("})"),
              refusal("inbox", "parameterErr", "description too long"));
}

TEST_F(PublishKeys, CreationChecksTheDescriptionBeforeTheApplication) {
    const std::string payload = R"({"endpoint":"inbox","description":")" + std::string(50, 'd') + R"("})";
    EXPECT_EQ(ask(createEndpoint, "createEndpoint", payload, ""),
              refusal("inbox", "parameterErr", "description too long"));
}

TEST_F(PublishKeys, CreationBeyondTheBoundIsRefusedAndCountsThoseUnderWay) {
    const std::string tooMany = "Too many endpoints, the limit is 1000. Call deleteEndpoint first";
    for (int i = 0; i < 997; ++i)
        session().addNodeToDeleteStore("/u1234/dev42/com.example.app/e" + std::to_string(i),
                                       "com.example.app");
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(create(R"({"endpoint":"new)" + std::to_string(i) + R"("})").waiting()) << i;
    const std::size_t asked = stanzaCount();
    EXPECT_EQ(create(), refusal("inbox", "appErr", tooMany));
    EXPECT_EQ(stanzaCount(), asked);
    EXPECT_TRUE(log().contains("Error " + tooMany + ", Incoming " + kInbox));
    // An existing endpoint can be created again, and each application has its own bound.
    EXPECT_TRUE(create(R"({"endpoint":"e5"})").waiting());
    EXPECT_TRUE(ask(createEndpoint, "createEndpoint", kInbox, "com.example.other 1").waiting());
    // A creation that the server refuses does not count.
    answerError(fakeServer().stanzas()[asked - 1].id(), "cancel", "conflict");
    EXPECT_TRUE(create().waiting());
    EXPECT_EQ(create(R"({"endpoint":"more"})"), refusal("more", "appErr", tooMany));
    loseConnection();
    reconnect();
    EXPECT_TRUE(create(R"({"endpoint":"more"})").waiting());
}

TEST_F(PublishKeys, CreationOfTwoApplicationsGivesTwoNodes) {
    ask(createEndpoint, "createEndpoint", kInbox, "com.example.one 1");
    EXPECT_TRUE(lastHas("node='/u1234/dev42/com.example.one/inbox'"));
    ask(createEndpoint, "createEndpoint", kInbox, "com.example.two 2");
    EXPECT_TRUE(lastHas("node='/u1234/dev42/com.example.two/inbox'"));
}

TEST_F(PublishKeys, WaitingRequestsAreAnsweredByADisconnect) {
    const Answer created = create();
    const Answer removed = remove();
    const Answer asked = getKey();
    loseConnection();
    for (const Answer& answer : {created, removed, asked}) {
        EXPECT_EQ(answer, kDisconnected);
        EXPECT_FALSE(answer.kept());
    }
}

class WithoutAnId : public PublishKeys {
  protected:
    const std::string kUnsendable = R"({"endpoint":"a\u0001"})";
    const std::string kShown = R"(a\u0001)";
};

TEST_F(WithoutAnId, CreationIsRefused) {
    EXPECT_EQ(create(kUnsendable), refusal(kShown, "libErr", "pubsubservice library is not initialized"));
    EXPECT_TRUE(session().m_endpointMap.empty());
}

TEST_F(WithoutAnId, KeyRequestIsRefused) {
    EXPECT_EQ(ask(getPublishKey, "getPublishKey", kUnsendable),
              refusal(kShown, "libErr", "pubsubservice library is not initialized"));
    EXPECT_TRUE(session().m_endpointMap.empty());
}

TEST_F(WithoutAnId, DeletionIsRefusedAndKeepsTheNumber) {
    session().persistSeqNo(kNode.substr(0, kNode.size() - 5) + "a\x01", "42");
    takeEvents();
    EXPECT_EQ(ask(deleteEndpoint, "deleteEndpoint", kUnsendable),
              refusal(kShown, "libErr", "gloox library is not initialized"));
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_EQ(fakePrefs().stored(kStore).size(), 1u);
}

// --- deleteEndpoint

TEST_F(PublishKeys, DeletionDropsTheNumberAndWaits) {
    session().persistSeqNo(kNode, "42");
    takeEvents();
    const Answer reply = remove();
    EXPECT_TRUE(reply.waiting());
    const Texts events = takeEvents();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0],
              "xmpp.send <iq to='pubsub.example.org' id='ID' type='set'><pubsub "
              "xmlns='http://jabber.org/protocol/pubsub#owner'><delete node='" +
                  kNode + "'/></pubsub></iq>");
    EXPECT_EQ(events[1], "prefs.remove " + kStore + ' ' + kNode);
    EXPECT_EQ(events[2], "prefs.commit " + kStore);
    const _endpointStruct& entry = session().m_endpointMap.at(lastId());
    EXPECT_EQ(entry.endpoint, "inbox");
    EXPECT_EQ(entry.node, kNode);
    EXPECT_EQ(entry.appId, "com.example.app");
}

TEST_F(PublishKeys, DeletionClearsEveryRegistryAndAnswers) {
    session().addNodeToDeleteStore(kNode, "com.example.app");
    session().setOfflineMap(kNode, "com.example.app");
    session().setSubMap(kNode, "com.example.app", nullptr);
    session().activated(kNode, true);
    const Answer reply = remove();
    answer(lastId());
    EXPECT_EQ(reply, kSuccess);
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_activateMap.empty());
    EXPECT_TRUE(session().subMap.empty());
    EXPECT_TRUE(session().m_offlineMap.empty());
    EXPECT_EQ(fakePrefs().stored(kStore), FakePrefs::Values{});
}

// --- getPublishKey

TEST_F(PublishKeys, KeyRequestWaitsWithItsEndpointAlone) {
    const Answer reply = getKey();
    EXPECT_TRUE(reply.waiting());
    const std::string id = expectStanza(getKeyStanza());
    const _endpointStruct& entry = session().m_endpointMap.at(id);
    EXPECT_EQ(entry.endpoint, "inbox");
    EXPECT_EQ(entry.node, "");
    EXPECT_EQ(entry.appId, "");
}

TEST_F(PublishKeys, KeyRequestAnswersWithTheKeyAndMovesNoPing) {
    const Answer reply = getKey();
    takeEvents();
    answer(lastId(), keyResult("k-1"));
    EXPECT_EQ(
        takeEvents(),
        Texts{
            R"(bus.respond getPublishKey { "returnValue": true, "endpoint": "inbox", "publishKey": "k-1" })"});
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(PublishKeys, KeyRequestReportsTheServersRefusal) {
    const Answer reply = getKey();
    takeEvents();
    answerError(lastId(), "auth", "forbidden");
    EXPECT_EQ(takeEvents(), Texts{"bus.respond getPublishKey " + kServerRefused});
    EXPECT_EQ(takeLogLines(), (Texts{"handleKeyCb: Node inbox error:  from pubsub.example.org",
                                     "printerror: ERR in func handleKeyCb: " + kForbidden}));
    EXPECT_FALSE(reply.kept());
}

TEST_F(PublishKeys, KeyRequestLogsAnAnswerThatCannotBeSent) {
    const Answer reply = getKey();
    const std::string id = lastId();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    answer(id, keyResult("k-1"));
    EXPECT_EQ(takeLogLines(),
              Texts{"handleKeyCb: Sending response to handlegetkey key failed id " + id + " Error no way "});
    EXPECT_FALSE(reply.kept());
}

TEST_F(PublishKeys, KeyResultThatNobodyWaitsForIsLogged) {
    session().handleGetKey("unknown", gloox::JID(kService), "k-1", "", nullptr);
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{"handleKeyCb: We got a get key with no endpointmap unknown"});
}
