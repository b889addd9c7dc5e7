// SPDX-License-Identifier: GPL-3.0-only
// The verbs of applications and of node owners: what is called on which bus, what is printed, and
// the exit code.
#include <gmock/gmock.h>

#include "tests/unit/host/privatebus.h"
#include "tests/unit/tools/commandline.h"
#include "tests/unit/tools/fakeservice.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct VerbCase {
    QSBus bus;
    std::vector<std::string> words;
    const char* call;
    const char* reply;
    const char* terse;
};

class OneCall : public testing::TestWithParam<VerbCase>, public CommandLine {
  protected:
    std::string method() const {
        std::string call = GetParam().call;
        return call.substr(0, call.find(' '));
    }

    PrivateBus bus{GetParam().bus == QSBus::Public ? "ZELT_PUBLIC_BUS" : "ZELT_PRIVATE_BUS"};
    FakeService service{GetParam().bus};
};

TEST_P(OneCall, AsksOnceAndPrintsTheOutcome) {
    service.script[method()] = GetParam().reply;
    EXPECT_EQ(run(GetParam().words), Exit::Ok);
    EXPECT_THAT(service.calls, ElementsAre(GetParam().call));
    EXPECT_EQ(out.str(), std::string(GetParam().terse) + "\n");
}

TEST_P(OneCall, PrintsTheReplyItselfUnderJson) {
    service.script[method()] = GetParam().reply;
    std::vector<std::string> words = GetParam().words;
    words.insert(words.begin(), "--json");
    EXPECT_EQ(run(words), Exit::Ok);
    EXPECT_EQ(out.str(), std::string(GetParam().reply) + "\n");
}

TEST_P(OneCall, EndsWithThreeAndTheReasonWhenRefused) {
    service.script[method()] =
        R"({"returnValue":false,"errorCode":"libErr","errorText":"Error getting appid of calling app"})";
    EXPECT_EQ(run(GetParam().words), Exit::Refused);
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(
        err.str(),
        "pubsubctl: libErr: Error getting appid of calling app (the platform cannot tell which application "
        "this process belongs to; where the service allows it, `--app ID` names one)\n");
}

constexpr char kKey[] = R"({"returnValue":true,"endpoint":"box","publishKey":"KEY"})";
constexpr char kBox[] = R"({"returnValue":true,"endpoint":"box"})";

INSTANTIATE_TEST_SUITE_P(
    Endpoint, OneCall,
    testing::Values(
        VerbCase{QSBus::Public,
                 {"endpoint", "create", "box"},
                 R"(createEndpoint {"endpoint":"box"})",
                 kKey,
                 "KEY"},
        VerbCase{QSBus::Public,
                 {"endpoint", "create", "box", "--description", "d", "--access", "authorize"},
                 R"(createEndpoint {"endpoint":"box","description":"d","accessType":2})",
                 kKey,
                 "KEY"},
        VerbCase{QSBus::Private,
                 {"node", "list"},
                 "listNodes {}",
                 R"({"returnValue":true,"nodes":["/a/b","/c"]})",
                 "/a/b\n/c"},
        VerbCase{
            QSBus::Public, {"endpoint", "key", "box"}, R"(getPublishKey {"endpoint":"box"})", kKey, "KEY"},
        VerbCase{QSBus::Public,
                 {"endpoint", "delete", "box"},
                 R"(deleteEndpoint {"endpoint":"box"})",
                 kBox,
                 "deleted box"},
        VerbCase{QSBus::Public,
                 {"endpoint", "delete", "box"},
                 R"(deleteEndpoint {"endpoint":"box"})",
                 R"({"returnValue":true,"endpoint":"box","status":"notfound"})",
                 "there was no endpoint box"},
        VerbCase{QSBus::Public,
                 {"endpoint", "list"},
                 "listEndpoints {}",
                 R"({"returnValue":true,"endpoints":[)"
                 R"({"endpoint":"box","receiver":true,"subscriber":false,"waiting":3,"cached":false},)"
                 R"({"endpoint":"old","receiver":false,"subscriber":true,"cached":true}]})",
                 "box  receiver: yes  subscriber: no  waiting: 3  cached: no\n"
                 "old  receiver: no  subscriber: yes  cached: yes"},
        VerbCase{QSBus::Public,
                 {"onclose", "add", "box"},
                 R"(subscribeOnClose {"endpoint":"box"})",
                 kBox,
                 "notices for box"},
        VerbCase{QSBus::Public,
                 {"onclose", "remove", "box"},
                 R"(unsubscribeOnClose {"endpoint":"box"})",
                 kBox,
                 "no notices for box"}));

INSTANTIATE_TEST_SUITE_P(
    Owner, OneCall,
    testing::Values(
        VerbCase{QSBus::Private,
                 {"node", "config", "/n"},
                 R"(getNodeConfig {"nodes":["/n"]})",
                 R"({"returnValue":true,"node":"/n","options":{"pubsub#access_model":"open"}})",
                 "pubsub#access_model  open"},
        VerbCase{QSBus::Private,
                 {"node", "config", "/n"},
                 R"(getNodeConfig {"nodes":["/n"]})",
                 R"({"returnValue":true,"node":"/n"})",
                 "no options are reported"},
        VerbCase{QSBus::Private,
                 {"node", "config", "/n", "--set", "access_model=open", "--set", "x#title=a=b"},
                 R"(setNodeConfig {"node":"/n","options":{"pubsub#access_model":"open","x#title":"a=b"}})",
                 R"({"returnValue":true,"node":"/n"})",
                 "configured /n"},
        VerbCase{
            QSBus::Private,
            {"pending", "approve", "/n", "--id", "1", "--subid", "2", "--jid", "a@b"},
            R"(approvePending {"node":"/n","id":"1","subid":"2","approve":"true","subscriber_jid":"a@b"})",
            R"({"returnValue":true})",
            "approved a@b"},
        VerbCase{
            QSBus::Private,
            {"pending", "deny", "/n", "--id", "1", "--subid", "2", "--jid", "a@b"},
            R"(approvePending {"node":"/n","id":"1","subid":"2","approve":"false","subscriber_jid":"a@b"})",
            R"({"returnValue":true})",
            "denied a@b"}));

class EndpointList : public testing::Test, public CommandLine {
  protected:
    PrivateBus bus{"ZELT_PUBLIC_BUS"};
    FakeService service{QSBus::Public};
};

TEST_F(EndpointList, SaysThatAnApplicationHasNone) {
    service.script["listEndpoints"] = R"({"returnValue":true,"endpoints":[]})";
    EXPECT_EQ(run({"endpoint", "list"}), Exit::Ok);
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(err.str(),
              "pubsubctl: this application has no endpoints; `pubsubctl endpoint create` makes one\n");
    EXPECT_EQ(run({"--json", "endpoint", "list"}), Exit::Ok);
    EXPECT_EQ(out.str(), "{\"returnValue\":true,\"endpoints\":[]}\n");
}

struct UsageCase {
    std::vector<std::string> words;
    const char* problem;
};

class WrongUsage : public testing::TestWithParam<UsageCase>, public CommandLine {};

TEST_P(WrongUsage, IsToldBeforeAnythingIsSent) {
    EXPECT_EQ(run(GetParam().words), Exit::Usage);
    EXPECT_EQ(err.str(), "pubsubctl: " + std::string(GetParam().problem) + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Table, WrongUsage,
    testing::Values(
        UsageCase{{"endpoint", "create", "box", "--access", "open"},
                  "--access takes only \"authorize\", not \"open\""},
        UsageCase{{"node", "config", "/n", "--set", "title"},
                  "--set takes NAME=VALUE, such as access_model=open, not \"title\""},
        UsageCase{{"node", "config", "/n", "--set", "=x"},
                  "--set takes NAME=VALUE, such as access_model=open, not \"=x\""},
        UsageCase{{"pending", "approve", "/n", "--id", "1", "--subid", "2"},
                  "--jid is missing; `pending list` printed its value"},
        UsageCase{{"pending", "list", "-C", "none"},
                  "-C takes a whole number from 1 to 1000000, not \"none\""},
        UsageCase{{"onclose", "listen", "-W", "0"}, "-W takes a whole number of seconds, not \"0\""},
        UsageCase{{"subscribe", "box", "--retries", "1"}, "--retries needs a COMMAND after --"},
        UsageCase{{"subscribe", "box", "--retries", "-1", "--", "cat"},
                  "--retries takes a whole number from 0 to 1000000, not \"-1\""},
        UsageCase{{"subscribe", "box", "--retries", "1x", "--", "cat"},
                  "--retries takes a whole number from 0 to 1000000, not \"1x\""},
        UsageCase{{"subscribe", "box", "--newest", "--retries", "1", "--", "cat"},
                  "--newest and --retries are mutually exclusive: the service acknowledged the item"},
        UsageCase{{"subscribe", "box", "--newest", "-C", "0"},
                  "-C takes a whole number from 1 to 1000000, not \"0\""},
        UsageCase{{"subscribe", "box", "-C", "0"}, "-C takes a whole number from 1 to 1000000, not \"0\""},
        UsageCase{{"publish", "KEY", "text", "--file", "f"}, "give the item once: as TEXT or with --file"}));

class Listening : public testing::Test, public CommandLine {
  protected:
    // Runs a verb to which the service posts these texts once it has answered.
    std::string receive(std::vector<std::string> words, const std::string& method,
                        std::vector<std::string> posts) {
        service.calls.clear();
        service.script[method] = R"({"returnValue":true})";
        m_posts = std::move(posts);
        service.afterReply = [this, method](const std::string&) {
            for (const std::string& text : m_posts)
                service.post(method.c_str(), text.c_str());
        };
        out.str("");
        EXPECT_EQ(run(std::move(words)), Exit::Ok);
        return out.str();
    }

    PrivateBus bus;
    FakeService service;

  private:
    std::vector<std::string> m_posts;
};

TEST_F(Listening, PrintsWhoWaitsForApproval) {
    std::string request = R"({"subid":"S","node":"/n","subscriber_jid":"a@b/c","id":"1"})";
    EXPECT_EQ(receive({"pending", "list", "/n", "/m", "-C", "2"}, "subscribeNodeAuth", {request, request}),
              "/n  subscriber_jid: a@b/c  subid: S  id: 1\n/n  subscriber_jid: a@b/c  subid: S  id: 1\n");
    EXPECT_THAT(service.calls, ElementsAre(R"(subscribeNodeAuth {"subscribe":true,"nodes":["/n","/m"]})"));
    EXPECT_EQ(receive({"--json", "pending", "list", "-C", "1"}, "subscribeNodeAuth", {request}),
              R"({"node":"/n","subscriber_jid":"a@b/c","subid":"S","id":"1"})"
              "\n");
    EXPECT_THAT(service.calls, ElementsAre(R"(subscribeNodeAuth {"subscribe":true,"nodes":["*"]})"));
}

TEST_F(Listening, PrintsNoticesForClosedApplications) {
    std::string open = R"({"returnValue":true,"appid":"/d/a/box","open":true})";
    std::string item = R"({"item":"text","itemid":"1","node":"/d/a/box","returnValue":true,"appid":"a"})";
    EXPECT_EQ(receive({"onclose", "listen", "-C", "2"}, "registerOnClose", {open, item}),
              "open  /d/a/box\nitem  a  /d/a/box  text\n");
    EXPECT_THAT(service.calls, ElementsAre(R"(registerOnClose {"subscribe":true})"));
    EXPECT_EQ(receive({"--json", "onclose", "listen", "-C", "1"}, "registerOnClose", {item}), item + "\n");
}

TEST_F(Listening, SaysWhenItListensForClosedApplications) {
    std::string item = R"({"item":"text","itemid":"1","node":"/d/a/box","returnValue":true,"appid":"a"})";
    EXPECT_EQ(receive({"onclose", "listen", "-C", "1"}, "registerOnClose", {R"({"returnValue":true})", item}),
              "item  a  /d/a/box  text\n");
    EXPECT_EQ(err.str(), "pubsubctl: listening for items of closed applications\n");
}

}  // namespace
