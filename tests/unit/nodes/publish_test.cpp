// SPDX-License-Identifier: GPL-3.0-only
// publishItem: its refusals, the two forms of an item, and the server's answer.
#include <list>
#include <utility>

#include "nodes/methods.h"
#include "tests/unit/nodes/refusal.h"
#include "tests/unit/nodes/requesttest.h"

namespace {

RefusalCase given(const char* name, Given state, const char* payload, std::string reply,
                  std::string log = "") {
    return {name, publishItemToNode, state, payload, std::move(reply), std::move(log)};
}
RefusalCase badArgument(const char* name, const char* payload) {
    return given(name, Given::Ready, payload, errorReply(kQuotedCode, kQuotedText));
}
RefusalCase unparsable(const char* name, const char* payload, std::string log = "") {
    return given(name, Given::Ready, payload, errorReply(kQuotedCode, "Item parse error"), std::move(log));
}
RefusalCase unmarkable(const char* name, const char* payload) {
    return given(
        name, Given::Ready, payload,
        errorReply(kQuotedCode, "trace is not 16 to 32 letters, digits, - and _, or there is no item"));
}
const char* marked(const char* mark) {
    static std::list<std::string> payloads;
    return payloads.emplace_back(R"({"node":"a","item":"x","trace":)" + std::string(mark) + "}").c_str();
}
RefusalCase badMark(const char* name, const char* mark) {
    return unmarkable(name, marked(mark));
}
const std::string kNoService = errorReply("libErr", "Service not initialized");
const std::string kNoLibrary = errorReply("libErr", "gloox library is not initialized");

struct Item {
    const char* name;
    const char* payload;
    std::string inside;  // content of the publish element
};

void PrintTo(const Item& item, std::ostream* out) {
    *out << item.payload;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    PublishItem, NodeRefusal,
    testing::Values(given("NoManager", Given::NoManager, "{", kNoService,
                          "publishItemToNode: PubSub manager not intialized"),
                    given("NoService", Given::NoService, "{", kNoService,
                          "publishItemToNode: PubSub manager not intialized"),
                    given("Disconnected", Given::Disconnected, "{",
                          errorReply("connectionErr", "Not connected to xmpp server")),
                    given("NoJson", Given::Ready, R"({"node":"a","item":"x")",
                          errorReply(kQuotedCode, "Malformed json"),
                          "publishItemToNode: Malformed json packet? \n"),
                    badArgument("ArrayPayload", "[]"), badArgument("NodeMissing", R"({"item":"x"})"),
                    badArgument("NodeEmpty", R"({"node":"","item":"x"})"),
                    badArgument("NodeBeforeItem", R"({"xml":true,"item":null})"),
                    badArgument("TextMissing", R"({"node":"a"})"),
                    badArgument("TextEmpty", R"({"node":"a","item":""})"),
                    badArgument("TextNull", R"({"node":"a","item":null})"),
                    badArgument("TextEmptyWithXmlFalse", R"({"node":"a","item":"","xml":false})"),
                    unparsable("ObjectNull", R"({"node":"a","xml":true,"item":null})",
                               "GetXmlFromJSON: Invalid JSON object"),
                    unparsable("TextThatXmlCannotCarry", R"({"node":"a","item":"x\u0001"})"),
                    unparsable("TextWithANul", R"({"node":"a","item":"x\u0000y"})"),
                    unparsable("TextWithANonCharacter", R"({"node":"a","item":"x\uFFFE"})"),
                    badMark("MarkTooShort", R"("aaaaaaaaaaaaaaa")"),
                    badMark("MarkTooLong", R"("aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa")"),
                    badMark("MarkOfOtherCharacters", R"("aaaaaaaaaaaaaaa/")"), badMark("MarkEmpty", R"("")"),
                    badMark("MarkThatIsNoText", "1234567890123456"),
                    unmarkable("MarkWithoutAnItem", R"({"node":"a","xml":true,"trace":"aaaaaaaaaaaaaaaa"})"),
                    given("NoClient", Given::NoClient, R"({"node":"a","item":"x"})", kNoLibrary)),
    caseName);

class PublishItem : public RequestTest {};

class PublishedItem : public RequestTest, public testing::WithParamInterface<Item> {};

TEST_P(PublishedItem, ReachesTheServer) {
    ask(publishItemToNode, GetParam().payload);
    const std::string publish = GetParam().inside.empty()
                                    ? "<publish node='/a/b'/>"
                                    : "<publish node='/a/b'>" + GetParam().inside + "</publish>";
    expectStanza(pubsubStanza(publish));
}

INSTANTIATE_TEST_SUITE_P(
    Items, PublishedItem,
    testing::Values(
        Item{"Text", R"({"node":"/a/b","item":"hello"})", "<item><payload>hello</payload></item>"},
        Item{"MarkupIsTextAndNeverParsed", R"({"node":"/a/b","item":"<b a='1'>&amp;</b>"})",
             "<item><payload>&lt;b a=&apos;1&apos;&gt;&amp;amp;&lt;/b&gt;</payload></item>"},
        Item{"TextKeepsQuotesAndBackslashes", R"({"node":"/a/b","item":"{\"a\":\"b\\\\c\"}"})",
             R"(<item><payload>{&quot;a&quot;:&quot;b\\c&quot;}</payload></item>)"},
        Item{"TextKeepsLineBreaks", R"({"node":"/a/b","item":"a\n\tb"})",
             "<item><payload>a\n\tb</payload></item>"},
        Item{"TextKeepsCarriageReturns", R"({"node":"/a/b","item":"a\r\nb"})",
             "<item><payload>a\r\nb</payload></item>"},
        Item{"TextOutsideAscii", R"({"node":"/a/b","item":"\u00e4\ud83d\ude00"})",
             "<item><payload>\xc3\xa4\xf0\x9f\x98\x80</payload></item>"},
        Item{"NumberAsText", R"({"node":"/a/b","item":5})", "<item><payload>5</payload></item>"},
        Item{"ObjectAsText", R"({"node":"/a/b","item":{"a":1}})",
             "<item><payload>{ &quot;a&quot;: 1 }</payload></item>"},
        Item{"XmlNullCountsAsFalse", R"({"node":"/a/b","xml":null,"item":"x"})",
             "<item><payload>x</payload></item>"},
        Item{"XmlByItsTruth", R"({"node":"/a/b","xml":1,"item":{"a":{}}})", "<item><a/></item>"},
        Item{"Elements", R"({"node":"/a/b","xml":true,"item":{"payload":{"#":"hi","@":{"v":1}}}})",
             "<item><payload v='1'>&quot;hi&quot;</payload></item>"},
        Item{"PlainMembersReadNull", R"({"node":"/a/b","xml":true,"item":{"count":5,"name":"n"}})",
             "<item><count>null</count><name>null</name></item>"},
        Item{"EmptyObject", R"({"node":"/a/b","xml":true,"item":{}})", "<item/>"},
        Item{"ArrayInPlaceOfTheObject", R"({"node":"/a/b","xml":true,"item":[1]})", "<item/>"},
        Item{"StringInPlaceOfTheObject", R"({"node":"/a/b","xml":true,"item":"x"})", "<item/>"},
        Item{"Marked", R"({"node":"/a/b","item":"x","trace":"aaaaaaaaaaaaaa-_"})",
             "<item id='trace-aaaaaaaaaaaaaa-_'><payload>x</payload></item>"},
        Item{"MarkNullCountsAsNone", R"({"node":"/a/b","item":"x","trace":null})",
             "<item><payload>x</payload></item>"},
        Item{"NoItemWithXmlTrue", R"({"node":"/a/b","xml":true})", ""}),
    [](const auto& test) { return test.param.name; });

TEST_F(PublishItem, AnswersWithTheReturnValueAlone) {
    const Answer reply = ask(publishItemToNode, R"({"node":"a","item":"x"})");
    answer(lastId(),
           "<pubsub xmlns='http://jabber.org/protocol/pubsub'><publish node='a'><item id='7'/></publish>"
           "</pubsub>");
    expectAnswered(reply, R"({ "returnValue": true })");
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(PublishItem, AnswersWithTheServersError) {
    const Answer reply = ask(publishItemToNode, R"({"node":"a","item":"x"})");
    answerError(lastId(), "cancel", "item-not-found");
    expectAnswered(reply,
                   R"({ "returnValue": false, "errorCode": "cancel", "errorText": "item-not-found" })");
    EXPECT_EQ(takeLogLines(), errorLog("handleItemPublication", "Node a", kNotFound));
}

TEST_F(PublishItem, LogsAnAnswerThatCannotBeSentAsOneToACreation) {
    const Answer reply = ask(publishItemToNode, R"({"node":"a","item":"x"})");
    const std::string id = lastId();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    answer(id);
    EXPECT_EQ(takeLogLines(), Texts{"handleItemPublication: Sending response to create Node failed id " + id +
                                    " Error no way "});
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_msgMap.empty());
}

TEST_F(PublishItem, RefusesNamesThatXmlCannotCarry) {
    EXPECT_EQ(call(publishItemToNode, R"({"node":"a\u0001","item":"x"})"), kNoLibrary);
    EXPECT_EQ(call(publishItemToNode, R"({"node":"a","xml":true,"item":{"a b":{}}})"), kNoLibrary);
    EXPECT_EQ(call(publishItemToNode, R"({"node":"a","xml":true,"item":{"":{}}})"), kNoLibrary);
    EXPECT_EQ(call(publishItemToNode, R"({"node":"a","xml":true,"item":{"a\u0001":{}}})"), kNoLibrary);
    EXPECT_EQ(call(publishItemToNode, R"({"node":"a","xml":true,"item":{"@":{"a b":1}}})"), kNoLibrary);
    EXPECT_EQ(call(publishItemToNode, R"({"node":"a","xml":true,"item":{"@":{"":1}}})"), kNoLibrary);
    EXPECT_EQ(call(publishItemToNode, R"({"node":"a","xml":true,"item":{"x":{"@":{"a\u0001":1}}}})"),
              kNoLibrary);
    EXPECT_EQ(call(publishItemToNode, R"({"node":"a","xml":true,"item":{"#":"\uFFFE"}})"), kNoLibrary);
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(PublishItem, SendsNothingForAResultThatNobodyWaitsFor) {
    session().handleItemPublication("unknown", gloox::JID(kService), "a", {}, nullptr);
    const gloox::Error error(gloox::StanzaErrorTypeCancel, gloox::StanzaErrorConflict);
    session().handleItemPublication("unknown", gloox::JID(kService), "a", {}, &error);
    EXPECT_EQ(takeEvents(), (Texts{kPing, kPing}));
    EXPECT_EQ(takeLogLines(), Texts{});
}
