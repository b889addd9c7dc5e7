// SPDX-License-Identifier: GPL-3.0-only
// createNode: its refusals, its stanza, and the answers to private and public requests.
#include <utility>

#include "nodes/methods.h"
#include "tests/unit/nodes/refusal.h"
#include "tests/unit/nodes/requesttest.h"

namespace {

RefusalCase given(const char* name, Given state, const char* payload, std::string reply,
                  std::string log = "") {
    return {name, createNode, state, payload, std::move(reply), std::move(log)};
}
RefusalCase refused(const char* name, const char* payload, const std::string& node, const std::string& text) {
    return given(name, Given::Ready, payload, nodeErrorReply(node, kQuotedCode, text));
}
RefusalCase malformed(const char* name, const char* payload) {
    return given(name, Given::Ready, payload, nodeErrorReply("", kQuotedCode, "Malformed json"),
                 "createNode: Malformed json packet? \n");
}

const std::string kNoService = nodeErrorReply("", "libErr", "Service not initialized");
const std::string kNoConnection = nodeErrorReply("", "connectionErr", "Not connected to xmpp server");
const std::string kNoManagerLog = "createNode: PubSub manager not intialized";

struct Shape {
    const char* name;
    const char* payload;
    const char* node;
    const char* fields;  // of the configuration form, after its type
};

void PrintTo(const Shape& shape, std::ostream* out) {
    *out << shape.payload;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    CreateNode, NodeRefusal,
    testing::Values(
        given("NoManager", Given::NoManager, R"({"node":"/a"})", kNoService, kNoManagerLog),
        given("NoService", Given::NoService, R"({"node":"/a"})", kNoService, kNoManagerLog),
        given("NoManagerBeforeBadPayload", Given::NoManager, "{", kNoService, kNoManagerLog),
        given("Disconnected", Given::Disconnected, R"({"node":"/a"})", kNoConnection),
        given("DisconnectedBeforeBadPayload", Given::Disconnected, "{", kNoConnection),
        malformed("EmptyPayload", ""), malformed("CutPayload", R"({"node":"/a")"),
        malformed("NullPayload", "null"), malformed("NoJson", "node"),
        refused("ArrayPayload", "[]", "", kQuotedText), refused("NumberPayload", "5", "", kQuotedText),
        refused("NodeTypeZero", R"({"node":"/a","nodeType":0})", "", "NodeType should be 1 or 2"),
        refused("NodeTypeThree", R"({"node":"/a","nodeType":3})", "", "NodeType should be 1 or 2"),
        refused("NodeTypeNegative", R"({"node":"/a","nodeType":-1})", "", "NodeType should be 1 or 2"),
        refused("NodeTypeHuge", R"({"node":"/a","nodeType":4294967297})", "", "NodeType should be 1 or 2"),
        refused("NodeTypeText", R"({"node":"/a","nodeType":"leaf"})", "", "NodeType should be 1 or 2"),
        refused("NodeTypeBeforeNode", R"({"nodeType":3})", "", "NodeType should be 1 or 2"),
        refused("NodeMissing", R"({"title":"t"})", "", kQuotedText),
        refused("NodeEmpty", R"({"node":""})", "", kQuotedText),
        refused("NodeNull", R"({"node":null})", "", kQuotedText),
        refused("NodeOfQuotesAlone", R"({"node":"\"\\"})", "", kQuotedText),
        refused("NodeBeforeAccessType", R"({"accessType":3})", "", kQuotedText),
        refused("AccessTypeZero", R"({"node":"/a","accessType":0})", R"(\/a)",
                "Access Type should be 1 or 2"),
        refused("AccessTypeThree", R"({"node":"/a","accessType":3})", R"(\/a)",
                "Access Type should be 1 or 2"),
        given("NoClient", Given::NoClient, R"({"node":"/a"})",
              nodeErrorReply(R"(\/a)", "libErr", "gloox library is not initialized"))),
    caseName);

class CreateNode : public RequestTest {
  protected:
    Answer askFor(const std::string& node) { return ask(createNode, R"({"node":")" + node + R"("})"); }
};

class CreateNodeShape : public RequestTest, public testing::WithParamInterface<Shape> {};

TEST_P(CreateNodeShape, ReachesTheServer) {
    ask(createNode, GetParam().payload);
    expectStanza(pubsubStanza(
        std::string("<create node='") + GetParam().node +
        "'/><configure><x xmlns='jabber:x:data' type='submit'><field var='FORM_TYPE' type='hidden'>"
        "<value>http://jabber.org/protocol/pubsub#node_config</value></field>" +
        GetParam().fields + "</x></configure>"));
}

namespace {

constexpr char kOpenLeaf[] =
    "<field var='pubsub#node_type'><value>leaf</value></field>"
    "<field var='pubsub#access_model'><value>open</value></field>";
constexpr char kOpenCollection[] =
    "<field var='pubsub#node_type'><value>collection</value></field>"
    "<field var='pubsub#access_model'><value>open</value></field>";

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    Shapes, CreateNodeShape,
    testing::Values(
        Shape{"LeafOpenToAll", R"({"node":"/a/b"})", "/a/b", kOpenLeaf},
        Shape{"NullMembersCountAsAbsent",
              R"({"node":"/a/b","nodeType":null,"parent":null,"accessType":null})", "/a/b", kOpenLeaf},
        Shape{"TheSameInNumbers", R"({"node":"/a/b","nodeType":1,"accessType":1})", "/a/b", kOpenLeaf},
        Shape{"Collection", R"({"node":"c","nodeType":2})", "c", kOpenCollection},
        Shape{"NumberAsText", R"({"node":"c","nodeType":"2"})", "c", kOpenCollection},
        Shape{"AuthorisedByTheOwner", R"({"node":"/a/b","accessType":2})", "/a/b",
              "<field var='pubsub#node_type'><value>leaf</value></field>"
              "<field var='pubsub#access_model'><value>authorize</value></field>"},
        Shape{"WithTitleAndParent", R"({"node":"/a/b","title":"A & B","parent":"c"})", "/a/b",
              "<field var='pubsub#node_type'><value>leaf</value></field>"
              "<field var='pubsub#title'><value>A &amp; B</value></field>"
              "<field var='pubsub#collection'><value>c</value></field>"
              "<field var='pubsub#access_model'><value>open</value></field>"},
        Shape{"CleanedTexts", R"({"node":"a\"\\b","title":"\"t\"","parent":"\\p"})", "ab",
              "<field var='pubsub#node_type'><value>leaf</value></field>"
              "<field var='pubsub#title'><value>t</value></field>"
              "<field var='pubsub#collection'><value>p</value></field>"
              "<field var='pubsub#access_model'><value>open</value></field>"}),
    [](const auto& test) { return test.param.name; });

TEST_F(CreateNode, AnswersWithTheNodeWhenTheServerHasMadeIt) {
    const Answer reply = askFor("/a/b");
    answer(lastId());
    expectAnswered(reply, R"({ "returnValue": true, "node": "\/a\/b" })");
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(CreateNode, AnswersWithTheServersError) {
    const Answer reply = askFor("/a/b");
    answerError(lastId(), "cancel", "conflict");
    expectAnswered(
        reply,
        R"({ "returnValue": false, "node": "\/a\/b", "errorCode": "cancel", "errorText": "conflict" })");
    EXPECT_EQ(takeLogLines(), errorLog("handleNodeCreation", "Node /a/b", kConflict));
}

TEST_F(CreateNode, AnswersWithBothConditionsOfAnError) {
    const Answer reply = askFor("a");
    answerError(lastId(), "modify", "not-acceptable", "unsupported");
    expectAnswered(reply, R"({ "returnValue": false, "node": "a", "errorCode": "modify", )"
                          R"("errorText": "not-acceptable unsupported" })");
}

TEST_F(CreateNode, KeepsOneReferenceUntilTheAnswer) {
    const Answer reply = askFor("a");
    EXPECT_EQ(reply.message()->references, 1);
    answer(lastId());
    EXPECT_EQ(reply.message()->references, 0);
}

TEST_F(CreateNode, AnswersAnErrorWithoutAStanzaConditionWithWhatThereIs) {
    const std::string head = "<iq type='error' from='pubsub.example.org' id='";
    const Answer first = askFor("a");
    serverSends(head + lastId() +
                "'><error type='cancel'><unsupported "
                "xmlns='http://jabber.org/protocol/pubsub#errors'/></error></iq>");
    EXPECT_EQ(first,
              R"({ "returnValue": false, "node": "a", "errorCode": "cancel", "errorText": " unsupported" })");
    takeEvents();
    const Answer second = askFor("a");
    serverSends(head + lastId() + "'><error/></iq>");
    EXPECT_EQ(second, R"({ "returnValue": false, "node": "a", "errorCode": "", "errorText": "" })");
}

TEST_F(CreateNode, GivesTheReferenceOfARequestBackWhenALaterOneTakesItsId) {
    FakeMessage* first = fakeBus().request(privateHandle(), "createNode", "{}");
    FakeMessage* second = fakeBus().request(privateHandle(), "createNode", "{}");
    session().keepRequest("id1", first);
    session().keepRequest("id1", second);
    EXPECT_EQ(first->references, 1) << "the test's own";
    EXPECT_EQ(session().m_msgMap.at("id1").get(), second);
    QSMessageUnref(first);
    QSMessageUnref(second);
}

TEST_F(CreateNode, AnswersSeveralRequestsEachByItsOwnResult) {
    const Answer first = askFor("a");
    const std::string firstId = lastId();
    const Answer second = askFor("b");
    answer(lastId());
    EXPECT_EQ(second, R"({ "returnValue": true, "node": "b" })");
    EXPECT_TRUE(first.waiting());
    answerError(firstId, "auth", "forbidden");
    EXPECT_EQ(first,
              R"({ "returnValue": false, "node": "a", "errorCode": "auth", "errorText": "forbidden" })");
}

TEST_F(CreateNode, LogsAnAnswerThatCannotBeSentAndRemovesTheRequest) {
    const Answer reply = askFor("a");
    const std::string id = lastId();
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    answer(id);
    EXPECT_EQ(takeLogLines(), Texts{"handleNodeCreation: Sending response to create Node failed id " + id +
                                    " Error no way "});
    EXPECT_FALSE(reply.kept());
    EXPECT_TRUE(session().m_msgMap.empty());
}

TEST_F(CreateNode, SendsNothingForAResultThatNobodyWaitsFor) {
    const Answer other = askFor("a");
    session().handleNodeCreation("unknown", gloox::JID(kService), "b", nullptr);
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_TRUE(other.waiting());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(CreateNode, RefusesTextsThatXmlCannotCarry) {
    const std::string reason = "gloox library is not initialized";
    EXPECT_EQ(call(createNode, R"({"node":"a\u0001"})"), nodeErrorReply(R"(a\u0001)", "libErr", reason));
    EXPECT_EQ(call(createNode, R"({"node":"a","title":"\u0001"})"), nodeErrorReply("a", "libErr", reason));
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(CreateNode, StaysWaitingOverADisconnect) {
    const Answer reply = askFor("a");
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    EXPECT_TRUE(reply.waiting());
    EXPECT_EQ(session().m_msgMap.size(), 1u);
}

TEST_F(CreateNode, FinishesAnEndpointRequestUnderItsShortName) {
    const Answer request =
        Answer(fakeBus().request(publicHandle(), "createEndpoint", "{}", "com.example.app 1"));
    session().setEndpointMap("id1", request.message(), "inbox", "/u/r/com.example.app/inbox",
                             "com.example.app");
    QSMessageUnref(request.message());
    takeEvents();

    session().handleNodeCreation("id1", gloox::JID(kService), "/u/r/com.example.app/inbox", nullptr);
    EXPECT_EQ(takeEvents(),
              (Texts{kPing, R"(bus.respond createEndpoint { "returnValue": true, "endpoint": "inbox" })"}));
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_FALSE(request.kept());
}

TEST_F(CreateNode, FinishesAFailedEndpointRequestWithTheErrorsType) {
    const Answer request =
        Answer(fakeBus().request(publicHandle(), "createEndpoint", "{}", "com.example.app 1"));
    session().setEndpointMap("id1", request.message(), "inbox", "/u/r/com.example.app/inbox",
                             "com.example.app");
    QSMessageUnref(request.message());
    takeEvents();

    const gloox::Error error(gloox::StanzaErrorTypeCancel, gloox::StanzaErrorConflict);
    fakeBus().failNext("QSMessageRespond", -5, "no way");
    session().handleNodeCreation("id1", gloox::JID(kService), "/n", &error);
    Texts log = errorLog("handleNodeCreation", "Node /n", kConflict);
    log.push_back("handleNodeCreation: Sending response to create Node failed id id1 Error no way ");
    EXPECT_EQ(takeLogLines(), log);
    EXPECT_TRUE(session().m_endpointMap.empty());
    EXPECT_FALSE(request.kept());
}

TEST_F(CreateNode, AnswersAFailedEndpointRequestWithTheErrorsType) {
    const Answer request =
        Answer(fakeBus().request(publicHandle(), "createEndpoint", "{}", "com.example.app 1"));
    session().setEndpointMap("id1", request.message(), "inbox", "/u/r/com.example.app/inbox",
                             "com.example.app");
    QSMessageUnref(request.message());
    const gloox::Error error(gloox::StanzaErrorTypeCancel, gloox::StanzaErrorConflict);
    session().handleNodeCreation("id1", gloox::JID(kService), "/n", &error);
    EXPECT_EQ(
        request,
        R"({ "returnValue": false, "endpoint": "inbox", "errorCode": "cancel", "errorText": "conflict" })");
}
