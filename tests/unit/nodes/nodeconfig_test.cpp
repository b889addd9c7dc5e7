// SPDX-License-Identifier: GPL-3.0-only
// setNodeConfig and getNodeConfig: refusals, the form that is sent, and the part of the answered form that
// the caller gets.
#include <gloox/dataform.h>
#include <gloox/error.h>

#include <utility>

#include "nodes/methods.h"
#include "tests/unit/nodes/refusal.h"
#include "tests/unit/nodes/requesttest.h"

namespace {

RefusalCase given(QSFilter handler, const char* name, Given state, const char* payload, std::string reply,
                  std::string log = "") {
    return {name, handler, state, payload, std::move(reply), std::move(log)};
}
RefusalCase setting(const char* name, const char* payload, const std::string& node, const std::string& text) {
    return given(setNodeConfig, name, Given::Ready, payload, nodeErrorReply(node, kQuotedCode, text));
}
RefusalCase noArray(const char* name, const char* payload) {
    return given(getNodeConfig, name, Given::Ready, payload,
                 errorReply(kQuotedCode, "Malformed json - nodes takes an array of nodes "),
                 "getNodeConfig: Error: nodes takes an array of nodes \n");
}

std::string answeredForm(const std::string& fields) {
    return "<pubsub xmlns='http://jabber.org/protocol/pubsub#owner'><configure node='a'>"
           "<x xmlns='jabber:x:data' type='form'>" +
           fields + "</x></configure></pubsub>";
}

struct Options {
    const char* name;
    const char* json;
    const char* fields;
};

void PrintTo(const Options& options, std::ostream* out) {
    *out << options.json;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    SetNodeConfig, NodeRefusal,
    testing::Values(given(setNodeConfig, "NoManager", Given::NoManager, "{",
                          nodeErrorReply("", "libErr", "Service not initialized"),
                          "setNodeConfig: PubSub manager not intialized"),
                    given(setNodeConfig, "NoService", Given::NoService, "{",
                          nodeErrorReply("", "libErr", "Service not initialized"),
                          "setNodeConfig: PubSub manager not intialized"),
                    given(setNodeConfig, "Disconnected", Given::Disconnected, "{",
                          nodeErrorReply("", "connectionErr", "Not connected to xmpp server")),
                    given(setNodeConfig, "NoJson", Given::Ready, "{",
                          nodeErrorReply("", kQuotedCode, "Malformed json"),
                          "setNodeConfig: Malformed json packet? \n"),
                    setting("ArrayPayload", "[]", "", kQuotedText),
                    setting("NodeMissing", R"({"options":{}})", "", kQuotedText),
                    setting("NodeEmpty", R"({"node":"","options":{}})", "", kQuotedText),
                    setting("NodeBeforeOptions", "{}", "", kQuotedText),
                    setting("OptionsMissing", R"({"node":"a"})", "a", "No options provided"),
                    setting("OptionsNull", R"({"node":"a","options":null})", "a", "No options provided"),
                    given(setNodeConfig, "NoClient", Given::NoClient, R"({"node":"a","options":{}})",
                          nodeErrorReply("a", "libErr", "gloox library is not initialized"))),
    caseName);

INSTANTIATE_TEST_SUITE_P(
    GetNodeConfig, NodeRefusal,
    testing::Values(given(getNodeConfig, "NoManager", Given::NoManager, "{",
                          errorReply("libErr", "Service not initialized"),
                          "getNodeConfig: PubSub manager not intialized"),
                    given(getNodeConfig, "NoService", Given::NoService, "{",
                          errorReply("libErr", "Service not initialized"),
                          "getNodeConfig: PubSub manager not intialized"),
                    given(getNodeConfig, "Disconnected", Given::Disconnected, "{",
                          errorReply("connectionErr", "Not connected to xmpp server")),
                    given(getNodeConfig, "NoJson", Given::Ready, "{",
                          errorReply(kQuotedCode, "Malformed json"),
                          "getNodeConfig: Malformed json packet? \n"),
                    noArray("NodesAsText", R"({"nodes":"a"})"),
                    noArray("NodesAsObject", R"({"nodes":{"a":1}})"), noArray("NodesMissing", "{}"),
                    noArray("NodesNull", R"({"nodes":null})"), noArray("ArrayPayload", "[]"),
                    given(getNodeConfig, "NoNodes", Given::Ready, R"({"nodes":[]})",
                          errorReply(kQuotedCode, "No nodes provided")),
                    given(getNodeConfig, "NoClient", Given::NoClient, R"({"nodes":["a"]})",
                          errorReply("libErr", "gloox library is not initialized"))),
    caseName);

class NodeConfig : public RequestTest {};

class NodeOptions : public RequestTest, public testing::WithParamInterface<Options> {};

TEST_P(NodeOptions, BecomeTheFieldsOfASubmittedForm) {
    ask(setNodeConfig, std::string(R"({"node":"/a/b","options":)") + GetParam().json + "}");
    expectStanza(ownerStanza(
        "set",
        std::string("<configure node='/a/b'><x xmlns='jabber:x:data' type='submit'>"
                    "<field type='hidden' "
                    "var='FORM_TYPE'><value>http://jabber.org/protocol/pubsub#node_config</value></field>") +
            GetParam().fields + "</x></configure>"));
}

INSTANTIATE_TEST_SUITE_P(
    Fields, NodeOptions,
    testing::Values(
        Options{"TextWithoutItsQuotes", R"({"pubsub#access_model":"open"})",
                "<field var='pubsub#access_model'><value>open</value></field>"},
        Options{"InTheirOrder", R"({"b":"2","a":1,"c":true})",
                "<field var='b'><value>2</value></field><field var='a'><value>1</value></field>"
                "<field var='c'><value>true</value></field>"},
        Options{
            "EscapesAndSpacingStay", R"({"a":"x/y\"z","b":["p","q"]})",
            R"(<field var='a'><value>x\/y\z</value></field><field var='b'><value>[ p, q ]</value></field>)"},
        Options{"NullAsItsText", R"({"a":null})", "<field var='a'><value>null</value></field>"},
        Options{"EmptyText", R"({"a":""})", "<field var='a'><value/></field>"},
        Options{"NoneAtAll", "{}", ""}, Options{"ArrayInPlaceOfTheObject", R"(["a"])", ""},
        Options{"TextInPlaceOfTheObject", R"("open")", ""}),
    [](const auto& test) { return test.param.name; });

TEST_F(NodeConfig, RefusesOptionsThatXmlCannotCarry) {
    const std::string refusal = nodeErrorReply("a", "libErr", "gloox library is not initialized");
    for (const char* options :
         {R"({"a\u0001":"x"})", R"({"a\n":"x"})", R"({"":"x"})", R"({"a":"\uFFFE"})", R"({"a":["\uFFFE"]})"})
        EXPECT_EQ(call(setNodeConfig, std::string(R"({"node":"a","options":)") + options + "}"), refusal)
            << options;
    EXPECT_EQ(call(setNodeConfig, R"({"node":"a\u0001","options":{}})"),
              nodeErrorReply(R"(a\u0001)", "libErr", "gloox library is not initialized"));
    EXPECT_EQ(stanzaCount(), 0u);
    EXPECT_TRUE(session().m_msgMap.empty());
}

TEST_F(NodeConfig, AnswersASetWithTheNode) {
    const Answer reply = ask(setNodeConfig, R"({"node":"/a/b","options":{}})");
    answer(lastId());
    expectAnswered(reply, R"({ "returnValue": true, "node": "\/a\/b" })");
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(NodeConfig, AnswersARefusedSetWithTheServersError) {
    const Answer reply = ask(setNodeConfig, R"({"node":"a","options":{}})");
    answerError(lastId(), "auth", "forbidden");
    expectAnswered(reply,
                   R"({ "returnValue": false, "node": "a", "errorCode": "auth", "errorText": "forbidden" })");
    EXPECT_EQ(
        takeLogLines(),
        errorLog("handleNodeConfigResult", "Node a",
                 "<error type='auth'><forbidden xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>"));
}

TEST_F(NodeConfig, LogsAnAnswerToASetThatCannotBeSent) {
    const Answer reply = ask(setNodeConfig, R"({"node":"a","options":{}})");
    const std::string id = lastId();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    answer(id);
    EXPECT_EQ(takeLogLines(), Texts{"handleNodeConfigResult: Sending response to create Node failed id " +
                                    id + " Error no way "});
    EXPECT_FALSE(reply.kept());
}

TEST_F(NodeConfig, AsksForTheConfigurationOfANode) {
    ask(getNodeConfig, R"({"nodes":["/a/b"]})");
    expectStanza(ownerStanza("get", "<configure node='/a/b'/>"));
}

TEST_F(NodeConfig, ReportsTheAccessModelAlone) {
    const Answer reply = ask(getNodeConfig, R"({"nodes":["a"]})");
    answer(lastId(),
           answeredForm("<field var='pubsub#title'><value>t</value></field>"
                        "<field var='pubsub#access_model' type='list-single'><value>open</value></field>"
                        "<field var='pubsub#access_model'><value>second</value></field>"));
    expectAnswered(reply,
                   R"({ "returnValue": true, "node": "a", "options": { "pubsub#access_model": "open" } })");
}

TEST_F(NodeConfig, LeavesOptionsOutWithoutAnAccessModel) {
    const Answer reply = ask(getNodeConfig, R"({"nodes":["a"]})");
    answer(lastId(), answeredForm("<field var='pubsub#title'><value>t</value></field>"));
    expectAnswered(reply, R"({ "returnValue": true, "node": "a" })");
}

TEST_F(NodeConfig, LeavesOptionsOutWithoutAForm) {
    const Answer reply = ask(getNodeConfig, R"({"nodes":["a"]})");
    answer(lastId());
    expectAnswered(reply, R"({ "returnValue": true, "node": "a" })");
}

TEST_F(NodeConfig, ReportsAnAccessModelWithoutAValueAsEmpty) {
    const Answer reply = ask(getNodeConfig, R"({"nodes":["a"]})");
    answer(lastId(), answeredForm("<field var='pubsub#access_model'/>"));
    expectAnswered(reply,
                   R"({ "returnValue": true, "node": "a", "options": { "pubsub#access_model": "" } })");
}

TEST_F(NodeConfig, ReportsTheFirstOfSeveralAccessModels) {
    const Answer reply = ask(getNodeConfig, R"({"nodes":["a"]})");
    answer(
        lastId(),
        answeredForm("<field var='pubsub#access_model' type='list-multi'><value>open</value><value>whitelist"
                     "</value></field>"));
    expectAnswered(reply,
                   R"({ "returnValue": true, "node": "a", "options": { "pubsub#access_model": "open" } })");
}

TEST_F(NodeConfig, ReportsNoOptionsWithAnError) {
    const Answer reply = ask(getNodeConfig, R"({"nodes":["a"]})");
    gloox::DataForm form(gloox::TypeForm);
    form.addField(gloox::DataFormField::TypeNone, "pubsub#access_model", "open");
    const gloox::Error error(gloox::StanzaErrorTypeAuth, gloox::StanzaErrorForbidden);
    session().handleNodeConfig(lastId(), gloox::JID(kService), "a", &form, &error);
    expectAnswered(reply,
                   R"({ "returnValue": false, "node": "a", "errorCode": "auth", "errorText": "forbidden" })");
}

TEST_F(NodeConfig, AnswersARefusedReadWithTheServersError) {
    const Answer reply = ask(getNodeConfig, R"({"nodes":["a"]})");
    answerError(lastId(), "cancel", "item-not-found");
    expectAnswered(
        reply,
        R"({ "returnValue": false, "node": "a", "errorCode": "cancel", "errorText": "item-not-found" })");
    EXPECT_EQ(takeLogLines(), errorLog("handleNodeConfig", "Node a", kNotFound));
}

TEST_F(NodeConfig, LogsAnAnswerToAReadThatCannotBeSent) {
    const Answer reply = ask(getNodeConfig, R"({"nodes":["a"]})");
    const std::string id = lastId();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    answer(id);
    EXPECT_EQ(takeLogLines(),
              Texts{"handleNodeConfig: Sending response to create Node failed id " + id + " Error no way "});
    EXPECT_FALSE(reply.kept());
}

TEST_F(NodeConfig, AnswersEachOfSeveralNodesOnOneMessageInTheServersOrder) {
    const Answer reply = call(getNodeConfig, R"({"nodes":["a","\"b\\/",3]})");
    ASSERT_EQ(stanzaCount(), 3u);
    const std::string a = fakeServer().stanzas()[0].id();
    const std::string b = fakeServer().stanzas()[1].id();
    const std::string c = fakeServer().stanzas()[2].id();
    EXPECT_EQ(reply.message()->references, 3);

    answer(c);
    answerError(b, "auth", "forbidden");
    EXPECT_TRUE(reply.kept());
    answer(a);
    EXPECT_EQ(
        reply.all(),
        (Texts{R"({ "returnValue": true, "node": "3" })",
               R"({ "returnValue": false, "node": "b\/", "errorCode": "auth", "errorText": "forbidden" })",
               R"({ "returnValue": true, "node": "a" })"}));
    EXPECT_FALSE(reply.kept());
}

TEST_F(NodeConfig, StopsAtANodeThatCannotBeAskedForAndStillAnswersTheEarlierOnes) {
    const Answer reply = call(getNodeConfig, R"({"nodes":["a","","c"]})");
    EXPECT_EQ(reply, errorReply("libErr", "gloox library is not initialized"));
    EXPECT_EQ(stanzaCount(), 1u);
    EXPECT_EQ(session().m_msgMap.size(), 1u);
    answer(lastId());
    EXPECT_EQ(reply.all(), (Texts{errorReply("libErr", "gloox library is not initialized"),
                                  R"({ "returnValue": true, "node": "a" })"}));
    EXPECT_FALSE(reply.kept());
}

TEST_F(NodeConfig, SendsNothingForResultsThatNobodyWaitsFor) {
    session().handleNodeConfig("unknown", gloox::JID(kService), "a", nullptr, nullptr);
    session().handleNodeConfigResult("unknown", gloox::JID(kService), "a", nullptr);
    EXPECT_EQ(takeEvents(), (Texts{kPing, kPing}));
    EXPECT_EQ(takeLogLines(), Texts{});
}
