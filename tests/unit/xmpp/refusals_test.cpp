// SPDX-License-Identifier: GPL-3.0-only
// Texts that must not be sent, and operations that wait for the stream.
#include <gloox/dataform.h>

#include <memory>

#include "tests/fakes/logcapture.h"
#include "tests/unit/xmpp/dialogue.h"
#include "xmpp/xmltext.h"

namespace {

using gloox::PubSub::AccessDefault;
using gloox::PubSub::NodeLeaf;
using gloox::PubSub::SubscriptionNodes;

const gloox::JID kMe("me@example.org/tv");

// Not allowed in any text of a stanza.
const std::vector<std::string> kBadTexts = {std::string("nul\0nul", 7),
                                            "bell\x07",
                                            "escape\x1b[0m",
                                            "\x1f",
                                            "lone \xff",
                                            "cut \xe2\x82",
                                            "overlong \xc0\xaf",
                                            "overlong \xe0\x80\xaf",
                                            "overlong \xf0\x80\x80\xaf",
                                            "surrogate \xed\xa0\x80",
                                            "U+FFFE \xef\xbf\xbe",
                                            "U+FFFF \xef\xbf\xbf",
                                            "above U+10FFFF \xf4\x90\x80\x80",
                                            "five bytes \xf8\x88\x80\x80\x80",
                                            "tail \x80"};
// Not allowed in names either, since a parser turns them into spaces.
const std::vector<std::string> kBadNames = {"tab\tin", "line\nin", "return\rin"};

std::vector<std::string> badNames() {
    std::vector<std::string> all = kBadTexts;
    all.insert(all.end(), kBadNames.begin(), kBadNames.end());
    return all;
}

const std::string kUnsendable =
    "it holds a control character, a line break in a name, a bad or missing name or text that is not UTF-8";

gloox::DataForm* formWith(const std::string& name, const std::string& value) {
    auto* form = new gloox::DataForm(gloox::TypeSubmit);
    form->addField(gloox::DataFormField::TypeNone, name, value);
    return form;
}

class BadNames : public Dialogue, public testing::WithParamInterface<std::string> {
  protected:
    BadNames() { logIn(); }
    ~BadNames() override { EXPECT_TRUE(connection->sent.empty()); }
};

TEST_P(BadNames, AreRefusedAsNodes) {
    const std::string& bad = GetParam();
    EXPECT_EQ(manager->createNode(NodeLeaf, service, bad, &handler, "", "", AccessDefault, nullptr), "");
    EXPECT_EQ(manager->createKeyNode(NodeLeaf, service, bad, &handler, "", "", AccessDefault, nullptr), "");
    EXPECT_EQ(manager->deleteNode(service, bad, &handler), "");
    EXPECT_EQ(manager->publishItem(service, bad, new gloox::Tag("item"), &handler), "");
    EXPECT_EQ(manager->nodeConfig(service, bad, nullptr, &handler), "");
    EXPECT_EQ(manager->nodeConfig(service, bad, new gloox::DataForm(gloox::TypeSubmit), &handler), "");
    EXPECT_EQ(manager->subscribe(service, bad, &handler, kMe, SubscriptionNodes, 1), "");
    EXPECT_EQ(manager->unsubscribe(service, bad, &handler, "s", kMe), "");
    EXPECT_EQ(manager->getKey(service, bad, &handler), "");
    EXPECT_EQ(manager->activateNode(service, bad, "1", &handler), "");
    EXPECT_EQ(manager->deActivateNode(service, bad, &handler), "");
}

TEST_P(BadNames, AreRefusedAsEveryOtherAttribute) {
    const std::string& bad = GetParam();
    EXPECT_EQ(manager->unsubscribe(service, "/a", &handler, bad, kMe), "");
    EXPECT_EQ(manager->getPendingNodeRequest(service, "/a", bad, &handler), "");
    EXPECT_EQ(manager->approvePending(service, "/a", bad, "s", "true", "x@y"), "");
    const xmpp::StringMap config{{bad, "1"}};
    EXPECT_EQ(manager->createNode(NodeLeaf, service, "/a", &handler, "", "", AccessDefault, &config), "");
    EXPECT_EQ(manager->nodeConfig(service, "/a", formWith(bad, "1"), &handler), "");
}

class BadEchoes : public BadNames {};

TEST_P(BadEchoes, AreRefusedAlsoInWhatOthersNamed) {
    const std::string& bad = GetParam();
    EXPECT_EQ(manager->ackItem(service, bad, "1"), "");
    EXPECT_EQ(manager->ackItem(service, "/a", bad), "");
    EXPECT_EQ(manager->activateNode(service, "/a", bad, &handler), "");
}

INSTANTIATE_TEST_SUITE_P(All, BadEchoes, testing::ValuesIn(kBadTexts));

TEST_F(Dialogue, RefusalsAreLoggedWithWhatTheyAreAboutMadePrintable) {
    logIn();
    LogCapture log;
    manager->getKey(service, "a\x07\n", &handler);
    manager->approvePending(service, "/a", "m\n", "s", "true", "x@y");
    manager->ackItem(service, "/a\x01", std::string(200, 'n'));
    EXPECT_EQ(log.lines().at(0), R"(mayPass: A request (a\007\n) was not sent: )" + kUnsendable);
    EXPECT_EQ(log.lines().at(1), R"(mayPass: A message (m\n) was not sent: )" + kUnsendable);
    EXPECT_EQ(log.lines().size(), 3u);
}

INSTANTIATE_TEST_SUITE_P(All, BadNames, testing::ValuesIn(badNames()));

class BadTexts : public Dialogue, public testing::WithParamInterface<std::string> {
  protected:
    BadTexts() { logIn(); }
};

TEST_P(BadTexts, AreRefusedAsFieldValues) {
    const std::string& bad = GetParam();
    EXPECT_EQ(manager->createNode(NodeLeaf, service, "/a", &handler, bad, "", AccessDefault, nullptr), "");
    EXPECT_EQ(manager->createNode(NodeLeaf, service, "/a", &handler, "", bad, AccessDefault, nullptr), "");
    const xmpp::StringMap config{{"pubsub#x", bad}};
    EXPECT_EQ(manager->createKeyNode(NodeLeaf, service, "/a", &handler, "", "", AccessDefault, &config), "");
    EXPECT_EQ(manager->nodeConfig(service, "/a", formWith("pubsub#x", bad), &handler), "");
    EXPECT_EQ(manager->getPendingNodeRequest(service, bad, "s", &handler), "");
    EXPECT_EQ(manager->approvePending(service, bad, "m", "s", "true", "x@y"), "");
    EXPECT_EQ(manager->approvePending(service, "/a", "m", bad, "true", "x@y"), "");
    EXPECT_EQ(manager->approvePending(service, "/a", "m", "s", bad, "x@y"), "");
    EXPECT_EQ(manager->approvePending(service, "/a", "m", "s", "true", bad), "");
    EXPECT_TRUE(connection->sent.empty());
}

TEST_P(BadTexts, AreNoXmlText) {
    EXPECT_FALSE(xmpp::isXmlText(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(All, BadTexts, testing::ValuesIn(kBadTexts));

class GoodTexts : public testing::TestWithParam<std::string> {};

TEST_P(GoodTexts, AreXmlText) {
    EXPECT_TRUE(xmpp::isXmlText(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(All, GoodTexts,
                         testing::Values("", "plain", "tab\tline\nreturn\r", "\x7f", "\xc2\x80", "\xdf\xbf",
                                         "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbd",
                                         "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf", "\xef\xb7\x90"));

class Forms : public Dialogue {
  protected:
    Forms() { logIn(); }
};

TEST_F(Forms, AreRefusedWithAFieldThatHasNoName) {
    LogCapture log;
    EXPECT_EQ(manager->nodeConfig(service, "/a", formWith("", "1"), &handler), "");
    EXPECT_TRUE(connection->sent.empty());
    EXPECT_EQ(log.lines(), std::vector<std::string>{"mayPass: A request (/a) was not sent: " + kUnsendable});
}

class PublishedItems : public Dialogue {
  protected:
    PublishedItems() { logIn(); }
    std::string publish(gloox::Tag* item) { return manager->publishItem(service, "/a", item, &handler); }
    static gloox::Tag* itemWith(const std::string& child) {
        auto* item = new gloox::Tag("item");
        new gloox::Tag(item, child);
        return item;
    }
};

class BadElements : public PublishedItems, public testing::WithParamInterface<std::string> {};

TEST_P(BadElements, AreRefusedAsElementAndAsAttribute) {
    EXPECT_EQ(publish(itemWith(GetParam())), "");
    auto* item = new gloox::Tag("item");
    item->addAttribute(GetParam(), "value");
    // gloox itself leaves out an attribute that it knows to be invalid.
    if (!item->attributes().empty()) {
        EXPECT_EQ(publish(item), "");
    } else {
        delete item;
    }
    EXPECT_TRUE(connection->sent.empty());
}

INSTANTIATE_TEST_SUITE_P(All, BadElements,
                         testing::Values("", "two words", "1st", "-dash", ".dot", "a<b", "a>b", "a&b", "a'b",
                                         "a\"b", "a/b", "a=b", "\xc2\xb7start", "\xff", "unbound:name",
                                         ":name", "name:", "a:b:c", "multi\xc3\x97ply", "\xe2\x82\xac"));

class GoodElements : public PublishedItems, public testing::WithParamInterface<std::string> {};

TEST_P(GoodElements, ArePublished) {
    EXPECT_NE(publish(itemWith(GetParam())), "");
    EXPECT_NE(last().find("<" + GetParam() + "/>"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(All, GoodElements,
                         testing::Values("payload", "_x", "a-b.c_d1", "\xc3\xa4rger",
                                         "\xe6\x97\xa5\xe6\x9c\xac"));

TEST_F(PublishedItems, MayHoldPrefixesThatTheyDeclare) {
    auto* item = new gloox::Tag("item");
    auto* outer = new gloox::Tag(item, "p:outer");
    outer->addAttribute("xmlns:p", "urn:example");
    new gloox::Tag(outer, "p:inner", "p:note", "1");
    EXPECT_NE(publish(item), "");
    EXPECT_EQ(publish(itemWith("p:outer")), "");
}

TEST_F(PublishedItems, MayNotUseAPrefixOutsideItsElement) {
    auto* item = new gloox::Tag("item");
    new gloox::Tag(item, "p:first", "xmlns:p", "urn:example");
    new gloox::Tag(item, "p:second");
    EXPECT_EQ(publish(item), "");
}

TEST_F(PublishedItems, MayNotBindWhatXmlReserves) {
    const std::pair<const char*, const char*> bindings[] = {
        {"xmlns:xmlns", "urn:example"},
        {"xmlns:xml", "urn:example"},
        {"xmlns:p", "http://www.w3.org/XML/1998/namespace"},
        {"xmlns:p", "http://www.w3.org/2000/xmlns/"},
        {"xmlns", "http://www.w3.org/XML/1998/namespace"},
        {"xmlns", "http://www.w3.org/2000/xmlns/"}};
    for (const auto& [name, uri] : bindings)
        EXPECT_EQ(publish(new gloox::Tag("item", name, uri)), "") << name << " " << uri;
    EXPECT_NE(publish(new gloox::Tag("item", "xml:lang", "de")), "");
}

TEST_F(PublishedItems, MayNotRepeatAnAttributeUnderTwoPrefixes) {
    auto* item = new gloox::Tag("item", "xmlns:a", "urn:example");
    item->addAttribute("xmlns:b", "urn:example");
    item->addAttribute("a:x", "1");
    item->addAttribute("b:x", "2");
    EXPECT_EQ(publish(item), "");
}

TEST_F(PublishedItems, MayHoldLineBreaksInTextButNotInAttributes) {
    auto* good = new gloox::Tag("item");
    new gloox::Tag(good, "payload", "one\n\ttwo");
    EXPECT_NE(publish(good), "");
    EXPECT_EQ(publish(new gloox::Tag("item", "note", "one\ntwo")), "");
    EXPECT_EQ(publish(new gloox::Tag("item", "note", "one\ttwo")), "");
}

TEST_F(PublishedItems, AreCheckedAtEveryDepth) {
    auto* item = new gloox::Tag("item");
    gloox::Tag* inner = item;
    for (int depth = 0; depth < 20; ++depth)
        inner = new gloox::Tag(inner, "level");
    inner->addAttribute("note", "\xed\xa0\x80");
    EXPECT_EQ(publish(item), "");
}

TEST_F(PublishedItems, OfBottomlessDepthAreRefused) {
    auto* item = new gloox::Tag("item");
    gloox::Tag* inner = item;
    for (int depth = 0; depth < 1'000; ++depth)
        inner = new gloox::Tag(inner, "level");
    EXPECT_EQ(publish(item), "");
}

TEST_F(PublishedItems, ReachTheServersLimitAndNoFurther) {
    const auto itemOf = [](std::size_t size) {
        auto* item = new gloox::Tag("item");
        item->setCData(std::string(size, 'x'));
        return item;
    };
    ASSERT_NE(publish(itemOf(1)), "");
    const std::size_t frame = connection->sent.back().size() - 1;
    connection->sent.clear();
    // Ids grow by a digit sometimes, and with them the rest of the stanza.
    EXPECT_NE(publish(itemOf(262'143 - frame - 8)), "");
    LogCapture log;
    EXPECT_EQ(publish(itemOf(270'000 - frame)), "");
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.lines().front().starts_with("mayPass: A request (/a) was not sent: its 27")) << log.raw();
    EXPECT_TRUE(log.lines().front().ends_with(" bytes are more than the server takes (262144)")) << log.raw();
    EXPECT_EQ(publish(itemOf(262'144 - frame)), "");
    EXPECT_EQ(connection->sent.size(), 1u);
}

class Lists : public Dialogue {
  protected:
    Lists() { logIn(); }
};

TEST_F(Lists, LeaveOutNamesThatCannotBeSent) {
    for (const std::string& bad : badNames()) {
        const std::string id = manager->bulkActivate(service, {"/a", bad, "/b"}, &handler);
        EXPECT_EQ(last(), "<iq to='pubsub.example.org' id='" + id +
                              "' type='set'><activate-nodes xmlns='urn:zelt:pubsub:device:0'><node id='/a'/>"
                              "<node id='/b'/></activate-nodes></iq>");
    }
}

TEST_F(Lists, LeaveOutANameThatFillsAStanza) {
    LogCapture log;
    const std::string id = manager->bulkDelete(service, {"/a", std::string(300'000, 'n')}, &handler);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"bulk: Left node " + std::string(120, 'n') +
                                                    " out of delete-nodes: its name cannot be sent"});
    EXPECT_EQ(last(), "<iq to='pubsub.example.org' id='" + id +
                          "' type='set'><delete-nodes xmlns='urn:zelt:pubsub:device:0'><node id='/a'/>"
                          "</delete-nodes></iq>");
}

TEST_F(Lists, AreNoPlaceForEmptyNodesOfSingleOperations) {
    EXPECT_EQ(manager->createNode(NodeLeaf, service, "", &handler, "", "", AccessDefault, nullptr), "");
    EXPECT_EQ(manager->deleteNode(service, "", &handler), "");
    EXPECT_EQ(manager->publishItem(service, "", new gloox::Tag("item"), &handler), "");
    EXPECT_EQ(manager->subscribe(service, "", &handler, kMe, SubscriptionNodes, 1), "");
    EXPECT_EQ(manager->getPendingNodeRequest(service, "", "s", &handler), "");
    EXPECT_EQ(manager->subscribe(service, "/a", &handler, gloox::JID(), SubscriptionNodes, 1), "");
    EXPECT_TRUE(connection->sent.empty());
}

// --- operations that wait for the stream

class BeforeTheStream : public Dialogue {};

TEST_F(BeforeTheStream, OperationsAreHeldAndSentInOrderBehindWhatTheListenerSends) {
    const std::string first = manager->getKey(service, "/a", &handler);
    listener.atConnect = [this] {
        client->setPresence(service, gloox::Presence::Available, 0, "online");
        manager->ackItem(service, "/c", "3");
    };
    logInUpToBind();
    const std::string second = manager->deActivateNode(service, "/b", &handler);
    bind();
    ASSERT_EQ(connection->sent.size(), 4u);
    EXPECT_EQ(connection->sent[0],
              "<presence to='pubsub.example.org' from='device@example.org/tv' xmlns='jabber:client'>"
              "<priority>0</priority><status>online</status></presence>");
    EXPECT_NE(connection->sent[1].find("<ack "), std::string::npos);
    EXPECT_NE(connection->sent[2].find(first), std::string::npos);
    EXPECT_NE(connection->sent[3].find(second), std::string::npos);
    answer(first, "result");
    answer(second, "result");
    EXPECT_EQ(handler.calls.size(), 2u);
}

TEST_F(BeforeTheStream, AThousandOperationsAreHeldAndNoMore) {
    for (int i = 0; i < 1'000; ++i)
        ASSERT_NE(manager->getKey(service, "/a", &handler), "");
    LogCapture log;
    EXPECT_EQ(manager->getKey(service, "/a", &handler), "");
    EXPECT_EQ(manager->bulkDelete(service, {"/a"}, &handler), "");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "mayPass: A request (/a) was not sent: 1000 others wait for the connection already",
                  "bulk: Too many operations wait for the connection, refused delete-nodes"}));
    EXPECT_EQ(manager->ackItem(service, "/a", "1"), "");
    logIn();
    EXPECT_EQ(connection->sent.size(), 1'000u);
    EXPECT_NE(manager->getKey(service, "/a", &handler), "");
}

TEST_F(BeforeTheStream, AManagerMadeAfterwardsHoldsNothing) {
    logIn();
    xmpp::Manager later(client);
    EXPECT_EQ(manager->getKey(service, "/a", &handler), "") << "it has lost its client";
    EXPECT_NE(later.getKey(service, "/a", &handler), "");
    EXPECT_EQ(connection->sent.size(), 1u);
}

TEST_F(BeforeTheStream, HeldOperationsGoWithTheClient) {
    EXPECT_NE(manager->getKey(service, "/a", &handler), "");
    logInUpToBind();
    connection->sent.clear();
    std::vector<std::string> sent;
    connection->whenDeleted = [this, &sent] { sent = connection->sent; };
    disposeClient();
    EXPECT_EQ(sent, std::vector<std::string>{"</stream:stream>"});
}

TEST_F(BeforeTheStream, NothingHeldIsSentWhenTheListenerDisposesOfTheClient) {
    manager->getKey(service, "/a", &handler);
    logInUpToBind();
    std::vector<std::string> sent;
    connection->whenDeleted = [this, &sent] { sent = connection->sent; };
    listener.atConnect = [this] { disposeClient(); };
    bind();
    settle();
    EXPECT_EQ(sent, std::vector<std::string>{"</stream:stream>"});
}

TEST_F(BeforeTheStream, OperationsAreHeldAgainAfterALoss) {
    logIn();
    connection->loses(gloox::ConnIoError);
    connection->sent.clear();
    for (int i = 0; i < 1000; ++i)
        ASSERT_NE(manager->getKey(service, "/a", &handler), "");
    EXPECT_EQ(manager->getKey(service, "/a", &handler), "") << "a thousand wait already";
    EXPECT_TRUE(connection->sent.empty());
}

TEST_F(BeforeTheStream, WhatTheListenerSendsCountsNotAmongAThousandThatWait) {
    for (int i = 0; i < 1'000; ++i)
        ASSERT_NE(manager->getKey(service, "/a", &handler), "");
    std::string bulk, second;
    listener.atConnect = [&] {
        bulk = manager->bulkActivate(service, {"/b"}, &handler);
        second = manager->getKey(service, "/c", &handler);
    };
    logIn();
    ASSERT_EQ(connection->sent.size(), 1'002u);
    EXPECT_NE(bulk, "");
    EXPECT_NE(connection->sent[0].find(bulk), std::string::npos);
    EXPECT_NE(connection->sent[1].find(second), std::string::npos);
}

// --- from one client to the next

class NextClient : public BeforeTheStream {
  protected:
    // Replaces the client by another one, of `account`.
    void next(const std::string& account = "device@example.org/tv") {
        disposeClient();
        settle();
        client = new xmpp::Client(gloox::JID(account), "secret", 5222);
        client->setTls(gloox::TLSDisabled);
        client->setPubSubService(service);
        client->registerConnectionListener(&listener);
        auto* later = new xmpp::Manager(client);
        later->setAwaited([this](const std::string& id) { return !gone.contains(id); });
        later->takeOver(*manager);
        delete std::exchange(manager, later);
        listener.events.clear();
    }
    std::vector<std::string> sentIds() const {
        std::vector<std::string> ids;
        for (const std::string& stanza : connection->sent) {
            const std::size_t begin = stanza.find(" id='") + 5;
            ids.push_back(stanza.substr(begin, stanza.find('\'', begin) - begin));
        }
        return ids;
    }
    std::set<std::string> gone;
};

TEST_F(NextClient, SendsWhatWaitedInItsOrderAheadOfItsOwn) {
    const std::string first = manager->getKey(service, "/a", &handler);
    const std::string ack = manager->ackItem(service, "/c", "3");
    next();
    const std::string second = manager->getKey(service, "/b", &handler);
    next();
    const std::string third = manager->getKey(service, "/b", &handler);
    logIn();
    EXPECT_EQ(sentIds(), (std::vector<std::string>{first, ack, second, third}));
    answer(first, "result");
    answer(third, "result");
    EXPECT_EQ(handler.calls.size(), 2u);
}

TEST_F(NextClient, SendsWhatWaitedAfterALossAndNothingThatWasSentBefore) {
    logIn();
    manager->getKey(service, "/sent", &handler);
    connection->loses(gloox::ConnIoError);
    const std::string waiting = manager->getKey(service, "/a", &handler);
    next();
    logIn();
    EXPECT_EQ(sentIds(), std::vector<std::string>{waiting});
}

TEST_F(NextClient, OfAnotherAccountSendsNothingOfIt) {
    manager->getKey(service, "/a", &handler);
    next("other@example.org/tv");
    logIn();
    EXPECT_TRUE(connection->sent.empty());
}

TEST_F(NextClient, LeavesOutWhatNobodyWaitsForAndWhatTheServiceSendsAnew) {
    const std::string dead = manager->getKey(service, "/a", &handler);
    const std::string alive = manager->getKey(service, "/b", &handler);
    manager->bulkActivate(service, {"/c"}, &handler);
    manager->bulkDelete(service, {"/c"}, &handler);
    next();
    gone = {dead};
    logIn();
    EXPECT_EQ(sentIds(), std::vector<std::string>{alive});
    answer(dead, "result");
    EXPECT_TRUE(handler.calls.empty());
}

TEST_F(NextClient, HoldsAThousandWithWhatItTookOver) {
    for (int i = 0; i < 600; ++i)
        gone.insert(manager->getKey(service, "/a", &handler));
    const std::set<std::string> dead = std::exchange(gone, {});
    next();
    for (int i = 0; i < 400; ++i)
        ASSERT_NE(manager->getKey(service, "/b", &handler), "");
    EXPECT_EQ(manager->getKey(service, "/b", &handler), "") << "a thousand wait";
    gone = dead;
    EXPECT_NE(manager->getKey(service, "/b", &handler), "") << "the dead made room";
    logIn();
    EXPECT_EQ(connection->sent.size(), 401u);
}

}  // namespace
