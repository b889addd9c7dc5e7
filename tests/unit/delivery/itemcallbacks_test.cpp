// SPDX-License-Identifier: GPL-3.0-only
// Item callbacks: the registered pairs, their records in the handler file, and the refusals.
#include <utility>

#include "delivery/methods.h"
#include "tests/fakes/servicefixture.h"
#include "util/paths.h"

namespace {

using Handlers = std::map<std::string, std::list<std::string>>;

constexpr char kDone[] = R"({ "returnValue": true })";
constexpr char kNotDone[] = R"({ "returnValue": false })";
constexpr char kEndpoint[] = "zelt://com.example.mail/items";

// A record in the file: the text, a zero byte, a newline.
std::string record(const std::string& text) {
    return text + std::string("\0\n", 2);
}

std::string errorReply(const std::string& code, const std::string& text) {
    return R"({ "returnValue": false, "errorCode": ")" + code + R"(", "errorText": ")" + text + R"(" })";
}

struct CallbackRefusal {
    const char* name;
    QSFilter handler;
    const char* payload;
    std::string code;
    std::string text;
};

void PrintTo(const CallbackRefusal& refusal, std::ostream* out) {
    *out << refusal.payload;
}

}  // namespace

class ItemCallbacks : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        setAccountDetails();
    }
    std::string file() const { return fileText(handlerFile()); }
};

class ItemCallbackRefusal : public ItemCallbacks, public testing::WithParamInterface<CallbackRefusal> {};

TEST_P(ItemCallbackRefusal, RegistersNothingAndGivesTheReason) {
    const CallbackRefusal& refusal = GetParam();
    const std::string reply = errorReply(refusal.code, refusal.text);
    const Answer answer = call(refusal.handler, refusal.payload);
    EXPECT_EQ(answer, reply);
    EXPECT_FALSE(answer.kept());
    EXPECT_EQ(takeEvents(), Texts{"bus.reply method " + reply});

    const bool registers = refusal.handler != unRegisterItemCallback;
    Texts expected;
    if (refusal.text == "Malformed json") {
        const char* names[] = {"registerItemCallback", "registerItemCallbackV2", "unRegisterItemCallback"};
        const char* name = refusal.handler == registerItemCallback     ? names[0]
                           : refusal.handler == registerItemCallbackV2 ? names[1]
                                                                       : names[2];
        expected.push_back(std::string(name) + ": Malformed json packet? \n");
    }
    if (registers)
        expected.push_back(
            (refusal.handler == registerItemCallback ? "registerItemCallback" : "registerItemCallbackV2") +
            (": Error " + refusal.text + ", Incoming " + refusal.payload));
    expected.push_back("HandleError: Sending return error " + reply + " \n");
    EXPECT_EQ(takeLogLines(), expected);
    EXPECT_TRUE(session().serviceNodeMap.empty());
    EXPECT_FALSE(std::filesystem::exists(handlerFile()));
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, ItemCallbackRefusal,
    testing::Values(
        CallbackRefusal{"NoJson", registerItemCallback, "{", "errBadArgument", "Malformed json"},
        CallbackRefusal{"NullPayload", registerItemCallback, "null", "errBadArgument", "Malformed json"},
        CallbackRefusal{"ArrayPayload", registerItemCallback, "[]", "errBadArgument", "Bad Argument"},
        CallbackRefusal{"NodeMissing", registerItemCallback, R"({"endpoint":"e"})", "errBadArgument",
                        "Bad Argument"},
        CallbackRefusal{"NodeEmpty", registerItemCallback, R"({"node":"","endpoint":"e"})", "errBadArgument",
                        "Bad Argument"},
        CallbackRefusal{"EndpointMissing", registerItemCallback, R"({"node":"n"})", "errBadArgument",
                        "Bad Argument"},
        CallbackRefusal{"EndpointEmpty", registerItemCallback, R"({"node":"n","endpoint":""})",
                        "errBadArgument", "Bad Argument"},
        CallbackRefusal{"NodeOfQuotesAlone", registerItemCallback, R"({"node":"\"","endpoint":"e"})",
                        "errBadArgument", "Bad Argument"},
        CallbackRefusal{"EndpointNull", registerItemCallback, R"({"node":"n","endpoint":null})",
                        "errBadArgument", "Bad Argument"},
        CallbackRefusal{"V2NoJson", registerItemCallbackV2, "{", "errBadArgument", "Malformed json"},
        CallbackRefusal{"V2NullPayload", registerItemCallbackV2, "null", "errBadArgument", "Malformed json"},
        CallbackRefusal{"V2ArrayPayload", registerItemCallbackV2, "[]", "errBadArgument", "No node provided"},
        CallbackRefusal{"V2NodeMissing", registerItemCallbackV2, R"({"endpoint":"e"})", "errBadArgument",
                        "No node provided"},
        CallbackRefusal{"V2NodeEmpty", registerItemCallbackV2, R"({"node":"","endpoint":"e"})",
                        "errBadArgument", "Empty node provided"},
        CallbackRefusal{"V2EndpointMissing", registerItemCallbackV2, R"({"node":"n"})", "errBadArgument",
                        "No endpoint provided"},
        CallbackRefusal{"V2EndpointEmpty", registerItemCallbackV2, R"({"node":"n","endpoint":""})",
                        "errBadArgument", "Empty endpoint provided"},
        CallbackRefusal{"UnNoJson", unRegisterItemCallback, "{", "errBadArgument", "Malformed json"},
        CallbackRefusal{"UnNullPayload", unRegisterItemCallback, "null", "errBadArgument", "Malformed json"},
        CallbackRefusal{"UnArrayPayload", unRegisterItemCallback, "[]", "errBadArgument", "Bad Argument"},
        CallbackRefusal{"UnNodeEmpty", unRegisterItemCallback, R"({"node":"","endpoint":"e","app":false})",
                        "errBadArgument", "Bad Argument"},
        CallbackRefusal{"UnEndpointEmpty", unRegisterItemCallback,
                        R"({"node":"n","endpoint":"","app":false})", "errBadArgument", "Bad Argument"},
        CallbackRefusal{"UnNodeMissing", unRegisterItemCallback, R"({"endpoint":"e","app":false})",
                        "errBadArgument", "Bad Argument"},
        CallbackRefusal{"UnEndpointMissing", unRegisterItemCallback, R"({"node":"n","app":false})",
                        "errBadArgument", "Bad Argument"},
        CallbackRefusal{"UnAppMissing", unRegisterItemCallback, R"({"node":"n","endpoint":"e"})",
                        "errBadArgument", "No app provided"},
        CallbackRefusal{"UnAppNull", unRegisterItemCallback, R"({"node":"n","endpoint":"e","app":null})",
                        "errBadArgument", "No app provided"}),
    [](const auto& test) { return test.param.name; });

TEST_F(ItemCallbacks, RegistersANodeAsTheCallerSentItAndKeepsThePayloadAsReceived) {
    const std::string payload =
        R"({ "node":"/a" ,"endpoint":"zelt://com.example.mail/items","extra":[1, 2] })";
    EXPECT_EQ(call(registerItemCallback, payload), kDone);
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"/a", {kEndpoint}}}));
    EXPECT_TRUE(session().appNodeMap.empty());
    EXPECT_EQ(file(), record(payload));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(ItemCallbacks, RegistersAServiceWhateverAppTheCallerGives) {
    const std::string payload = R"({"node":"a","endpoint":"e","app":true})";
    EXPECT_EQ(call(registerItemCallback, payload), kDone);
    EXPECT_EQ(call(registerItemCallbackV2, payload), kDone);
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"a", {"e"}}, {"/u1234/dev42/com/zelt/a", {"e"}}}));
    EXPECT_TRUE(session().appNodeMap.empty());
    EXPECT_EQ(file(),
              record(payload) +
                  record(R"({ "node": "\/u1234\/dev42\/com\/zelt\/a", "endpoint": "e", "app": true })"));
    session().serviceNodeMap.clear();
    session().ReadHandlerFile();
    EXPECT_TRUE(session().serviceNodeMap.empty());
    EXPECT_EQ(session().appNodeMap.size(), 2u);
}

TEST_F(ItemCallbacks, NeedsNoSession) {
    session().setSessionDetails("", "", "", "", "", 0);
    EXPECT_EQ(call(registerItemCallback, R"({"node":"/a","endpoint":"e"})"), kDone);
}

TEST_F(ItemCallbacks, KeepsARecordOnOneLine) {
    EXPECT_EQ(call(registerItemCallback, "{\"node\":\"a\",\r\n\"endpoint\":\"e\"\n}"), kDone);
    EXPECT_EQ(file(), record(R"({"node":"a",  "endpoint":"e" })"));
    session().serviceNodeMap.clear();
    session().ReadHandlerFile();
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"a", {"e"}}}));
}

TEST_F(ItemCallbacks, LeavesOneRecordOfAPairThatIsRegisteredTwice) {
    const std::string payload = R"({"node":"a","endpoint":"e"})";
    EXPECT_EQ(call(registerItemCallback, payload), kDone);
    EXPECT_EQ(call(registerItemCallback, R"({"node":"a","endpoint":"e","other":1})"), kDone);
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"a", {"e"}}}));
    EXPECT_EQ(file(), record(payload));
}

TEST_F(ItemCallbacks, AppendsARecordForEachEndpointOfANode) {
    const std::string first = R"({"node":"a","endpoint":"e"})";
    const std::string second = R"({"node":"a","endpoint":"f"})";
    call(registerItemCallback, first);
    call(registerItemCallback, second);
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"a", {"e", "f"}}}));
    EXPECT_EQ(file(), record(first) + record(second));
}

TEST_F(ItemCallbacks, KeepsAPairWhoseRecordCannotBeWrittenAndReportsIt) {
    std::filesystem::create_directory(handlerFile());
    EXPECT_EQ(call(registerItemCallback, R"({"node":"a","endpoint":"e"})"), kNotDone);
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"a", {"e"}}}));
    EXPECT_EQ(takeLogLines(), Texts{"UpdateHandlerFile: Cannot open handler file."});
    EXPECT_EQ(call(registerItemCallbackV2, R"({"node":"a","endpoint":"e"})"), kNotDone);
}

TEST_F(ItemCallbacks, KeepsAPairWhoseRecordIsTooLongAndReportsIt) {
    const std::string payload = R"({"node":"a","endpoint":"e","pad":")" + std::string(4094, 'x') + R"("})";
    EXPECT_EQ(call(registerItemCallback, payload), kNotDone);
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"a", {"e"}}}));
    EXPECT_FALSE(std::filesystem::exists(handlerFile()));
    EXPECT_EQ(takeLogLines(),
              Texts{"UpdateHandlerFile: Handler record of " + std::to_string(payload.size()) +
                    " characters not saved, the limit is 4094. Use a shorter node or endpoint."});
}

TEST_F(ItemCallbacks, LogsAReplyThatCannotBeSent) {
    fakeBus().failNext("QSMessageReply", -5, "no way", 3);
    call(registerItemCallback, R"({"node":"a","endpoint":"e"})");
    EXPECT_EQ(takeLogLines(), Texts{"registerItemCallback: Sending reply to client failed -5 no way"});
    call(registerItemCallbackV2, R"({"node":"a","endpoint":"e"})");
    EXPECT_EQ(takeLogLines(), Texts{"registerItemCallbackV2: Sending reply to client failed -5 no way"});
    call(unRegisterItemCallback, R"({"node":"a","endpoint":"e","app":false})");
    EXPECT_EQ(takeLogLines(), Texts{"unRegisterItemCallback: Sending reply to client failed -5 no way"});
}

TEST_F(ItemCallbacks, V2RegistersTheFullNodeAndRecordsIt) {
    EXPECT_EQ(call(registerItemCallbackV2, R"({"endpoint":"e","node":"inbox","extra":1})"), kDone);
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"/u1234/dev42/com/zelt/inbox", {"e"}}}));
    EXPECT_EQ(file(),
              record(R"({ "endpoint": "e", "node": "\/u1234\/dev42\/com\/zelt\/inbox", "extra": 1 })"));
}

TEST_F(ItemCallbacks, V2RecordsAreReadBack) {
    call(registerItemCallbackV2, R"({"node":"inbox","endpoint":"zelt://com.example.mail/items"})");
    session().serviceNodeMap.clear();
    session().ReadHandlerFile();
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"/u1234/dev42/com/zelt/inbox", {kEndpoint}}}));
}

TEST_F(ItemCallbacks, V2AcceptsAnEndpointOfQuotesAloneAndItsRecordReadsAsDamaged) {
    EXPECT_EQ(call(registerItemCallbackV2, R"({"node":"inbox","endpoint":"\"\\"})"), kDone);
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"/u1234/dev42/com/zelt/inbox", {""}}}));
    session().serviceNodeMap.clear();
    session().ReadHandlerFile();
    EXPECT_TRUE(session().serviceNodeMap.empty());
    EXPECT_FALSE(std::filesystem::exists(handlerFile()));
}

TEST_F(ItemCallbacks, V2LeavesOneRecordOfAPairThatIsRegisteredTwice) {
    call(registerItemCallbackV2, R"({"node":"inbox","endpoint":"e"})");
    EXPECT_EQ(call(registerItemCallbackV2, R"({"node":"inbox","endpoint":"e"})"), kDone);
    EXPECT_EQ(file(), record(R"({ "node": "\/u1234\/dev42\/com\/zelt\/inbox", "endpoint": "e" })"));
}

TEST_F(ItemCallbacks, V2RefusesBeforeTheSessionKnowsTheAccount) {
    const std::string reply = errorReply("libErr", "Library not initialized");
    session().m_resource.clear();
    EXPECT_EQ(call(registerItemCallbackV2, R"({"node":"n","endpoint":"e"})"), reply);
    session().m_resource = kResource;
    session().m_username.clear();
    EXPECT_EQ(call(registerItemCallbackV2, R"({"node":"n","endpoint":"e"})"), reply);
    EXPECT_TRUE(session().serviceNodeMap.empty());
    EXPECT_FALSE(std::filesystem::exists(handlerFile()));
    const std::string line =
        R"(registerItemCallbackV2: Error Library not initialized, Incoming {"node":"n","endpoint":"e"})";
    EXPECT_EQ(takeLogLines(), (Texts{line, "HandleError: Sending return error " + reply + " \n", line,
                                     "HandleError: Sending return error " + reply + " \n"}));
}

TEST_F(ItemCallbacks, V2LooksAtTheMembersBeforeTheAccount) {
    session().m_username.clear();
    EXPECT_EQ(call(registerItemCallbackV2, "{}"), errorReply("errBadArgument", "No node provided"));
}

TEST_F(ItemCallbacks, UnregisteringRewritesTheFileFromBothTables) {
    call(registerItemCallback, R"({"node":"b","endpoint":"x","extra":1})");
    call(registerItemCallback, R"({"node":"a","endpoint":"e"})");
    session().appNodeMap["c"] = {"y"};
    EXPECT_EQ(call(unRegisterItemCallback, R"({"node":"a","endpoint":"e","app":false})"), kDone);
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"b", {"x"}}}));
    EXPECT_EQ(file(), record(R"({ "node": "b", "app": false, "endpoint": "x" })") +
                          record(R"({ "node": "c", "app": true, "endpoint": "y" })"));
}

TEST_F(ItemCallbacks, UnregisteringTheLastEndpointLeavesAnEmptyFile) {
    call(registerItemCallback, R"({"node":"a","endpoint":"e"})");
    EXPECT_EQ(call(unRegisterItemCallback, R"({"node":"a","endpoint":"e","app":false})"), kDone);
    EXPECT_TRUE(session().serviceNodeMap.empty());
    EXPECT_TRUE(std::filesystem::exists(handlerFile()));
    EXPECT_EQ(file(), "");
}

TEST_F(ItemCallbacks, UnregisteringAnApplicationLeavesTheServices) {
    const std::string payload = R"({"node":"a","endpoint":"e"})";
    call(registerItemCallback, payload);
    EXPECT_EQ(call(unRegisterItemCallback, R"({"node":"a","endpoint":"e","app":true})"), kDone);
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"a", {"e"}}}));
    EXPECT_EQ(file(), record(payload));

    session().appNodeMap["a"] = {"e"};
    EXPECT_EQ(call(unRegisterItemCallback, R"({"node":"a","endpoint":"e","app":true})"), kDone);
    EXPECT_TRUE(session().appNodeMap.empty());
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"a", {"e"}}}));
}

TEST_F(ItemCallbacks, UnregisteringWithoutAppRemovesNothing) {
    const std::string payload = R"({"node":"a","endpoint":"e"})";
    call(registerItemCallback, payload);
    EXPECT_EQ(call(unRegisterItemCallback, payload), errorReply("errBadArgument", "No app provided"));
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"a", {"e"}}}));
    EXPECT_EQ(file(), record(payload));
}

TEST_F(ItemCallbacks, UnregisteringAnUnknownPairSucceedsAndWritesNothing) {
    EXPECT_EQ(call(unRegisterItemCallback, R"({"node":"a","endpoint":"e","app":false})"), kDone);
    EXPECT_FALSE(std::filesystem::exists(handlerFile()));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(ItemCallbacks, UnregisteringTakesTheNodeAsItIsAndSoTheFullNameOfV2) {
    call(registerItemCallbackV2, R"({"node":"inbox","endpoint":"e"})");
    EXPECT_EQ(call(unRegisterItemCallback, R"({"node":"inbox","endpoint":"e","app":false})"), kDone);
    EXPECT_EQ(session().serviceNodeMap.size(), 1u);
    EXPECT_EQ(
        call(unRegisterItemCallback, R"({"node":"/u1234/dev42/com/zelt/inbox","endpoint":"e","app":false})"),
        kDone);
    EXPECT_TRUE(session().serviceNodeMap.empty());
}

TEST_F(ItemCallbacks, UnregisteringSucceedsAlsoWhenTheFileCannotBeWritten) {
    session().serviceNodeMap["a"] = {"e"};
    std::filesystem::create_directory(handlerFile());
    EXPECT_EQ(call(unRegisterItemCallback, R"({"node":"a","endpoint":"e","app":false})"), kDone);
    EXPECT_TRUE(session().serviceNodeMap.empty());
}

TEST_F(ItemCallbacks, AreNotTiedToTheirCaller) {
    const Answer caller = call(registerItemCallback, R"({"node":"a","endpoint":"e"})");
    fakeBus().clientDies(caller.message());
    restartService();
    session().ReadHandlerFile();
    EXPECT_EQ(session().serviceNodeMap, (Handlers{{"a", {"e"}}}));
}
