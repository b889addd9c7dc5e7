// SPDX-License-Identifier: GPL-3.0-only
// Answers of the service and of other entities, and the calls of the result handlers.
#include <memory>

#include "tests/fakes/logcapture.h"
#include "tests/unit/xmpp/dialogue.h"

namespace {

using gloox::PubSub::AccessDefault;
using gloox::PubSub::NodeLeaf;
using gloox::PubSub::SubscriptionNodes;

const std::string kForbidden =
    "<error type='auth' code='403'><forbidden xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/>"
    "<text xmlns='urn:ietf:params:xml:ns:xmpp-stanzas' xml:lang='en'>no</text>"
    "<closed-node xmlns='http://jabber.org/protocol/pubsub#errors'/><other xmlns='urn:example'/></error>";
const std::string kUndefined =
    "<error type='cancel'><undefined-condition xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>";

// One operation, its call on success without any payload in the answer, and how that call begins on an error.
struct Case {
    std::string name;
    std::function<std::string(xmpp::Manager&, const gloox::JID&, xmpp::ResultHandler*)> run;
    std::string bare;
    std::string failed;
};

std::ostream& operator<<(std::ostream& out, const Case& each) {
    return out << each.name;
}

const gloox::JID kMe("me@example.org/tv");

std::vector<Case> cases() {
    using M = xmpp::Manager;
    using J = gloox::JID;
    using H = xmpp::ResultHandler*;
    return {
        {"createNode",
         [](M& m, const J& s, H h) {
             return m.createNode(NodeLeaf, s, "/a", h, "", "", AccessDefault, nullptr);
         },
         "creation ID pubsub.example.org /a", "creation ID pubsub.example.org /a"},
        {"createKeyNode",
         [](M& m, const J& s, H h) {
             return m.createKeyNode(NodeLeaf, s, "/a", h, "", "", AccessDefault, nullptr);
         },
         "createKey ID pubsub.example.org key  status ", "createKey ID pubsub.example.org key  status "},
        {"deleteNode", [](M& m, const J& s, H h) { return m.deleteNode(s, "/a", h); },
         "nodeDeletation ID pubsub.example.org /a", "nodeDeletation ID pubsub.example.org /a"},
        {"publishItem",
         [](M& m, const J& s, H h) { return m.publishItem(s, "/a", new gloox::Tag("item"), h); },
         "publication ID pubsub.example.org /a", "publication ID pubsub.example.org /a"},
        {"readConfig", [](M& m, const J& s, H h) { return m.nodeConfig(s, "/a", nullptr, h); },
         "config ID pubsub.example.org /a form none", "config ID pubsub.example.org /a form none"},
        {"storeConfig",
         [](M& m, const J& s, H h) {
             return m.nodeConfig(s, "/a", new gloox::DataForm(gloox::TypeSubmit), h);
         },
         "configResult ID pubsub.example.org /a", "configResult ID pubsub.example.org /a"},
        {"subscribe",
         [](M& m, const J& s, H h) { return m.subscribe(s, "/a", h, kMe, SubscriptionNodes, 1); },
         "subscription ID pubsub.example.org /a subid  me@example.org/tv type 1",
         "subscription ID pubsub.example.org /a subid  me@example.org/tv type 4"},
        {"unsubscribe", [](M& m, const J& s, H h) { return m.unsubscribe(s, "/a", h, "s1", kMe); },
         "unsubscription ID pubsub.example.org /a subid s1 me@example.org/tv",
         "unsubscription ID pubsub.example.org /a subid s1 me@example.org/tv"},
        {"getKey", [](M& m, const J& s, H h) { return m.getKey(s, "/a", h); },
         "getKey ID pubsub.example.org key ", "getKey ID pubsub.example.org key "},
        {"activateNode", [](M& m, const J& s, H h) { return m.activateNode(s, "/a", "1", h); },
         "activate ID pubsub.example.org /a", "activate ID pubsub.example.org /a"},
        {"deActivateNode", [](M& m, const J& s, H h) { return m.deActivateNode(s, "/a", h); },
         "deActivate ID pubsub.example.org /a", "deActivate ID pubsub.example.org /a"},
        {"bulkActivate", [](M& m, const J& s, H h) { return m.bulkActivate(s, {"/a"}, h); },
         "bulkActivate ID pubsub.example.org", "bulkActivate ID pubsub.example.org"},
        {"waitingItems", [](M& m, const J& s, H h) { return m.waitingItems(s, {"/a"}, h); },
         "waiting ID pubsub.example.org", "waiting ID pubsub.example.org"},
        {"trace", [](M& m, const J& s, H h) { return m.trace(s, "trace-1", h); },
         "trace ID pubsub.example.org trace-1 now=0", "trace ID pubsub.example.org trace-1 now=0"},
        {"bulkDelete", [](M& m, const J& s, H h) { return m.bulkDelete(s, {"/a"}, h); },
         "bulkDelete ID pubsub.example.org", "bulkDelete ID pubsub.example.org"},
        {"getPendingRequest", [](M& m, const J& s, H h) { return m.getPendingRequest(s, h); },
         "pending ID session : no list", "pending ID session : no list"},
        {"getPendingNodeRequest",
         [](M& m, const J& s, H h) { return m.getPendingNodeRequest(s, "/a", "x", h); },
         "pendingNode ID pubsub.example.org /a", "pendingNode ID pubsub.example.org /a"},
    };
}

class EveryOperation : public Dialogue, public testing::WithParamInterface<Case> {
  protected:
    EveryOperation() {
        logIn();
        id = GetParam().run(*manager, service, &handler);
    }
    std::string expected(const std::string& call) {
        return call.substr(0, call.find("ID")) + id + call.substr(call.find("ID") + 2);
    }

    std::string id;
};

TEST_P(EveryOperation, TakesAnAnswerWithoutPayloadForAnAnswer) {
    answer(id, "result");
    EXPECT_EQ(handler.calls, std::vector<std::string>{expected(GetParam().bare)});
}

TEST_P(EveryOperation, PassesOnTheErrorAsTheServerSentIt) {
    answer(id, "error", "<pubsub xmlns='http://jabber.org/protocol/pubsub'/>" + kForbidden);
    EXPECT_EQ(handler.calls, std::vector<std::string>{expected(GetParam().failed) + " error " + kForbidden});
}

TEST_P(EveryOperation, TakesAnErrorWithoutItsElementForAnError) {
    answer(id, "error");
    EXPECT_EQ(handler.calls, std::vector<std::string>{expected(GetParam().failed) + " error " + kUndefined});
}

TEST_P(EveryOperation, IgnoresTheAnswersOfStrangersAndTakesTheRightOneAfterwards) {
    for (const char* from : {" from='mallory@evil.example/x'", " from='device@example.org'",
                             " from='example.org'", " from='pubsub.example.org/other'", "", " from=''"})
        say("<iq type='result' id='" + id + "'" + from + "/>");
    EXPECT_TRUE(handler.calls.empty());
    LogCapture log;
    say("<iq type='result' id='" + id + "' from='mallory@evil.example/x'/>");
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"handleAnswer: Ignored an answer from mallory@evil.example/x to a "
                                       "request that pubsub.example.org was asked"});
    answer(id, "result");
    EXPECT_EQ(handler.calls.size(), 1u);
}

TEST_P(EveryOperation, AnswersOnce) {
    answer(id, "result");
    answer(id, "result");
    answer(id, "error", kForbidden);
    EXPECT_EQ(handler.calls.size(), 1u);
}

TEST_P(EveryOperation, MayDetachTheManagerInItsHandler) {
    handler.then = [this] { manager->detach(); };
    answer(id, "result");
    answer(id, "result");
    EXPECT_EQ(handler.calls.size(), 1u);
    EXPECT_EQ(GetParam().run(*manager, service, &handler), "");
}

TEST_P(EveryOperation, MayDeleteTheManagerInItsHandler) {
    handler.then = [this] { delete std::exchange(manager, nullptr); };
    answer(id, "error", kForbidden);
    EXPECT_EQ(handler.calls.size(), 1u);
}

TEST_P(EveryOperation, MayDisposeOfTheClientInItsHandler) {
    handler.then = [this] { disposeClient(); };
    say("<iq type='result' id='" + id + "' from='pubsub.example.org'/><message from='pubsub.example.org'/>");
    EXPECT_EQ(handler.calls.size(), 1u);
    EXPECT_EQ(listener.count("message"), 0);
    EXPECT_FALSE(clientDeleted);
    settle();
    EXPECT_TRUE(clientDeleted);
}

TEST_P(EveryOperation, MayAskAgainInItsHandler) {
    std::string again;
    handler.then = [this, &again] {
        handler.then = nullptr;
        again = GetParam().run(*manager, service, &handler);
    };
    answer(id, "result");
    ASSERT_NE(again, "");
    EXPECT_NE(again, id);
    answer(again, "result");
    EXPECT_EQ(handler.calls.size(), 2u);
}

TEST_P(EveryOperation, IsNotSentWithoutAHandlerOrAService) {
    connection->sent.clear();
    EXPECT_EQ(GetParam().run(*manager, service, nullptr), "");
    EXPECT_EQ(GetParam().run(*manager, gloox::JID(), &handler), "");
    EXPECT_TRUE(connection->sent.empty());
}

TEST_P(EveryOperation, IsRefusedOnceTheClientIsGone) {
    disposeClient();
    EXPECT_EQ(GetParam().run(*manager, service, &handler), "");
}

INSTANTIATE_TEST_SUITE_P(All, EveryOperation, testing::ValuesIn(cases()),
                         [](const auto& each) { return each.param.name; });

class Answers : public Dialogue {
  protected:
    Answers() { logIn(); }
    std::string call() { return handler.calls.empty() ? "" : handler.calls.back(); }
};

TEST_F(Answers, KnowThePreparedFormOfTheService) {
    const std::string id = manager->getKey(service, "/a", &handler);
    say("<iq type='result' id='" + id + "' from='PubSub.Example.ORG'><key node='/a'>k</key></iq>");
    EXPECT_EQ(call(), "getKey " + id + " pubsub.example.org key k");
}

TEST_F(Answers, OfCreateKeyNodeGiveKeyAndStatus) {
    const std::string id =
        manager->createKeyNode(NodeLeaf, service, "/a", &handler, "", "", AccessDefault, nullptr);
    answer(id, "result", "<key xmlns='urn:zelt:pubsub:device:0' node='/a' status='exists'>K-1_x</key>");
    EXPECT_EQ(call(), "createKey " + id + " pubsub.example.org key K-1_x status exists");
}

TEST_F(Answers, OfAKeyGiveItsAddress) {
    const std::string key =
        "<key xmlns='urn:zelt:pubsub:device:0' node='/a' url='https://push.example.org/push/K'>K</key>";
    std::string id =
        manager->createKeyNode(NodeLeaf, service, "/a", &handler, "", "", AccessDefault, nullptr);
    answer(id, "result", key);
    EXPECT_EQ(call(),
              "createKey " + id + " pubsub.example.org key K status  url https://push.example.org/push/K");
    id = manager->getKey(service, "/a", &handler);
    answer(id, "result", key);
    EXPECT_EQ(call(), "getKey " + id + " pubsub.example.org key K url https://push.example.org/push/K");
}

struct State {
    const char* attribute;
    int type;
};
class SubscriptionStates : public Answers, public testing::WithParamInterface<State> {};

TEST_P(SubscriptionStates, BecomeSubscriptionTypes) {
    const std::string id = manager->subscribe(service, "/a", &handler, kMe, SubscriptionNodes, 1);
    answer(
        id, "result",
        "<pubsub xmlns='http://jabber.org/protocol/pubsub'><subscription node='/a' jid='Me@example.org/tv' "
        "subid='s9' subscription='" +
            std::string(GetParam().attribute) + "'/></pubsub>");
    EXPECT_EQ(call(), "subscription " + id + " pubsub.example.org /a subid s9 me@example.org/tv type " +
                          std::to_string(GetParam().type));
}

INSTANTIATE_TEST_SUITE_P(All, SubscriptionStates,
                         testing::Values(State{"none", gloox::PubSub::SubscriptionNone},
                                         State{"subscribed", gloox::PubSub::SubscriptionSubscribed},
                                         State{"pending", gloox::PubSub::SubscriptionPending},
                                         State{"unconfigured", gloox::PubSub::SubscriptionUnconfigured},
                                         State{"", gloox::PubSub::SubscriptionSubscribed},
                                         State{"odd", gloox::PubSub::SubscriptionInvalid}));

TEST_F(Answers, OfNodeConfigGiveTheForm) {
    const std::string id = manager->nodeConfig(service, "/a", nullptr, &handler);
    answer(id, "result",
           "<pubsub xmlns='http://jabber.org/protocol/pubsub#owner'><configure node='/a'><x "
           "xmlns='jabber:x:data' "
           "type='form'><field var='pubsub#access_model' type='list-single'><value>open</value></field></x>"
           "</configure></pubsub>");
    EXPECT_EQ(call(), "config " + id + " pubsub.example.org /a form open");
}

TEST_F(Answers, OfGetPendingRequestNameANodeOnce) {
    const std::string id = manager->getPendingRequest(service, &handler);
    answer(id, "result",
           "<command xmlns='http://jabber.org/protocol/commands' sessionid='S' status='executing' "
           "node='http://jabber.org/protocol/pubsub#get-pending'><x xmlns='jabber:x:data' type='form'>"
           "<field var='FORM_TYPE' type='hidden'><value>f</value></field>"
           "<field var='pubsub#node' "
           "type='list-single'><option><value>/b</value></option><option><value>/a</value>"
           "</option><option><value>/b</value></option><option/></field></x></command>");
    EXPECT_EQ(call(), "pending " + id + " session S: /b /a");
}

TEST_F(Answers, OfGetPendingRequestWithoutTheFieldHoldNoList) {
    const std::string id = manager->getPendingRequest(service, &handler);
    answer(id, "result", "<command xmlns='http://jabber.org/protocol/commands' sessionid='S'><x/></command>");
    EXPECT_EQ(call(), "pending " + id + " session S: no list");
}

TEST_F(Answers, OfABulkListGiveTheFirstNamedFailure) {
    const LogCapture log;
    const std::string id = manager->bulkActivate(service, {"/a", "/b", "/c"}, &handler);
    answer(id, "result",
           "<activate-nodes xmlns='urn:zelt:pubsub:device:0'><node id='/b'>" + kForbidden +
               "</node><node id='/c'><error type='cancel'/></node></activate-nodes>");
    EXPECT_EQ(call(), "bulkActivate " + id + " pubsub.example.org error " + kForbidden);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "handleBulkAnswer: Bulk activation failed for 2 of its nodes, first: " + kForbidden}));
}

TEST_F(Answers, OfABulkActivationTellWhichNodesFailedAndWhetherForNow) {
    const std::string id = manager->bulkActivate(service, {"/a", "/b", "/c"}, &handler);
    answer(id, "result",
           "<activate-nodes xmlns='urn:zelt:pubsub:device:0'><node id='/b' error='item-not-found'/>"
           "<node id='/c' error='resource-constraint'/></activate-nodes>");
    const std::string xmlns = " xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>";
    EXPECT_EQ(handler.failures,
              (std::vector<std::string>{"/b for good: <error type='cancel'><item-not-found" + xmlns,
                                        "/c for now: <error type='wait'><resource-constraint" + xmlns}));
}

TEST_F(Answers, OfABulkListTakeAConditionForAnError) {
    const std::string id = manager->bulkDelete(service, {"/a"}, &handler);
    answer(id, "result",
           "<delete-nodes xmlns='urn:zelt:pubsub:device:0'><node id='/a' error='conflict'/></delete-nodes>");
    EXPECT_EQ(call(), "bulkDelete " + id +
                          " pubsub.example.org error <error type='cancel'>"
                          "<conflict xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>");
}

TEST_F(Answers, ToNobodysRequestAreDropped) {
    const std::string id = manager->getKey(service, "/a", &handler);
    answer(id + "0", "result");
    say("<iq type='result' from='pubsub.example.org'/><iq type='error' id='' from='pubsub.example.org'/>");
    EXPECT_TRUE(handler.calls.empty());
    EXPECT_TRUE(connection->sent.size() == 1);
}

TEST_F(Answers, AreForgottenWithTheManager) {
    const std::string id = manager->getKey(service, "/a", &handler);
    manager->detach();
    answer(id, "result");
    EXPECT_TRUE(handler.calls.empty());
}

class LongLists : public Answers {
  protected:
    gloox::StringList nodes(int count) {
        gloox::StringList list;
        for (int i = 0; i < count; ++i)
            list.push_back("/device/tv/com.example.application/endpoint" + std::to_string(i));
        return list;
    }
    static std::string idOf(const std::string& stanza) {
        const std::size_t begin = stanza.find(" id='") + 5;
        return stanza.substr(begin, stanza.find('\'', begin) - begin);
    }
};

TEST_F(LongLists, GoOutInSeveralStanzasThatHoldEveryNodeOnceInOrder) {
    const gloox::StringList list = nodes(10'000);
    ASSERT_NE(manager->bulkDelete(service, list, &handler), "");
    EXPECT_GT(connection->sent.size(), 4u);
    std::string expected, found;
    for (const std::string& node : list)
        expected += "<node id='" + node + "'/>";
    for (const std::string& stanza : connection->sent) {
        EXPECT_LT(stanza.size(), 262'144u);
        const std::string head = "<iq to='pubsub.example.org' id='" + idOf(stanza) +
                                 "' type='set'><delete-nodes xmlns='urn:zelt:pubsub:device:0'>";
        const std::string tail = "</delete-nodes></iq>";
        ASSERT_TRUE(stanza.starts_with(head) && stanza.ends_with(tail));
        found += stanza.substr(head.size(), stanza.size() - head.size() - tail.size());
    }
    EXPECT_EQ(found, expected);
}

TEST_F(LongLists, AreAnsweredOnceUnderTheFirstIdWhenTheLastPartHasBeen) {
    const std::string id = manager->bulkDelete(service, nodes(10'000), &handler);
    const std::vector<std::string> parts = connection->sent;
    EXPECT_EQ(idOf(parts.front()), id);
    for (auto part = parts.rbegin(); part != parts.rend(); ++part) {
        EXPECT_TRUE(handler.calls.empty());
        answer(idOf(*part), "result");
    }
    EXPECT_EQ(handler.calls, std::vector<std::string>{"bulkDelete " + id + " pubsub.example.org"});
}

TEST_F(LongLists, OfCountsAreAnsweredOnceWithTheCountsOfAllParts) {
    const std::string id = manager->waitingItems(service, nodes(10'000), &handler);
    const std::vector<std::string> parts = connection->sent;
    ASSERT_GE(parts.size(), 3u);
    answer(idOf(parts[0]), "result",
           "<waiting xmlns='urn:zelt:pubsub:device:0'><node id='/a' count='3'/></waiting>");
    answer(idOf(parts[1]), "error", kForbidden);
    for (std::size_t i = 2; i < parts.size(); ++i) {
        EXPECT_TRUE(handler.calls.empty());
        answer(idOf(parts[i]), "result",
               "<waiting xmlns='urn:zelt:pubsub:device:0'><node id='/b' count='0'/></waiting>");
    }
    EXPECT_EQ(handler.calls, std::vector<std::string>{"waiting " + id +
                                                      " pubsub.example.org /a=3 /b=0 error " + kForbidden});
}

TEST_F(LongLists, FailWhenAnyPartFails) {
    const std::string id = manager->bulkActivate(service, nodes(10'000), &handler);
    const std::vector<std::string> parts = connection->sent;
    answer(idOf(parts[1]), "error", kForbidden);
    for (const std::string& part : parts)
        answer(idOf(part), "result");
    EXPECT_EQ(handler.calls,
              std::vector<std::string>{"bulkActivate " + id + " pubsub.example.org error " + kForbidden});
    ASSERT_FALSE(handler.failures.empty());
    EXPECT_LT(handler.failures.size(), 10'000u);
    for (const std::string& failure : handler.failures) {
        const std::string node = failure.substr(0, failure.find(' '));
        EXPECT_EQ(failure, node + " for good: " + kForbidden);
        EXPECT_NE(parts[1].find("<node id='" + node + "'/>"), std::string::npos) << node;
    }
}

}  // namespace
