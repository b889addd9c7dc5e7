// SPDX-License-Identifier: GPL-3.0-only
// Endpoints for web push: what createEndpoint and getPublishKey ask for and answer, and the urgency and the end of
// items.
#include "tests/unit/endpoints/receivetest.h"

namespace {

// The point of the example in RFC 8292.
const std::string kVapid =
    "BA1Hxzyi1RUM1b5wjxsn7nGxAszw2u61m164i3MrAIxHF6YK5h4SDYic-dRuU_RCPCfA5aq9ojSwk5Y2EmClBPs";
const std::string kAddress = "https://push.example.org/push/K";

std::string keyAnswer(const std::string& attributes = " url='" + kAddress + "'") {
    return "<key xmlns='urn:zelt:pubsub:device:0' node='" + kNode + "'" + attributes + ">K</key>";
}

std::string atUnix(int64_t seconds) {
    return std::to_string(g_get_real_time() / G_USEC_PER_SEC + seconds);
}

}  // namespace

class WebPush : public ReceiveTest {
  protected:
    Answer create(const std::string& more) {
        return ask(createEndpoint, "createEndpoint", R"({"endpoint":"inbox")" + more + "}");
    }
    // The attributes of the creation that was sent.
    std::string asked(const char* attribute) {
        return lastStanza().tag().findChild("create-key-node")->findAttribute(attribute);
    }
    // An item of the inbox with these attributes.
    void pushWith(const std::string& attributes, const std::string& seqNo = "7",
                  const std::string& id = "i1") {
        serverSends("<message from='pubsub.example.org' to='u1234@example.org/dev42' id='m" + id +
                    "'><event xmlns='http://jabber.org/protocol/pubsub#event'><items node='" + kNode +
                    "'><item id='" + id + "' seqNo='" + seqNo + "'" + attributes +
                    "><payload>hello</payload></item></items></event></message>");
    }
    std::string stored() { return fakePrefs().stored(kPrefs).at(kNode); }
};

// --- the endpoint

TEST_F(WebPush, EndpointIsAskedForAndAnsweredWithItsAddress) {
    const Answer reply = create(R"(,"webPush":true,"vapid":")" + kVapid + '"');
    EXPECT_EQ(asked("web-push"), "true");
    EXPECT_EQ(asked("vapid"), kVapid);
    answer(lastId(), keyAnswer(" url='" + kAddress + "' status='exists'"));
    EXPECT_EQ(reply, R"({ "returnValue": true, "endpoint": "inbox", "publishKey": "K", "status": "exists", )"
                     R"("url": "https:\/\/push.example.org\/push\/K" })");
}

TEST_F(WebPush, EndpointHasNoAddressWhereTheServerTellsNone) {
    const Answer reply = create(R"(,"webPush":true)");
    EXPECT_EQ(asked("vapid"), "");
    answer(lastId(), keyAnswer(""));
    EXPECT_EQ(reply, R"({ "returnValue": true, "endpoint": "inbox", "publishKey": "K" })");
}

TEST_F(WebPush, AnyOfItsMembersAsksForTheAddress) {
    for (const std::string& more : {std::string(R"(,"webPush":false)"), R"(,"vapid":")" + kVapid + '"'}) {
        const Answer reply = create(more);
        EXPECT_EQ(asked("web-push"), "");
        answer(lastId(), keyAnswer());
        EXPECT_EQ(reply, R"({ "returnValue": true, "endpoint": "inbox", "publishKey": "K", )"
                         R"("url": "https:\/\/push.example.org\/push\/K" })");
    }
}

TEST_F(WebPush, WithoutItsMembersRequestAndReplyAreTheSame) {
    const Answer created = create("");
    EXPECT_EQ(lastStanza().xml().find("web-push"), std::string::npos);
    EXPECT_EQ(lastStanza().xml().find("vapid"), std::string::npos);
    answer(lastId(), keyAnswer());
    EXPECT_EQ(created, R"({ "returnValue": true, "endpoint": "inbox", "publishKey": "K" })");
    const Answer key = ask(getPublishKey, "getPublishKey");
    answer(lastId(), keyAnswer());
    EXPECT_EQ(key, R"({ "returnValue": true, "endpoint": "inbox", "publishKey": "K" })");
    const Answer refused = create("");
    serverSends("<iq type='error' from='pubsub.example.org' id='" + lastId() +
                "'><error type='cancel'><conflict xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/>"
                "<text xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'>why</text></error></iq>");
    EXPECT_EQ(
        refused,
        R"({ "returnValue": false, "endpoint": "inbox", "errorCode": "xmppErr", "errorText": "conflict" })");
}

TEST_F(WebPush, KeyIsAnsweredWithItsAddressWhenAskedFor) {
    const Answer key = ask(getPublishKey, "getPublishKey", R"({"endpoint":"inbox","webPush":true})");
    answer(lastId(), keyAnswer());
    EXPECT_EQ(key, R"({ "returnValue": true, "endpoint": "inbox", "publishKey": "K", )"
                   R"("url": "https:\/\/push.example.org\/push\/K" })");
}

TEST_F(WebPush, EndpointThatExistsInAnotherWayIsRefusedWithTheServersAdvice) {
    const Answer reply = create(R"(,"webPush":true)");
    serverSends(
        "<iq type='error' from='pubsub.example.org' id='" + lastId() +
        "'><error type='cancel'><conflict xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/>"
        "<text xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'>delete the node first</text></error></iq>");
    EXPECT_EQ(reply, R"({ "returnValue": false, "endpoint": "inbox", "errorCode": "xmppErr", )"
                     R"("errorText": "conflict: delete the node first" })");
}

class WebPushRefusal : public WebPush, public testing::WithParamInterface<std::array<const char*, 2>> {};

TEST_P(WebPushRefusal, IsNamedBeforeAnythingIsSent) {
    const auto& [more, text] = GetParam();
    EXPECT_EQ(create(more), refusal("inbox", "parameterErr", text));
    EXPECT_EQ(stanzaCount(), 0u);
}

constexpr char kWrongWebPush[] = "webPush takes true or false";
constexpr char kWrongVapid[] =
    "vapid takes the sender's public key: a P-256 point, uncompressed, in 87 characters of base64url";
INSTANTIATE_TEST_SUITE_P(
    Members, WebPushRefusal,
    testing::Values(
        std::array{R"(,"webPush":"true")", kWrongWebPush}, std::array{R"(,"webPush":1)", kWrongWebPush},
        std::array{R"(,"vapid":"")", kWrongVapid}, std::array{R"(,"vapid":7)", kWrongVapid},
        std::array{
            R"(,"vapid":"BA1Hxzyi1RUM1b5wjxsn7nGxAszw2u61m164i3MrAIxHF6YK5h4SDYic-dRuU_RCPCfA5aq9ojSwk5Y2EmClBP")",
            kWrongVapid},
        std::array{
            R"(,"vapid":"CA1Hxzyi1RUM1b5wjxsn7nGxAszw2u61m164i3MrAIxHF6YK5h4SDYic-dRuU_RCPCfA5aq9ojSwk5Y2EmClBPs")",
            kWrongVapid},
        std::array{
            R"(,"vapid":"BQ1Hxzyi1RUM1b5wjxsn7nGxAszw2u61m164i3MrAIxHF6YK5h4SDYic-dRuU_RCPCfA5aq9ojSwk5Y2EmClBPs")",
            kWrongVapid},
        std::array{
            R"(,"vapid":"BA1Hxzyi1RUM1b5wjxsn7nGxAszw2u61m164i3MrAIxHF6YK5h4SDYic+dRuU/RCPCfA5aq9ojSwk5Y2EmClBPs")",
            kWrongVapid}));

// --- urgency

TEST_F(WebPush, UrgencyIsSaidWithTheActivation) {
    own({"inbox", "news"});
    askReceive(R"({"subscribe":true,"endpoints":["inbox"],"urgency":"high"})");
    expectStanza(limitedStanza("0", kNode, "high"));
    askReceive(R"({"subscribe":true,"endpoints":["news"]})");
    expectStanza(limitedStanza("0", nodeOf("news")));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(WebPush, EachReceiverHasItsOwnUrgencyAtTheNextConnect) {
    own({"inbox", "news", "third"});
    askReceive(R"({"subscribe":true,"endpoints":["inbox","news"],"urgency":"low"})");
    answerBulk();
    askReceive(R"({"subscribe":true,"endpoints":["third"]})");
    answer(lastId());
    loseConnection();
    reconnect();
    const std::string begin = "<activate-nodes xmlns='urn:zelt:pubsub:device:0'><node id='";
    EXPECT_EQ(fakeServer().stanzas()[0].textWithoutId(),
              deviceIq("set", begin + nodeOf("third") + "' limit='1'/></activate-nodes>"));
    EXPECT_EQ(fakeServer().stanzas()[1].textWithoutId(),
              deviceIq("set", begin + kNode + "' limit='1' urgency='low'/><node id='" + nodeOf("news") +
                                  "' limit='1' urgency='low'/></activate-nodes>"));
}

class UrgencyRefusal : public WebPush, public testing::WithParamInterface<const char*> {};

TEST_P(UrgencyRefusal, IsNamedAndNothingIsReceived) {
    own({"inbox"});
    EXPECT_EQ(askReceive(std::string(R"({"subscribe":true,"urgency":)") + GetParam() + "}"),
              R"({ "returnValue": false, "errorCode": "parameterErr", )"
              R"("errorText": "urgency takes very-low, low, normal or high" })");
    EXPECT_FALSE(session().keepsOpenItem(kNode));
}

INSTANTIATE_TEST_SUITE_P(Values, UrgencyRefusal, testing::Values("\"urgent\"", "\"\"", "1", "[\"high\"]"));

TEST_F(WebPush, ItemNamesItsUrgency) {
    const Answer receiver = receiveInbox();
    pushWith(" published='1795252840' urgency='high'");
    EXPECT_EQ(receiver.all().back(),
              R"({ "returnValue": true, "endpoint": "inbox", "item": "hello", "itemid": "i1", "receipt": ")" +
                  receipt(receiver) + R"(", "published": 1795252840, "urgency": "high" })");
}

// An urgent item overtakes those below the receiver's bar, which come when a receiver lowers it. A server that
// is killed may send again more than the last item that was acknowledged.
TEST_F(WebPush, ItemThatAnUrgencyHeldBackIsTakenAndNoneThatWasTakenBefore) {
    own({"inbox"});
    const Answer urgent = askReceive(R"({"subscribe":true,"urgency":"high"})");
    answer(lastId());
    for (const char* number : {"9", "12"}) {
        pushItem(kNode, number, std::string("i") + number, "urgent");
        acknowledgeOpen(urgent);
    }
    EXPECT_EQ(stored(), R"({ "seqNo": "0", "taken": [ "9", "12" ] })");
    pushItem(kNode, "9", "i9", "urgent");
    EXPECT_EQ("xmpp.send " + lastStanza().textWithoutId(), ackOf("i9", "9"));
    EXPECT_EQ(urgent.all().size(), 3u);
    fakeBus().clientDies(urgent.message());
    answer(lastId());
    const Answer receiver = askReceive();
    answer(expectStanza(limitedStanza()));
    pushItem(kNode, "7", "i7", "not so urgent");
    EXPECT_EQ(receiver.all().back(), itemOf("not so urgent", "i7", receipt(receiver)));
    acknowledgeOpen(receiver);
    EXPECT_EQ(stored(), R"({ "seqNo": "7", "taken": [ "9", "12" ] })");
    for (const char* number : {"7", "9", "12"})
        pushItem(kNode, number, "again", "again");
    EXPECT_EQ(receiver.all().size(), 2u);
    pushItem(kNode, "10", "i10", "next");
    acknowledgeOpen(receiver);
    EXPECT_EQ(stored(), R"({ "seqNo": "10", "taken": [ "12" ] })");
    pushItem(kNode, "13", "i13", "last");
    acknowledgeOpen(receiver);
    EXPECT_EQ(stored(), R"({ "seqNo": "13" })");
}

TEST_F(WebPush, ItemsOfTheLeastUrgencyAreInOrder) {
    own({"inbox"});
    const Answer receiver = askReceive(R"({"subscribe":true,"urgency":"very-low"})");
    answer(lastId());
    pushItem(kNode, "9", "i9", "any");
    acknowledgeOpen(receiver);
    EXPECT_EQ(stored(), R"({ "seqNo": "9" })");
}

TEST_F(WebPush, OfTheItemsThatAnUrgencyPreferredTheLast64AreKnown) {
    for (int number = 101; number <= 165; ++number)
        session().writeTakenSeqNo(kNode, std::to_string(number), false);
    EXPECT_FALSE(session().isStalePacket(kNode, "101"));
    EXPECT_TRUE(session().isStalePacket(kNode, "102"));
    EXPECT_TRUE(session().isStalePacket(kNode, "165"));
    session().commitSeqNos();
}

TEST_F(WebPush, ItemBelowTheOpenOneIsAskedForAgain) {
    own({"inbox"});
    const Answer receiver = askReceive(R"({"subscribe":true,"urgency":"low"})");
    answer(lastId());
    pushItem(kNode, "9", "i9", "urgent");
    pushItem(kNode, "7", "i7", "not so urgent");
    EXPECT_EQ(receiver.all().size(), 2u);
    acknowledgeOpen(receiver);
    answer(expectStanza(deactivateStanza()));
    answer(expectStanza(limitedStanza("0", kNode, "low")));
    pushItem(kNode, "7", "i7", "not so urgent");
    EXPECT_EQ(receiver.all().size(), 3u);
}

// --- late items

TEST_F(WebPush, ItemThatIsLateIsAcknowledgedUnsent) {
    const Answer receiver = receiveInbox();
    pushWith(" expires='" + atUnix(-1) + "'");
    EXPECT_EQ("xmpp.send " + lastStanza().textWithoutId(), ackOf("i1", "7"));
    EXPECT_EQ(receiver.all().size(), 1u);
    EXPECT_EQ(fakePrefs().stored(kPrefs).count(kNode), 0u);
    pushWith(" expires='" + atUnix(60) + "'", "8", "i2");
    EXPECT_EQ(receiver.all().size(), 2u);
    for (const char* expires : {"0", "soon", ""}) {
        acknowledgeOpen(receiver);
        const std::size_t before = receiver.all().size();
        pushWith(std::string(" expires='") + expires + "'", std::to_string(before + 10), "i3");
        EXPECT_EQ(receiver.all().size(), before + 1) << expires;
    }
}

TEST_F(WebPush, ItemThatIsLateWhenItIsDueAgainIsTakenUnsent) {
    const Answer receiver = receiveInbox();
    pushWith(" expires='" + atUnix(1) + "'");
    fakeServer().forgetStanzas();
    EXPECT_EQ(acknowledged(receipt(receiver), "inbox", R"(,"retry":2)"), kSuccess);
    waitFor([&] { return stanzaCount() == 1; });
    EXPECT_EQ("xmpp.send " + lastStanza().textWithoutId(), ackOf("i1", "7"));
    EXPECT_EQ(stored(), R"({ "seqNo": "7" })");
    EXPECT_EQ(receiver.all().size(), 2u);
    pushWith("", "8", "i2");
    EXPECT_EQ(receiver.all().size(), 3u);
    EXPECT_EQ(session().m_dueTimer, 0u);
}

TEST_F(WebPush, ItemThatIsLateWhenTheClientReadsAgainIsTakenOnce) {
    own({"inbox", "news"});
    const Answer receiver = askReceive();
    answerBulk();
    fakeBus().failNext("QSMessageRespond", -ENOBUFS, "The client does not read", 1);
    pushWith(" expires='" + atUnix(60) + "'");
    EXPECT_EQ(receiver.all().size(), 1u);
    session().m_openNodes[kNode].open->expires = "1";
    fakeServer().forgetStanzas();
    waitFor([&] { return stanzaCount() == 1; });
    pump();
    EXPECT_EQ("xmpp.send " + lastStanza().textWithoutId(), ackOf("i1", "7"));
    EXPECT_EQ(stanzaCount(), 1u);
    EXPECT_EQ(receiver.all().size(), 1u);
    EXPECT_EQ(session().m_dueTimer, 0u);
    takeLogLines();
}
