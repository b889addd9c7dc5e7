// SPDX-License-Identifier: GPL-3.0-only
// What the server pushes: where an item goes, in which order, and what is left of stanzas that are not as
// expected.
#include <gloox/message.h>
#include <gloox/stanzaextension.h>

#include <utility>

#include "tests/fakes/servicefixture.h"
#include "xmpp/manager.h"

namespace {

const std::string kNode = "/u1234/dev42/com.example.app/inbox";
const std::string kShown = R"(\/u1234\/dev42\/com.example.app\/inbox)";
const std::string kPrefs = "com.zelt.pubsubservice";
const std::string kPing =
    R"(bus.call zelt://com.zelt.power/timeout/set {"key":"keepAliveTimer", )"
    R"("uri":"quor://com.zelt.pubsubservice/keepAliveTimer", "in":"00:25:00", "wakeup":true, "params":"{}"})";
const std::string kPowerOn =
    R"(bus.call zelt://com.zelt.power/com/zelt/power/activityStart {"duration_ms":2000})";

std::string serviceObject(const std::string& item, const std::string& id, const std::string& more = "") {
    return R"({ "item": ")" + item + R"(", "itemid": ")" + id + R"(", "node": ")" + kShown +
           R"(", "returnValue": true)" + more + " }";
}

std::string appObject(const std::string& item) {
    return R"({ "item": ")" + item + R"(", "endpoint": "inbox", "returnValue": true })";
}

std::string ack(const std::string& id, const std::string& node = kNode) {
    return "xmpp.send <message to='pubsub.example.org' id='ID'><ack xmlns='urn:zelt:pubsub:device:0' node='" +
           node + "' id='" + id + "'/></message>";
}

Texts persisted(const std::string& seqNo, const std::string& node = kNode) {
    return {"prefs.set " + kPrefs + ' ' + node + R"( { "seqNo": ")" + seqNo + R"(" })",
            "prefs.commit " + kPrefs};
}

Texts join(std::initializer_list<Texts> parts) {
    Texts all;
    for (const Texts& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

}  // namespace

class Incoming : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        std::filesystem::create_directory(stateFolder() / "cache");
        connectSession();
    }

    std::filesystem::path cacheFile() const {
        return stateFolder() / "cache" / "dev42-com.example.app-inbox";
    }
    std::string cached() const { return fileText(cacheFile()); }
    bool isCached() const { return std::filesystem::exists(cacheFile()); }

    void registerService(const std::string& endpoint) {
        bool present = false;
        session().addNodeToMap(kNode, endpoint, false, present);
    }
    // A public subscriber as the method subscribe leaves it.
    FakeMessage* subscribePublic() {
        FakeMessage* message = fakeBus().request(publicHandle(), "subscribe", "{}", "com.example.app 1");
        EXPECT_TRUE(QSSubscriptionAdd(publicHandle(), kNode.c_str(), message, nullptr));
        QSMessageUnref(message);
        session().setSubMap(kNode, "com.example.app", publicHandle());
        journal().take();
        return message;
    }
    FakeMessage* listenOnClose() {
        FakeMessage* message = fakeBus().request(privateHandle(), "registerOnClose", R"({"subscribe":true})");
        bool subscribed = false;
        EXPECT_TRUE(QSSubscriptionProcess(privateHandle(), message, &subscribed, nullptr));
        QSMessageUnref(message);
        session().m_onCloseRegistered = true;
        journal().take();
        return message;
    }
    void storeSeqNo(const std::string& seqNo) {
        fakePrefs().store(kPrefs, kNode, R"({ "seqNo": ")" + seqNo + R"(" })");
    }
    // A message of the pub-sub service with this inside.
    void push(const std::string& inside, const std::string& attributes = "id='m1'") {
        serverSends("<message from='pubsub.example.org' to='u1234@example.org/dev42' " + attributes + ">" +
                    inside + "</message>");
    }
    void pushEvent(const std::string& inside) {
        push("<event xmlns='http://jabber.org/protocol/pubsub#event'>" + inside + "</event>");
    }
    void expectNothingKept() {
        EXPECT_FALSE(isCached());
        EXPECT_EQ(fakePrefs().stored(kPrefs), FakePrefs::Values{});
    }
};

// --- items

TEST_F(Incoming, ItemGoesToEveryRegisteredServiceInTheirOrder) {
    registerService("zelt://com.example.two/item");
    registerService("zelt://com.example.one/box/item");
    pushItem(kNode, "7", "i1", "hello");
    const std::string object = serviceObject("hello", "i1");
    EXPECT_EQ(takeEvents(), join({{kPing, "bus.call zelt://com.example.two/item " + object,
                                   "bus.call zelt://com.example.one/box/item " + object},
                                  persisted("7"),
                                  {ack("i1")}}));
    EXPECT_FALSE(isCached());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, ServiceCallsAskForNoReply) {
    registerService("zelt://com.example.one/item");
    pushItem(kNode, "7", "i1", "hello");
    ASSERT_FALSE(fakeBus().calls().empty());
    const PlacedCall& call = fakeBus().calls().back();
    EXPECT_EQ(call.uri, "zelt://com.example.one/item");
    EXPECT_EQ(call.callback, nullptr);
    EXPECT_EQ(call.handle, privateHandle());
}

TEST_F(Incoming, ItemOfAServiceWhoseCallFailsIsStoredAndAcknowledgedAndNotCached) {
    registerService("zelt://com.example.one/item");
    registerService("zelt://com.example.two/item");
    fakeBus().failNext("QSCall", -113, "not there", 1, 1);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(),
              join({{kPing, "bus.call zelt://com.example.two/item " + serviceObject("hello", "i1")},
                    persisted("7"),
                    {ack("i1")}}));
    EXPECT_NE(log().raw().find("bus error -113: not there"), std::string::npos);
    EXPECT_EQ(takeLogLines(),
              Texts{"sendMessageToServices: QSCall to a registered callback failed. Item sent to cache\n"});
    EXPECT_FALSE(isCached());
}

TEST_F(Incoming, ServiceKeepsItsItemFromThePublicSubscriberWhoStays) {
    FakeMessage* subscriber = subscribePublic();
    registerService("zelt://com.example.one/item");
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_TRUE(session().subMap.contains(kNode));
    EXPECT_TRUE(subscriber->kept());
    EXPECT_EQ(subscriber->answers, Texts{});
    EXPECT_FALSE(isCached());
}

TEST_F(Incoming, ApplicationHandlersGetNothing) {
    bool present = false;
    session().addNodeToMap(kNode, "zelt://com.example.one/item", true, present);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject("hello"));
}

TEST_F(Incoming, PublicSubscriberGetsOneItemAndTheNextIsCached) {
    FakeMessage* subscriber = subscribePublic();
    pushItem(kNode, "7", "i1", "first");
    EXPECT_EQ(takeEvents(), join({{kPing, "bus.push " + kNode + ' ' + appObject("first"), kPowerOn,
                                   "bus.unsubscribe public " + kNode},
                                  persisted("7"),
                                  {ack("i1")}}));
    EXPECT_EQ(subscriber->answers, Texts{appObject("first")});
    EXPECT_FALSE(subscriber->kept());
    EXPECT_FALSE(session().subMap.contains(kNode));
    EXPECT_FALSE(isCached());

    pushItem(kNode, "8", "i2", "second");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("8"), {ack("i2")}}));
    EXPECT_EQ(cached(), appObject("second"));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, ItemForASubscriberThatCancelledIsCachedAndTheRecordStays) {
    session().setSubMap(kNode, "com.example.app", nullptr);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_TRUE(session().subMap.contains(kNode));
}

TEST_F(Incoming, ItemThatCannotBePushedIsCachedAndTheRecordGoes) {
    session().setSubMap(kNode, "com.example.app", publicHandle());
    fakeBus().failNext("QSSubscriptionRespond", -2, "nobody");
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_FALSE(session().subMap.contains(kNode));
    EXPECT_EQ(
        takeLogLines(),
        Texts{"sendMessageToApp: Warning: Sending item failed, no subscriber for Node?  Bus error nobody "});
}

TEST_F(Incoming, ItemThatNobodyTakesIsCachedItsNumberStoredAndAcknowledged) {
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, ItemThatCannotBeCachedIsNeitherStoredNorAcknowledged) {
    std::filesystem::remove_all(stateFolder() / "cache");
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), Texts{kPing});
    const Texts lines = takeLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("updateFile: Error saving item to cache ")) << lines[0];
    // The server sends it again.
    std::filesystem::create_directory(stateFolder() / "cache");
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
}

TEST_F(Incoming, PayloadArrivesAsItIs) {
    registerService("zelt://com.example.one/item");
    pushItem(kNode, "7", "i1", " <a b=\"c\">\n&amp;\\ \xc3\xa4 ");
    EXPECT_EQ(fakeBus().payloadsTo("zelt://com.example.one/item"),
              Texts{serviceObject(" <a b=\\\"c\\\">\\n&amp;\\\\ \xc3\xa4 ", "i1")});
}

TEST_F(Incoming, PayloadIsAllCharacterDataOfItsElement) {
    registerService("zelt://com.example.one/item");
    pushEvent("<items node='" + kNode +
              "'><item id='i1' seqNo='1'><payload>one <b>inner</b>two</payload></item></items>");
    EXPECT_EQ(fakeBus().payloadsTo("zelt://com.example.one/item"), Texts{serviceObject("one two", "i1")});
}

TEST_F(Incoming, EmptyPayloadIsAnItem) {
    pushItem(kNode, "7", "i1", "");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject(""));
}

TEST_F(Incoming, EveryItemsChildIsHandledInItsOrder) {
    registerService("zelt://com.example.one/item");
    pushEvent("<items node='" + kNode +
              "'><item id='i1' seqNo='1'><payload>a</payload></item></items>"
              "<collection node='c'/>"
              "<items node='" +
              kNode + "'><item id='i2' seqNo='2'><payload>b</payload></item></items>");
    EXPECT_EQ(takeEvents(),
              join({{kPing, "bus.call zelt://com.example.one/item " + serviceObject("a", "i1")},
                    persisted("1"),
                    {ack("i1"), "bus.call zelt://com.example.one/item " + serviceObject("b", "i2")},
                    persisted("2"),
                    {ack("i2")}}));
}

TEST_F(Incoming, OnlyTheFirstItemOfAnItemsElementCounts) {
    pushEvent("<items node='" + kNode +
              "'><item id='i1' seqNo='1'><payload>a</payload></item>"
              "<item id='i2' seqNo='2'><payload>b</payload></item></items>");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("1"), {ack("i1")}}));
    EXPECT_EQ(cached(), appObject("a"));
}

TEST_F(Incoming, ItemTellsActivationThatTheNodeMustBeActivatedAnew) {
    session().activated(kNode, true);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_FALSE(session().m_activateMap.at(kNode));
}

// --- stale items

TEST_F(Incoming, StaleItemIsAcknowledgedAndNotDelivered) {
    registerService("zelt://com.example.one/item");
    storeSeqNo("7");
    pushItem(kNode, "7", "i1", "hello");
    pushItem(kNode, "6", "i0", "hello");
    EXPECT_EQ(takeEvents(), (Texts{kPing, ack("i1"), kPing, ack("i0")}));
    EXPECT_EQ(fakeBus().payloadsTo("zelt://com.example.one/item"), Texts{});
    EXPECT_FALSE(isCached());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, StaleItemOfASubscribedNodeHasItActivatedAgain) {
    FakeMessage* subscriber = subscribePublic();
    session().activated(kNode, true);
    storeSeqNo("10");
    pushItem(kNode, "10", "i1", "hello");
    EXPECT_EQ(takeEvents(), (Texts{kPing, ack("i1"),
                                   "xmpp.send <iq to='pubsub.example.org' id='ID' type='set'><activate "
                                   "xmlns='urn:zelt:pubsub:device:0' node='" +
                                       kNode + "' seqNo='10'/></iq>"}));
    EXPECT_TRUE(session().subMap.contains(kNode));
    EXPECT_EQ(subscriber->answers, Texts{});
    EXPECT_TRUE(session().m_endpointMap.empty());
}

TEST_F(Incoming, SecondItemWithoutANumberIsStale) {
    pushEvent("<items node='" + kNode + "'><item id='i1'><payload>a</payload></item></items>");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted(""), {ack("i1")}}));
    pushEvent("<items node='" + kNode + "'><item id='i2'><payload>b</payload></item></items>");
    EXPECT_EQ(takeEvents(), (Texts{kPing, ack("i2")}));
    EXPECT_EQ(cached(), appObject("a"));
}

TEST_F(Incoming, ItemIsStaleAlsoAfterARestart) {
    pushItem(kNode, "7", "i1", "hello");
    restartService();
    connectSession();
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), (Texts{kPing, ack("i1")}));
}

// --- closed applications

TEST_F(Incoming, NodeOfAClosedApplicationIsLoggedWhenNobodyListens) {
    session().m_offlineMap[kNode] = "com.example.app";
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(takeLogLines(),
              Texts{"sendMessageToApp: Sub Map present - No subs, no offlineclose? " + kNode});
    EXPECT_EQ(cached(), appObject("hello"));
}

TEST_F(Incoming, ListenerForClosedApplicationsGetsTheItemAndItIsCachedAsWell) {
    FakeMessage* listener = listenOnClose();
    session().m_offlineMap[kNode] = "com.example.app";
    pushItem(kNode, "7", "i1", "hello");
    const std::string posted = serviceObject("hello", "i1", R"(, "appid": "com.example.app")");
    EXPECT_EQ(takeEvents(),
              join({{kPing, "bus.post private / registerOnClose " + posted}, persisted("7"), {ack("i1")}}));
    EXPECT_EQ(listener->answers, Texts{posted});
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, FailedPostToTheListenerIsLoggedAndTheItemCached) {
    listenOnClose();
    session().m_offlineMap[kNode] = "com.example.app";
    fakeBus().failNext("QSSubscriptionPost", -5, "no way");
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeLogLines(),
              Texts{"sendMessageToApp: Sending item to registerOnclose failed. Error no way "});
    EXPECT_EQ(cached(), appObject("hello"));
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i1")}}));
}

TEST_F(Incoming, PublicSubscriberComesBeforeTheListenerForClosedApplications) {
    FakeMessage* listener = listenOnClose();
    FakeMessage* subscriber = subscribePublic();
    session().m_offlineMap[kNode] = "com.example.app";
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(subscriber->answers, Texts{appObject("hello")});
    EXPECT_EQ(listener->answers, Texts{});
    EXPECT_FALSE(isCached());
}

TEST_F(Incoming, ClosedApplicationWithoutAnEntryInTheMapIsNotTold) {
    FakeMessage* listener = listenOnClose();
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(listener->answers, Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(cached(), appObject("hello"));
}

// --- malformed and foreign items

class MalformedItems : public Incoming, public testing::WithParamInterface<const char*> {};

TEST_P(MalformedItems, AreDroppedWithoutAnAcknowledgement) {
    registerService("zelt://com.example.one/item");
    pushEvent(GetParam());
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(),
              Texts{"handleIncomingItem: Malformed items packet? Item will not be delivered"});
    EXPECT_TRUE(session().m_activateMap.empty());
    expectNothingKept();
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, MalformedItems,
    testing::Values("<items/>", "<items node='n'/>", "<items node='n'><item/></items>",
                    "<items node='n'><item id='i' seqNo='1'/></items>",
                    "<items node='n'><item id='i' seqNo='1'>text</item></items>",
                    "<items node='n'><item id='i' seqNo='1'><other/></item></items>",
                    "<items node='n'><retract id='i'/></items>",
                    "<items node='n'><payload>x</payload></items>",
                    // The first item counts, whatever the second has.
                    "<items node='n'><item/><item id='i'><payload>x</payload></item></items>"));

TEST_F(Incoming, ItemWithoutANodeIsNeitherKeptNorAcknowledged) {
    pushEvent("<items><item id='i1' seqNo='1'><payload>x</payload></item></items>");
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(), Texts{"saveItemInCache: Invalid node or payload  "});
    expectNothingKept();
}

TEST_F(Incoming, ItemWithoutAnIdIsAcknowledgedByItsEmptyId) {
    pushEvent("<items node='" + kNode + "'><item seqNo='7'><payload>x</payload></item></items>");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("")}}));
}

TEST_F(Incoming, MessageWithoutAnythingKnownOnlyMovesThePing) {
    push("<body>hello</body>", "type='chat'");
    push("");
    push("<event xmlns='urn:other'><items node='n'/></event>");
    push("<x xmlns='urn:other' type='form'/>");
    pushEvent("");
    pushEvent("<purge node='n'/><delete node='n'/><configuration/>");
    EXPECT_EQ(takeEvents(), Texts(6, kPing));
    EXPECT_EQ(takeLogLines(), Texts{});
    expectNothingKept();
}

TEST_F(Incoming, EventComesBeforeAForm) {
    push("<x xmlns='jabber:x:data' type='form'/><event xmlns='http://jabber.org/protocol/pubsub#event'/>");
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, EventsOfStrangersAreNotHeard) {
    serverSends(
        "<message from='mallory@example.org/x' to='u1234@example.org/dev42'><event "
        "xmlns='http://jabber.org/protocol/pubsub#event'><items node='" +
        kNode + "'><item id='i' seqNo='99'><payload>x</payload></item></items></event></message>");
    EXPECT_EQ(takeEvents(), Texts{});
    expectNothingKept();
}

TEST_F(Incoming, ItemIsHandledWithoutAManager) {
    session().dropClient();
    delete std::exchange(session().m_pubsub, nullptr);
    gloox::Tag items("items");
    items.addAttribute("node", kNode);
    gloox::Tag* item = new gloox::Tag(&items, "item");
    item->addAttribute("id", "i1");
    item->addAttribute("seqNo", "7");
    new gloox::Tag(item, "payload", "hello");
    session().handleIncomingItem(items);
    EXPECT_EQ(takeEvents(), persisted("7"));
    EXPECT_EQ(cached(), appObject("hello"));
}

// --- messages that did not come the short way

namespace {

// An extension of a message that prints the given element.
class RawExtension : public gloox::StanzaExtension {
  public:
    explicit RawExtension(const gloox::Tag& tag) : StanzaExtension(gloox::ExtUser + 77), m_tag(tag.clone()) {}
    const std::string& filterString() const override { return gloox::EmptyString; }
    gloox::StanzaExtension* newInstance(const gloox::Tag*) const override { return nullptr; }
    gloox::Tag* tag() const override { return m_tag->clone(); }
    gloox::StanzaExtension* clone() const override { return new RawExtension(*m_tag); }

  private:
    std::unique_ptr<gloox::Tag> m_tag;
};

}  // namespace

TEST_F(Incoming, PlainMessageIsReadFromItsXml) {
    gloox::Tag event("event", "xmlns", "http://jabber.org/protocol/pubsub#event");
    auto* subscription = new gloox::Tag(&event, "subscription");
    subscription->addAttribute("node", "n");
    gloox::Message message(gloox::Message::Headline, gloox::JID(kFullJid));
    message.addExtension(new RawExtension(event));
    session().handleMessage(message);
    EXPECT_EQ(takeLogLines(),
              Texts{"pushSubscription: Warning: Sending item failed, no subscriber for Node? Bus error " +
                    std::string("no subscriber under n ")});
}

TEST_F(Incoming, PlainMessageWithABodyIsIgnored) {
    session().handleMessage(gloox::Message(gloox::Message::Chat, gloox::JID(kFullJid), "hello"));
    EXPECT_EQ(takeEvents(), Texts{kPing});
}

// --- subscriptions and authorisation

class PushedToSubscribers : public Incoming {
  protected:
    FakeMessage* listen(QSHandle* handle, const std::string& key) {
        FakeMessage* message = fakeBus().request(handle, "subscribeNodeAuth", "{}");
        EXPECT_TRUE(QSSubscriptionAdd(handle, key.c_str(), message, nullptr));
        QSMessageUnref(message);
        journal().take();
        return message;
    }
    // A field of a form.
    static std::string field(const std::string& var, const std::string& value) {
        return "<field var='" + var + "'><value>" + value + "</value></field>";
    }
    void pushForm(const std::string& fields, const std::string& attributes = "type='form'") {
        push("<x xmlns='jabber:x:data' " + attributes + ">" + fields + "</x>", "id='auth-7'");
    }
};

TEST_F(PushedToSubscribers, ChangeOfASubscriptionReachesTheSubscribersOfItsNode) {
    FakeMessage* listener = listen(privateHandle(), "/n");
    pushEvent("<subscription node='/n' jid='a@b/c' subscription='subscribed'/>");
    const std::string object = R"({ "node": "\/n", "jid": "a@b\/c", "subscription": "subscribed" })";
    EXPECT_EQ(takeEvents(), (Texts{kPing, "bus.push /n " + object}));
    EXPECT_EQ(listener->answers, Texts{object});
    EXPECT_TRUE(listener->kept());
}

TEST_F(PushedToSubscribers, ChangeOfASubscriptionThatNobodyFollowsIsLogged) {
    fakeBus().failNext("QSSubscriptionRespond", -2, "nobody");
    pushEvent("<subscription/>");
    EXPECT_EQ(
        takeLogLines(),
        Texts{"pushSubscription: Warning: Sending item failed, no subscriber for Node? Bus error nobody "});
}

TEST_F(PushedToSubscribers, RequestForApprovalReachesItsNodeAndTheListenersOfAllNodes) {
    FakeMessage* own = listen(privateHandle(), "handleAuth:/n");
    FakeMessage* all = listen(privateHandle(), "handleAuth:*");
    pushForm(field("FORM_TYPE", "http://jabber.org/protocol/pubsub#subscribe_authorization") +
             field("pubsub#subid", "s1") + field("pubsub#node", "/n") + field("pusub#subscriber_jid", "a@b") +
             field("pubsub#subscriber_jid", "not read") + field("pubsub#allow", "false"));
    const std::string object = R"({ "subid": "s1", "node": "\/n", "subscriber_jid": "a@b", "id": "auth-7" })";
    EXPECT_EQ(takeEvents(),
              (Texts{kPing, "bus.push handleAuth:/n " + object, "bus.push handleAuth:* " + object}));
    EXPECT_EQ(own->answers, Texts{object});
    EXPECT_EQ(all->answers, Texts{object});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(PushedToSubscribers, RequestForApprovalThatNobodyHearsIsLoggedForBothKeys) {
    fakeBus().failNext("QSSubscriptionRespond", -2, "nobody", 2);
    pushForm(field("pubsub#node", "/n"));
    EXPECT_EQ(takeLogLines(),
              (Texts{"pushAuthorisation: Warning: No one approve message? Quor error nobody ",
                     "pushAuthorisation: Warning: No one approve message? Quor error nobody "}));
}

TEST_F(PushedToSubscribers, FieldsThatTheFormLacksAreEmpty) {
    FakeMessage* all = listen(privateHandle(), "handleAuth:*");
    pushForm("<field var='pubsub#node'/><field/><other var='pubsub#subid'><value>s</value></other>text");
    EXPECT_EQ(all->answers, Texts{R"({ "subid": "", "node": "", "subscriber_jid": "", "id": "auth-7" })"});
}

TEST_F(PushedToSubscribers, DataThatIsNoFormIsLogged) {
    pushForm(field("pubsub#node", "/n"), "type='submit'");
    pushForm("", "");
    EXPECT_EQ(takeEvents(), (Texts{kPing, kPing}));
    EXPECT_EQ(
        takeLogLines(),
        (Texts{"handleMessage: Warning: We have x-data that is not a form <x xmlns='jabber:x:data' "
               "type='submit'><field var='pubsub#node'><value>/n</value></field></x>",
               "handleMessage: Warning: We have x-data that is not a form <x xmlns='jabber:x:data'/>"}));
}
