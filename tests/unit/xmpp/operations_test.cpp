// SPDX-License-Identifier: GPL-3.0-only
// The stanza of every operation of the manager, compared as a whole.
#include <gloox/dataform.h>

#include "tests/unit/xmpp/dialogue.h"

namespace {

using gloox::PubSub::AccessAuthorize;
using gloox::PubSub::AccessDefault;
using gloox::PubSub::AccessOpen;
using gloox::PubSub::AccessPresence;
using gloox::PubSub::AccessRoster;
using gloox::PubSub::AccessWhitelist;
using gloox::PubSub::NodeCollection;
using gloox::PubSub::NodeInvalid;
using gloox::PubSub::NodeLeaf;
using gloox::PubSub::SubscriptionItems;
using gloox::PubSub::SubscriptionNodes;

const std::string kConfigHead =
    "<x xmlns='jabber:x:data' type='submit'><field var='FORM_TYPE' type='hidden'>"
    "<value>http://jabber.org/protocol/pubsub#node_config</value></field>";

std::string iq(const std::string& type, const std::string& content) {
    return "<iq to='pubsub.example.org' id='ID' type='" + type + "'>" + content + "</iq>";
}

std::string field(const std::string& var, const std::string& value) {
    return "<field var='" + var + "'><value>" + value + "</value></field>";
}

class Operations : public Dialogue {
  protected:
    Operations() { logIn(); }

    void expectSent(const std::string& id, const std::string& expected) {
        ASSERT_NE(id, "");
        EXPECT_EQ(connection->sent.size(), 1u);
        EXPECT_EQ(last(), withId(expected, id));
    }
};

TEST_F(Operations, CreateNodeCreatesAndConfiguresInOneRequest) {
    expectSent(
        manager->createNode(NodeLeaf, service, "/a/b", &handler, "Mail & more", "/coll", AccessAuthorize,
                            nullptr),
        iq("set", "<pubsub xmlns='http://jabber.org/protocol/pubsub'><create node='/a/b'/><configure>" +
                      kConfigHead + field("pubsub#node_type", "leaf") +
                      field("pubsub#title", "Mail &amp; more") + field("pubsub#collection", "/coll") +
                      field("pubsub#access_model", "authorize") + "</x></configure></pubsub>"));
}

TEST_F(Operations, CreateNodeLeavesOutWhatIsNotGiven) {
    expectSent(manager->createNode(NodeInvalid, service, "n", &handler, "", "", AccessDefault, nullptr),
               iq("set", "<pubsub xmlns='http://jabber.org/protocol/pubsub'><create node='n'/><configure>" +
                             kConfigHead + "</x></configure></pubsub>"));
}

TEST_F(Operations, CreateNodeAppendsTheGivenConfiguration) {
    const xmpp::StringMap config{{"pubsub#max_items", "10"}, {"pubsub#deliver_payloads", "1"}};
    expectSent(manager->createNode(NodeCollection, service, "n", &handler, "", "", AccessDefault, &config),
               iq("set", "<pubsub xmlns='http://jabber.org/protocol/pubsub'><create node='n'/><configure>" +
                             kConfigHead + field("pubsub#node_type", "collection") +
                             field("pubsub#deliver_payloads", "1") + field("pubsub#max_items", "10") +
                             "</x></configure></pubsub>"));
}

struct Access {
    gloox::PubSub::AccessModel model;
    const char* word;
};
class AccessModels : public Operations, public testing::WithParamInterface<Access> {};

TEST_P(AccessModels, AreInTheFormByTheirName) {
    manager->createNode(NodeInvalid, service, "n", &handler, "", "", GetParam().model, nullptr);
    EXPECT_NE(last().find(field("pubsub#access_model", GetParam().word)), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(All, AccessModels,
                         testing::Values(Access{AccessOpen, "open"}, Access{AccessPresence, "presence"},
                                         Access{AccessRoster, "roster"}, Access{AccessAuthorize, "authorize"},
                                         Access{AccessWhitelist, "whitelist"}));

TEST_F(Operations, CreateKeyNodeCarriesTheNodeConfiguration) {
    expectSent(manager->createKeyNode(NodeLeaf, service, "/a", &handler, "t", "", AccessWhitelist, nullptr),
               iq("set", "<create-key-node xmlns='urn:zelt:pubsub:device:0' node='/a'>" + kConfigHead +
                             field("pubsub#node_type", "leaf") + field("pubsub#title", "t") +
                             field("pubsub#access_model", "whitelist") + "</x></create-key-node>"));
}

TEST_F(Operations, CreateKeyNodeMayAskForWebPushAndNameTheSender) {
    manager->createKeyNode(NodeLeaf, service, "/a", &handler, "", "", AccessDefault, nullptr,
                           {.wanted = true, .vapid = "BKEY"});
    EXPECT_NE(last().find("<create-key-node xmlns='urn:zelt:pubsub:device:0' node='/a' web-push='true' "
                          "vapid='BKEY'>"),
              std::string::npos);
}

TEST_F(Operations, DeleteNodeIsTheOwners) {
    expectSent(
        manager->deleteNode(service, "/a", &handler),
        iq("set", "<pubsub xmlns='http://jabber.org/protocol/pubsub#owner'><delete node='/a'/></pubsub>"));
}

TEST_F(Operations, PublishItemCarriesTheItemAsItStands) {
    auto* item = new gloox::Tag("item", "id", "7");
    new gloox::Tag(item, "payload", "two < three & \"four\"\r\n\tfive");
    expectSent(
        manager->publishItem(service, "/a", item, &handler),
        iq("set",
           "<pubsub xmlns='http://jabber.org/protocol/pubsub'><publish node='/a'><item id='7'><payload>"
           "two &lt; three &amp; &quot;four&quot;&#13;\n\tfive</payload></item></publish></pubsub>"));
}

TEST_F(Operations, PublishItemWithoutAnItemNamesTheNodeAlone) {
    expectSent(manager->publishItem(service, "/a", nullptr, &handler),
               iq("set", "<pubsub xmlns='http://jabber.org/protocol/pubsub'><publish node='/a'/></pubsub>"));
}

TEST_F(Operations, NodeConfigWithoutAFormReadsTheConfiguration) {
    expectSent(
        manager->nodeConfig(service, "/a", nullptr, &handler),
        iq("get", "<pubsub xmlns='http://jabber.org/protocol/pubsub#owner'><configure node='/a'/></pubsub>"));
}

TEST_F(Operations, NodeConfigWithAFormStoresIt) {
    auto* form = new gloox::DataForm(gloox::TypeSubmit);
    form->addField(gloox::DataFormField::TypeHidden, "FORM_TYPE",
                   "http://jabber.org/protocol/pubsub#node_config");
    form->addField(gloox::DataFormField::TypeNone, "pubsub#access_model", "open");
    expectSent(manager->nodeConfig(service, "/a", form, &handler),
               iq("set",
                  "<pubsub xmlns='http://jabber.org/protocol/pubsub#owner'><configure node='/a'>"
                  "<x xmlns='jabber:x:data' type='submit'><field type='hidden' var='FORM_TYPE'>"
                  "<value>http://jabber.org/protocol/pubsub#node_config</value></field>"
                  "<field var='pubsub#access_model'><value>open</value></field></x></configure></pubsub>"));
}

std::string subscribing(const std::string& options) {
    return iq(
        "set",
        "<pubsub xmlns='http://jabber.org/protocol/pubsub'><subscribe node='/a' jid='me@example.org'/>" +
            options + "</pubsub>");
}

std::string optionsForm(const std::string& fields) {
    return "<options><x xmlns='jabber:x:data' type='submit'><field var='FORM_TYPE' type='hidden'>"
           "<value>http://jabber.org/protocol/pubsub#subscribe_options</value></field>" +
           fields + "</x></options>";
}

struct Subscription {
    gloox::PubSub::SubscriptionObject object;
    int depth;
    std::string options;
};
class Subscribing : public Operations, public testing::WithParamInterface<Subscription> {};

TEST_P(Subscribing, WritesOptionsOnlyWhereTheyDiffer) {
    const auto& [object, depth, options] = GetParam();
    expectSent(manager->subscribe(service, "/a", &handler, gloox::JID("me@example.org"), object, depth),
               subscribing(options));
}

INSTANTIATE_TEST_SUITE_P(
    All, Subscribing,
    testing::Values(
        Subscription{SubscriptionNodes, 1, ""},
        Subscription{SubscriptionNodes, 0, optionsForm(field("pubsub#subscription_depth", "all"))},
        Subscription{SubscriptionNodes, 3, optionsForm(field("pubsub#subscription_depth", "3"))},
        Subscription{SubscriptionItems, 1, optionsForm(field("pubsub#subscription_type", "items"))},
        Subscription{SubscriptionItems, 0,
                     optionsForm(field("pubsub#subscription_type", "items") +
                                 field("pubsub#subscription_depth", "all"))}));

TEST_F(Operations, UnsubscribeNamesTheSubscription) {
    expectSent(manager->unsubscribe(service, "/a", &handler, "s7", gloox::JID("me@example.org/tv")),
               iq("set",
                  "<pubsub xmlns='http://jabber.org/protocol/pubsub'>"
                  "<unsubscribe node='/a' jid='me@example.org/tv' subid='s7'/></pubsub>"));
}

TEST_F(Operations, UnsubscribeWithoutASubidLeavesItOut) {
    expectSent(manager->unsubscribe(service, "/a", &handler, "", gloox::JID("me@example.org")),
               iq("set",
                  "<pubsub xmlns='http://jabber.org/protocol/pubsub'>"
                  "<unsubscribe node='/a' jid='me@example.org'/></pubsub>"));
}

TEST_F(Operations, GetKeyAsksForOneKey) {
    expectSent(manager->getKey(service, "/a", &handler),
               iq("get", "<key xmlns='urn:zelt:pubsub:device:0' node='/a'/>"));
}

TEST_F(Operations, ActivateNodeSendsTheLastNumber) {
    expectSent(manager->activateNode(service, "/a", "41", &handler),
               iq("set", "<activate xmlns='urn:zelt:pubsub:device:0' node='/a' seqNo='41'/>"));
}

TEST_F(Operations, ActivateNodeWithoutANumberLeavesItOut) {
    expectSent(manager->activateNode(service, "/a", "", &handler),
               iq("set", "<activate xmlns='urn:zelt:pubsub:device:0' node='/a'/>"));
}

TEST_F(Operations, DeActivateNodeNamesTheNode) {
    expectSent(manager->deActivateNode(service, "/a", &handler),
               iq("set", "<deactivate xmlns='urn:zelt:pubsub:device:0' node='/a'/>"));
}

TEST_F(Operations, BulkActivateListsTheNodesEmptyAndRepeatedOnesToo) {
    expectSent(
        manager->bulkActivate(service, {"/a", "", "/a"}, &handler),
        iq("set",
           "<activate-nodes xmlns='urn:zelt:pubsub:device:0'><node id='/a'/><node id=''/><node id='/a'/>"
           "</activate-nodes>"));
}

TEST_F(Operations, ActivationsMayLimitTheNodeToOneItem) {
    expectSent(manager->activateNode(service, "/a", "42", &handler, true),
               iq("set", "<activate xmlns='urn:zelt:pubsub:device:0' node='/a' seqNo='42' limit='1'/>"));
    expectSent(manager->bulkActivate(service, {"/a", "/b"}, &handler, true),
               iq("set",
                  "<activate-nodes xmlns='urn:zelt:pubsub:device:0'><node id='/a' limit='1'/>"
                  "<node id='/b' limit='1'/></activate-nodes>"));
}

TEST_F(Operations, ActivationsWithALimitMaySayTheLeastUrgency) {
    expectSent(manager->activateNode(service, "/a", "", &handler, true, "high"),
               iq("set", "<activate xmlns='urn:zelt:pubsub:device:0' node='/a' limit='1' urgency='high'/>"));
    expectSent(manager->bulkActivate(service, {"/a", "/b"}, &handler, true, "low"),
               iq("set",
                  "<activate-nodes xmlns='urn:zelt:pubsub:device:0'><node id='/a' limit='1' urgency='low'/>"
                  "<node id='/b' limit='1' urgency='low'/></activate-nodes>"));
    expectSent(manager->activateNode(service, "/a", "", &handler, false, "high"),
               iq("set", "<activate xmlns='urn:zelt:pubsub:device:0' node='/a'/>"));
}

TEST_F(Operations, AckItemMayNameTheNumber) {
    manager->ackItem(service, "/a", "i1", "42");
    EXPECT_NE(
        connection->sent.back().find("<ack xmlns='urn:zelt:pubsub:device:0' node='/a' id='i1' seqNo='42'/>"),
        std::string::npos);
}

TEST_F(Operations, WaitingItemsAsksForTheNodes) {
    expectSent(
        manager->waitingItems(service, {"/a", "/b"}, &handler),
        iq("get", "<waiting xmlns='urn:zelt:pubsub:device:0'><node id='/a'/><node id='/b'/></waiting>"));
}

TEST_F(Operations, TraceAsksForOneItem) {
    expectSent(manager->trace(service, "trace-'1'", &handler),
               iq("get", "<trace xmlns='urn:zelt:pubsub:device:0' id='trace-&apos;1&apos;'/>"));
}

TEST_F(Operations, BulkDeleteOfNothingIsAnEmptyList) {
    expectSent(manager->bulkDelete(service, {}, &handler),
               iq("set", "<delete-nodes xmlns='urn:zelt:pubsub:device:0'/>"));
}

TEST_F(Operations, GetPendingRequestExecutesTheCommand) {
    expectSent(manager->getPendingRequest(service, &handler),
               iq("set",
                  "<command xmlns='http://jabber.org/protocol/commands' "
                  "node='http://jabber.org/protocol/pubsub#get-pending' action='execute'/>"));
}

TEST_F(Operations, GetPendingNodeRequestSubmitsTheNodeInTheSession) {
    expectSent(manager->getPendingNodeRequest(service, "/a", "session 1", &handler),
               iq("set",
                  "<command xmlns='http://jabber.org/protocol/commands' "
                  "node='http://jabber.org/protocol/pubsub#get-pending' action='execute' "
                  "sessionid='session 1'><x xmlns='jabber:x:data' type='submit'>" +
                      field("pubsub#node", "/a") + "</x></command>"));
}

TEST_F(Operations, ApprovePendingAnswersTheMessageThatAsked) {
    EXPECT_EQ(manager->approvePending(service, "/a", "form-1", "s1", "true", "you@example.org"), "form-1");
    EXPECT_EQ(last(),
              "<message to='pubsub.example.org' id='form-1'><x xmlns='jabber:x:data' type='submit'>"
              "<field var='FORM_TYPE' type='hidden'>"
              "<value>http://jabber.org/protocol/pubsub#subscribe_authorization</value></field>" +
                  field("pubsub#subid", "s1") + field("pubsub#node", "/a") +
                  field("pubsub#subscriber_jid", "you@example.org") + field("pubsub#allow", "true") +
                  "</x></message>");
}

TEST_F(Operations, ApprovePendingWithoutAnIdTakesAFreshOne) {
    expectSent(manager->approvePending(service, "/a", "", "", "false", "you@example.org"),
               "<message to='pubsub.example.org' id='ID'><x xmlns='jabber:x:data' type='submit'>"
               "<field var='FORM_TYPE' type='hidden'>"
               "<value>http://jabber.org/protocol/pubsub#subscribe_authorization</value></field>" +
                   field("pubsub#subid", "") + field("pubsub#node", "/a") +
                   field("pubsub#subscriber_jid", "you@example.org") + field("pubsub#allow", "false") +
                   "</x></message>");
}

TEST_F(Operations, AckItemIsAMessageToTheService) {
    const std::string id = manager->ackItem(service, "/a", "item-9");
    EXPECT_EQ(last(), "<message to='pubsub.example.org' id='" + id +
                          "'><ack xmlns='urn:zelt:pubsub:device:0' node='/a' id='item-9'/></message>");
}

TEST_F(Operations, AckItemGivesTabsAndLineBreaksBackAsReferences) {
    const std::string id = manager->ackItem(service, "/a\tb", "1\t2\n3\r4'");
    EXPECT_EQ(last(), "<message to='pubsub.example.org' id='" + id +
                          "'><ack xmlns='urn:zelt:pubsub:device:0' node='/a&#9;b' "
                          "id='1&#9;2&#10;3&#13;4&apos;'/></message>");
}

TEST_F(Operations, ActivateNodeGivesTabsAndLineBreaksOfTheNumberBack) {
    manager->activateNode(service, "/a", "4\t1\n", &handler);
    EXPECT_NE(last().find(" seqNo='4&#9;1&#10;'/>"), std::string::npos);
}

TEST_F(Operations, IdsNeverRepeatAcrossManagers) {
    const std::string first = manager->getKey(service, "/a", &handler);
    xmpp::Manager second(client);
    const std::string other = second.getKey(service, "/a", &handler);
    EXPECT_NE(first, other);
    EXPECT_GT(first.size(), 36u);
    EXPECT_EQ(manager->getKey(service, "/a", &handler), "");
}

}  // namespace
