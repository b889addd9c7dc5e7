// SPDX-License-Identifier: GPL-3.0-only
// Malformed messages, and events that are not items: what is dropped, and who is notified.

#include <gloox/tag.h>

#include <utility>

#include "tests/unit/delivery/incomingtest.h"
#include "xmpp/manager.h"

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
                    // Only the first item counts.
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
    push("<events xmlns='http://jabber.org/protocol/pubsub#event'><items node='n'/></events>");
    push("<y xmlns='jabber:x:data'/>");
    pushEvent("");
    pushEvent("<purge node='n'/><delete node='n'/><configuration/>");
    EXPECT_EQ(takeEvents(), Texts(8, kPing));
    EXPECT_EQ(takeLogLines(), Texts{});
    expectNothingKept();
}

TEST_F(Incoming, EventComesBeforeAForm) {
    push("<x xmlns='jabber:x:data' type='form'/><event xmlns='http://jabber.org/protocol/pubsub#event'/>");
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Incoming, FirstOfSeveralEventsCounts) {
    const auto event = [](const std::string& seqNo, const std::string& text) {
        return "<event xmlns='http://jabber.org/protocol/pubsub#event'><items node='" + kNode +
               "'><item id='i" + seqNo + "' seqNo='" + seqNo + "'><payload>" + text +
               "</payload></item></items></event>";
    };
    push(event("7", "first") + event("8", "second"));
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i7")}}));
    EXPECT_EQ(cached(), appObject("first"));
}

TEST_F(Incoming, FirstOfSeveralEventsCountsThoughItIsEmpty) {
    push(
        "<event xmlns='http://jabber.org/protocol/pubsub#event'/>"
        "<event xmlns='http://jabber.org/protocol/pubsub#event'><items node='" +
        kNode + "'><item id='i' seqNo='7'><payload>x</payload></item></items></event>");
    EXPECT_EQ(takeEvents(), Texts{kPing});
    expectNothingKept();
}

TEST_F(Incoming, EventOfAnotherNamespaceBeforeTheFirstIsPassedOver) {
    push("<event xmlns='urn:other'/><event xmlns='http://jabber.org/protocol/pubsub#event'><items node='" +
         kNode + "'><item id='i' seqNo='7'><payload>x</payload></item></items></event>");
    EXPECT_EQ(takeEvents(), join({{kPing}, persisted("7"), {ack("i")}}));
}

TEST_F(Incoming, EveryItemsElementOfAnEventCountsAndTheFirstItemAndPayloadOfEach) {
    pushEvent("<items node='" + kNode +
              "'><item id='i7' seqNo='7'><payload>first</payload><payload>other</payload></item>"
              "<item id='i8' seqNo='8'><payload>second</payload></item></items><items node='" +
              kNode + "'><item id='i9' seqNo='9'><payload>third</payload></item></items>");
    EXPECT_EQ(takeEvents(), join({{kPing, persisted("7")[0]}, persisted("9"), {ack("i7"), ack("i9")}}));
    EXPECT_EQ(cached(), appObject("third"));
}

TEST_F(Incoming, EventsOfOtherEntitiesAreIgnored) {
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

TEST_F(Incoming, MessageWithABodyIsIgnored) {
    push("<body>hello</body>");
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

TEST_F(PushedToSubscribers, ChangeOfASubscriptionWithoutSubscribersIsLogged) {
    fakeBus().failNext("QSSubscriptionRespond", -2, "nobody");
    pushEvent("<subscription/>");
    EXPECT_EQ(
        takeLogLines(),
        Texts{"handleMessage: Warning: Sending item failed, no subscriber for Node? Bus error nobody "});
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

TEST_F(PushedToSubscribers, RequestForApprovalWithoutListenersIsLoggedForBothKeys) {
    fakeBus().failNext("QSSubscriptionRespond", -2, "nobody", 2);
    pushForm(field("pubsub#node", "/n"));
    EXPECT_EQ(takeLogLines(), (Texts{"handleMessage: Warning: No one approve message? Quor error nobody ",
                                     "handleMessage: Warning: No one approve message? Quor error nobody "}));
}

TEST_F(PushedToSubscribers, FieldsThatTheFormLacksAreEmpty) {
    FakeMessage* all = listen(privateHandle(), "handleAuth:*");
    pushForm("<field var='pubsub#node'/><field/><other var='pubsub#subid'><value>s</value></other>text");
    EXPECT_EQ(all->answers, Texts{R"({ "subid": "", "node": "", "subscriber_jid": "", "id": "auth-7" })"});
}

TEST_F(PushedToSubscribers, FirstOfSeveralFieldsAndValuesCounts) {
    FakeMessage* all = listen(privateHandle(), "handleAuth:*");
    std::string fields;
    for (const char* var : {"pubsub#subid", "pubsub#node", "pusub#subscriber_jid"})
        fields += "<field var='" + std::string(var) + "'><value>first</value><value>other</value></field>" +
                  field(var, "second");
    pushForm(fields);
    EXPECT_EQ(all->answers,
              Texts{R"({ "subid": "first", "node": "first", "subscriber_jid": "first", "id": "auth-7" })"});
}

TEST_F(PushedToSubscribers, FirstOfSeveralFieldsCountsThoughItHasNoValue) {
    FakeMessage* all = listen(privateHandle(), "handleAuth:*");
    pushForm("<field var='pubsub#subid'/>" + field("pubsub#subid", "second") + field("pubsub#node", "n"));
    EXPECT_EQ(all->answers, Texts{R"({ "subid": "", "node": "n", "subscriber_jid": "", "id": "auth-7" })"});
}

TEST_F(PushedToSubscribers, FirstOfSeveralFormsCounts) {
    FakeMessage* all = listen(privateHandle(), "handleAuth:*");
    const auto form = [](const std::string& type, const std::string& node) {
        return "<x xmlns='jabber:x:data' type='" + type + "'>" + field("pubsub#node", node) + "</x>";
    };
    push("<x xmlns='urn:other'/>" + form("form", "first") + form("form", "second"), "id='auth-7'");
    EXPECT_EQ(all->answers,
              Texts{R"({ "subid": "", "node": "first", "subscriber_jid": "", "id": "auth-7" })"});
    push(form("submit", "first") + form("form", "second"), "id='auth-8'");
    EXPECT_EQ(all->answers.size(), 1u);
    EXPECT_TRUE(takeLogLines().back().starts_with(
        "handleMessage: Warning: We have x-data that is not a form <x xmlns='jabber:x:data' type='submit'"));
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
