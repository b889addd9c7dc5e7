// SPDX-License-Identifier: GPL-3.0-only
// The contents of requests, and how replies are printed and judged; no bus is needed.
#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/unit/host/privatebus.h"
#include "tools/verbs.h"
#include "util/jsonref.h"

namespace {

Invocation invoke(std::vector<std::string> words) {
    Invocation invocation;
    std::string problem;
    EXPECT_TRUE(parseArguments(words, allVerbs(), invocation, problem)) << problem;
    return invocation;
}

// A request as its payload, or the message that refuses it.
template <typename Make, typename... Rest>
std::string request(Make make, std::vector<std::string> words, Rest&... rest) {
    std::string payload;
    std::string problem;
    return make(invoke(std::move(words)), rest..., payload, problem) ? payload : "refused: " + problem;
}

struct Screen {
    explicit Screen(bool json = false, const std::string& input = "")
        : in(input), console(in, out, err, json) {}
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    Console console;
};

TEST(ConsoleAsk, PutsAQuestionOnTheErrorStreamAndReadsALine) {
    Screen screen(false, "one\ntwo");
    std::string answer;
    EXPECT_TRUE(screen.console.ask("First: ", answer));
    EXPECT_EQ(answer, "one");
    EXPECT_TRUE(screen.console.ask("Second: ", answer));
    EXPECT_EQ(answer, "two");
    EXPECT_FALSE(screen.console.ask("Third: ", answer));
    EXPECT_EQ(screen.err.str(), "First: Second: Third: ");
    EXPECT_EQ(screen.out.str(), "");
}

TEST(ConsoleAsk, IsForTwoTerminals) {
    for (const Console::Terminals terminals : {Console::Terminals{.out = true, .err = true, .in = false},
                                               Console::Terminals{.out = true, .err = false, .in = true}}) {
        std::istringstream in;
        std::ostringstream out, err;
        EXPECT_FALSE(Console(in, out, err, false, terminals).isInteractive());
    }
    std::istringstream in;
    std::ostringstream out, err;
    EXPECT_TRUE(Console(in, out, err, false, {.out = false, .err = true, .in = true}).isInteractive());
}

TEST(CreateRequest, HoldsOnlyWhatWasAskedFor) {
    EXPECT_EQ(request(createPayload, {"node", "create", "/n"}), R"({"node":"/n"})");
    EXPECT_EQ(request(createPayload, {"node", "create", "/n", "--collection", "--parent", "/p", "--title",
                                      "T", "--access", "authorize"}),
              R"({"node":"/n","nodeType":2,"parent":"/p","title":"T","accessType":2})");
    EXPECT_EQ(request(createPayload, {"node", "create", "/n", "--access", "open"}),
              R"({"node":"/n","accessType":1})");
    EXPECT_EQ(request(createPayload, {"node", "create", "/n", "--access", "all"}),
              R"(refused: --access is open or authorize, not "all")");
}

TEST(PublishRequest, TakesATextAsItStands) {
    Screen screen;
    EXPECT_EQ(request(publishPayload, {"node", "publish", "/n", "a \"b\" \\ </c>"}, screen.console),
              R"({"node":"/n","item":"a \"b\" \\ </c>"})");
}

TEST(PublishRequest, ReadsStandardInputForADashAndWithoutAText) {
    for (std::vector<std::string> words : {std::vector<std::string>{"node", "publish", "/n", "-"},
                                           std::vector<std::string>{"node", "publish", "/n"}}) {
        Screen screen(false, "two\nlines\n");
        EXPECT_EQ(request(publishPayload, words, screen.console), R"({"node":"/n","item":"two\nlines\n"})");
    }
}

TEST(PublishRequest, ReadsAFileByteForByte) {
    TestFolder folder;
    std::ofstream(folder / "item") << "grün\n";
    Screen screen;
    EXPECT_EQ(request(publishPayload, {"node", "publish", "/n", "--file", folder / "item"}, screen.console),
              "{\"node\":\"/n\",\"item\":\"grün\\n\"}");
    EXPECT_EQ(request(publishPayload, {"node", "publish", "/n", "--file", folder / "none"}, screen.console),
              "refused: cannot read " + (folder / "none") + "; check the name and its permissions");
    EXPECT_EQ(request(publishPayload, {"node", "publish", "/n", "--file", folder.path()}, screen.console),
              "refused: cannot read " + folder.path() + "; check the name and its permissions");
}

TEST(PublishRequest, TakesAJsonItemFromTheCommandLineOrStandardInput) {
    Screen screen(false, "{\"#\":\"x\"}\n");
    EXPECT_EQ(
        request(publishPayload, {"node", "publish", "/n", "--json", R"({"@":{"a":"1"}})"}, screen.console),
        R"({"node":"/n","xml":true,"item":{"@":{"a":"1"}}})");
    EXPECT_EQ(request(publishPayload, {"node", "publish", "/n", "--json", "-"}, screen.console),
              R"({"node":"/n","xml":true,"item":{"#":"x"}})");
    EXPECT_EQ(
        request(publishPayload, {"node", "publish", "/n", "--json", "[1]"}, screen.console),
        "refused: --json takes the item as a JSON object, such as {\"#\":\"text\"}; for JSON output write "
        "--json before the verb");
}

TEST(PublishRequest, RefusesTwoItemsAndWhatNoItemCanCarry) {
    Screen screen(false, std::string("a\0b", 3));
    EXPECT_EQ(request(publishPayload, {"node", "publish", "/n", "text", "--json", "{}"}, screen.console),
              "refused: give the item once: as TEXT, with --file or with --json");
    EXPECT_EQ(request(publishPayload, {"node", "publish", "/n", "-"}, screen.console),
              "refused: standard input is not UTF-8 text (or contains a NUL); encode it first, for instance "
              "with base64");
    Screen latin(false, "gr\xfcn");
    EXPECT_EQ(request(publishPayload, {"node", "publish", "/n", "-"}, latin.console),
              "refused: standard input is not UTF-8 text (or contains a NUL); encode it first, for instance "
              "with base64");
    Screen huge(false, std::string(16 * 1024 * 1024 + 1, 'x'));
    EXPECT_EQ(request(publishPayload, {"node", "publish", "/n", "-"}, huge.console),
              "refused: standard input is longer than 16 MiB; publish a reference to it instead");
    EXPECT_EQ(
        request(publishPayload, {"node", "publish", "/n", "gr\xfcn"}, screen.console),
        "refused: TEXT is not UTF-8 text (or contains a NUL); encode it first, for instance with base64");
}

TEST(SubscribeRequest, CarriesJidAndDepthWhenGiven) {
    EXPECT_EQ(request(subscribePayload, {"node", "subscribe", "/n"}), R"({"node":"/n"})");
    EXPECT_EQ(request(subscribePayload, {"node", "subscribe", "/n", "--jid", "a@b/c", "--depth", "0"}),
              R"({"node":"/n","jid":"a@b/c","depth":0})");
    EXPECT_EQ(request(subscribePayload, {"node", "subscribe", "/n", "--depth", "-1"}),
              "refused: --depth takes a whole number, 0 or more, not \"-1\"");
}

TEST(CallRequest, SendsJsonAsItIsAndAddsSubscribeToFollow) {
    Screen screen(false, " {\"a\": 1} ");
    EXPECT_EQ(request(callPayload, {"call", "m"}, screen.console), "{}");
    EXPECT_EQ(request(callPayload, {"call", "m", "{\"a\" : 1}"}, screen.console), "{\"a\" : 1}");
    EXPECT_EQ(request(callPayload, {"call", "m", "-"}, screen.console), " {\"a\": 1} ");
    EXPECT_EQ(request(callPayload, {"call", "m", "{\"a\":1}", "--follow"}, screen.console),
              R"({"a":1,"subscribe":true})");
    EXPECT_EQ(request(callPayload, {"call", "m", "{\"subscribe\":false}", "--follow"}, screen.console),
              R"({"subscribe":false})");
    EXPECT_EQ(request(callPayload, {"call", "m", "null"}, screen.console), "null");
    EXPECT_EQ(request(callPayload, {"call", "m", "{\"a\":"}, screen.console),
              "refused: the payload is not JSON: {\"a\": (--raw sends it anyway)");
    EXPECT_EQ(request(callPayload, {"call", "m", "{\"a\":", "--raw"}, screen.console), "{\"a\":");
    EXPECT_EQ(request(callPayload, {"call", "m", "[]", "--follow"}, screen.console),
              "refused: --follow needs a JSON object as payload, to add \"subscribe\" to it");
}

TEST(JsonTexts, AreToldFromOthers) {
    for (const char* text : {"5", "null", "{}", " [1] ", "true", "\"a\"", "{\"a\":{\"b\":[]}}\n"})
        EXPECT_TRUE(isJson(text)) << text;
    for (const char* text : {"", " ", "{} x", "{\"a\":", "tru", "{'a'", "nul", "\"a"})
        EXPECT_FALSE(isJson(text)) << text;
}

TEST(StatusLine, TellsWhatTheReplyHolds) {
    EXPECT_EQ(statusLine(R"({"returnValue":true,"connected":true})"), "connected");
    EXPECT_EQ(statusLine(R"({"returnValue":true, "connected":false, "session":true, "network": false})"),
              "not connected  network: no  account: yes");
    EXPECT_EQ(statusLine("no JSON"), "not connected");
    EXPECT_EQ(statusLine(R"({"connected":false,"session":true,"network":true,"ended":true})"),
              "not connected  network: yes  account: yes  ended: on purpose");
    EXPECT_EQ(statusLine(R"({"connected":false,"session":true,"network":true,"ended":false})"),
              "not connected  network: yes  account: yes");
}

TEST(StatusLine, TellsTimesInTheZoneOfTheReader) {
    setenv("TZ", "XYZ-2", 1);  // two hours east
    EXPECT_EQ(statusLine(R"({"connected":true,"since":1795332972,"heard":1795333200})"),
              "connected  since: 2026-11-22 09:36:12  last heard: 2026-11-22 09:40:00");
    unsetenv("TZ");
}

TEST(ItemLine, IsTheTextAloneOrAnObject) {
    const char* item = R"({"item":"a\/b \"c\"","itemid":"7","node":"\/n","returnValue":true})";
    EXPECT_EQ(itemLine(item, false), "a/b \"c\"");
    EXPECT_EQ(itemLine(item, true), R"({"node":"/n","itemid":"7","item":"a/b \"c\""})");
    EXPECT_EQ(itemLine("[]", true), R"({"node":"","itemid":"","item":""})");
}

struct Verdict {
    const char* payload;
    Exit exit;
    const char* problem;
};

class Judgement : public testing::TestWithParam<Verdict> {};

TEST_P(Judgement, FollowsTheReply) {
    Reply reply = judgeAnswer(GetParam().payload);
    EXPECT_EQ(reply.exit, GetParam().exit);
    EXPECT_EQ(reply.problem, GetParam().problem);
    EXPECT_EQ(reply.payload, GetParam().payload);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Judgement,
    testing::Values(
        Verdict{R"({"returnValue":true})", Exit::Ok, ""}, Verdict{R"({"other":1})", Exit::Ok, ""},
        Verdict{R"({"returnValue":false})", Exit::Refused, "refused without a reason"},
        Verdict{R"({"returnValue":false,"errorCode":"\"errBadArgument\"","errorText":"\"Bad Argument\""})",
                Exit::Refused, "errBadArgument: Bad Argument"},
        Verdict{
            R"({"returnValue":false,"errorCode":"connectionErr","errorText":"Not connected to xmpp server"})",
            Exit::NotConnected,
            "connectionErr: Not connected to xmpp server (the service has no connection to its server; watch "
            "it "
            "with `pubsubctl status --follow`)"},
        Verdict{
            R"({"returnValue":false,"errorCode":"cancel","errorText":"item-not-found"})", Exit::Refused,
            "cancel: item-not-found (the node does not exist on the server; create it with `pubsubctl node "
            "create` or `pubsubctl endpoint create`)"},
        Verdict{R"({"returnValue":false,"errorText":"\"in\" must be \"00:25:00\""})", Exit::Refused,
                "\"in\" must be \"00:25:00\""},
        Verdict{
            R"({"returnValue":false,"errorCode":"modify","errorText":"bad-request item-required"})",
            Exit::Refused,
            "modify: bad-request item-required (the item needs a child element; `payload` is the one that "
            "receivers get)"},
        Verdict{"[]", Exit::Refused, "the answer is not a JSON object: []"},
        Verdict{"", Exit::Refused, "the answer is not a JSON object: "}));

TEST(BusErrors, AreToldApart) {
    const char* payload = R"({"returnValue":false,"errorCode":-1,"errorText":"why"})";
    Reply absent = judgeBusError("com.zelt.x", "org.freedesktop.DBus.Error.ServiceUnknown", payload);
    EXPECT_EQ(absent.exit, Exit::NotConnected);
    EXPECT_EQ(absent.problem, "com.zelt.x is not on the bus: why; start it and try again");
    EXPECT_EQ(judgeBusError("s", "org.freedesktop.DBus.Error.Spawn.ExecFailed", payload).exit,
              Exit::NotConnected);
    EXPECT_EQ(judgeBusError("s", "org.freedesktop.DBus.Error.NoReply", payload).exit, Exit::NotConnected);
    EXPECT_EQ(judgeBusError("s", "org.freedesktop.DBus.Error.UnknownMethod", payload).problem,
              "no such method on this bus: why; platform methods are on the private bus only, public ones "
              "on both");
    EXPECT_EQ(judgeBusError("s", "org.freedesktop.DBus.Error.AccessDenied", payload).problem,
              "the bus forbids this call: why");
    EXPECT_EQ(judgeBusError("s", "com.example.Other", payload).problem, "com.example.Other: why");
    EXPECT_EQ(judgeBusError("s", "com.example.Other", payload).exit, Exit::Refused);
}

TEST(Printing, ShowsTheTerseLineOrTheReplyAndSendsComplaintsElsewhere) {
    Reply done{Exit::Ok, "{\"returnValue\": true,\n\"node\":\"\\/n\"}", ""};
    Screen terse;
    EXPECT_EQ(terse.console.finish(done, "done"), Exit::Ok);
    EXPECT_EQ(terse.out.str(), "done\n");
    Screen json(true);
    EXPECT_EQ(json.console.finish(done, "done"), Exit::Ok);
    EXPECT_EQ(json.out.str(), "{\"returnValue\":true,\"node\":\"/n\"}\n");

    Reply refused{Exit::Refused, "{\"returnValue\":false}", "why"};
    Screen complaint;
    EXPECT_EQ(complaint.console.finish(refused, "done"), Exit::Refused);
    EXPECT_EQ(complaint.out.str(), "");
    EXPECT_EQ(complaint.err.str(), "pubsubctl: why\n");
    Screen both(true);
    both.console.finish(refused, "done");
    EXPECT_EQ(both.out.str(), "{\"returnValue\":false}\n");
    EXPECT_EQ(both.err.str(), "pubsubctl: why\n");
}

TEST(Printing, MakesOneLineOfAnything) {
    EXPECT_EQ(oneLine("{\n\"a\": 1 }"), "{\"a\":1}");
    EXPECT_EQ(oneLine("not\nJSON"), "\"not\\nJSON\"");
}

TEST(MethodUri, NamesTheServiceUnlessAWholeUriIsGiven) {
    EXPECT_EQ(methodUri("getJabberId"), "zelt://com.zelt.pubsubservice/getJabberId");
    EXPECT_EQ(methodUri("quor://com.zelt.power/timeout/set"), "quor://com.zelt.power/timeout/set");
    EXPECT_EQ(serviceOf("quor://com.zelt.power/timeout/set"), "com.zelt.power");
}

constexpr const char* kHostile =
    "a\x1b]0;x\x07\x1b[2J\r\x08\x7f\xc2\x9b"
    "31mb\tc\nd \xc3\xbc";

TEST(Terminal, GetsControlCharactersAsEscapes) {
    std::istringstream in;
    std::ostringstream out, err;
    Console console(in, out, err, false, {true, true});
    console.line(kHostile);
    console.message(kHostile);
    const std::string escaped =
        "a\\x1b]0;x\\x07\\x1b[2J\\x0d\\x08\\x7f\\xc2\\x9b"
        "31mb\tc\nd \xc3\xbc\n";
    EXPECT_EQ(out.str(), escaped);
    EXPECT_EQ(err.str(), "pubsubctl: " + escaped);
}

TEST(Terminal, AloneGetsEscapes) {
    std::istringstream in;
    std::ostringstream out, err;
    Console console(in, out, err, false, {false, true});
    console.line(kHostile);
    EXPECT_EQ(out.str(), std::string(kHostile) + "\n");
    Console redirected(in, out, err, false, {true, false});
    redirected.message(kHostile);
    EXPECT_EQ(err.str(), std::string("pubsubctl: ") + kHostile + "\n");
}

TEST(PushLines, NameEndpointApplicationDescriptionAndState) {
    EXPECT_EQ(
        pushLines(
            R"({"registrations":[{"endpoint":"up-1","service":"org.example.mail","description":"inbox",)"
            R"("state":"registered"},{"endpoint":"up-2","service":"org.example.chat","description":"",)"
            R"("state":"waits for the server"}]})"),
        "up-1  org.example.mail  \"inbox\"  registered\nup-2  org.example.chat  waits for the server");
    EXPECT_EQ(pushLines(R"({"registrations":[]})"), "");
    EXPECT_EQ(pushLines("{}"), "");
}

}  // namespace
