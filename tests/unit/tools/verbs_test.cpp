// SPDX-License-Identifier: GPL-3.0-only
// The verbs against a small service on a real private bus: what is called, what is printed, and
// the exit code.
#include <gmock/gmock.h>

#include "tests/unit/host/privatebus.h"
#include "tests/unit/tools/commandline.h"
#include "tests/unit/tools/fakehost.h"
#include "tests/unit/tools/fakeservice.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Verbs : public testing::Test, public CommandLine {
  protected:
    // Keeps of the output what this run prints.
    Exit run(std::vector<std::string> words, const std::string& input = "") {
        in = std::istringstream(input);
        out.str("");
        err.str("");
        return CommandLine::run(std::move(words));
    }

    PrivateBus bus;
};

struct NodeCase {
    std::vector<std::string> words;
    const char* call;
    const char* reply;
    const char* terse;
};

class NodeVerbs : public Verbs, public testing::WithParamInterface<NodeCase> {
  protected:
    FakeService service;
    std::string method() const {
        std::string call = GetParam().call;
        return call.substr(0, call.find(' '));
    }
};

TEST_P(NodeVerbs, CallOnceAndPrintTheOutcome) {
    service.script[method()] = GetParam().reply;
    EXPECT_EQ(run(GetParam().words), Exit::Ok);
    EXPECT_THAT(service.calls, ElementsAre(GetParam().call));
    EXPECT_EQ(out.str(), std::string(GetParam().terse) + "\n");
    EXPECT_EQ(err.str(), "");
}

TEST_P(NodeVerbs, PrintTheReplyItselfUnderJson) {
    service.script[method()] = GetParam().reply;
    std::vector<std::string> words = GetParam().words;
    words.insert(words.begin(), "--json");
    EXPECT_EQ(run(words), Exit::Ok);
    EXPECT_EQ(out.str(), std::string(GetParam().reply) + "\n");
}

TEST_P(NodeVerbs, EndWithThreeAndTheReasonWhenRefused) {
    service.script[method()] =
        R"({"node":"/n","returnValue":false,"errorCode":"auth","errorText":"forbidden"})";
    EXPECT_EQ(run(GetParam().words), Exit::Refused);
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(err.str(),
              "pubsubctl: auth: forbidden (this account is not allowed to do that with this node; ask the "
              "node's owner)\n");
}

TEST_P(NodeVerbs, EndWithFourWhenTheServiceHasNoConnection) {
    service.script[method()] =
        R"({"returnValue":false,"errorCode":"connectionErr","errorText":"Not connected to xmpp server"})";
    EXPECT_EQ(run(GetParam().words), Exit::NotConnected);
    EXPECT_THAT(err.str(), HasSubstr("connectionErr: Not connected to xmpp server"));
}

INSTANTIATE_TEST_SUITE_P(Table, NodeVerbs,
                         testing::Values(NodeCase{{"node", "create", "/n", "--collection"},
                                                  R"(createNode {"node":"/n","nodeType":2})",
                                                  R"({"returnValue":true,"node":"/n"})",
                                                  "created /n"},
                                         NodeCase{{"node", "delete", "/n"},
                                                  R"(deleteNode {"node":"/n"})",
                                                  R"({"returnValue":true,"node":"/n"})",
                                                  "deleted /n"},
                                         NodeCase{{"node", "publish", "/n", "hello"},
                                                  R"(publishItem {"node":"/n","item":"hello"})",
                                                  R"({"returnValue":true})",
                                                  "published to /n"},
                                         NodeCase{{"node", "subscribe", "/n"},
                                                  R"(subscribeToNode {"node":"/n"})",
                                                  R"({"returnValue":true,"node":"/n","subid":"5A","type":1})",
                                                  "subscribed to /n  subid: 5A"},
                                         NodeCase{
                                             {"node", "unsubscribe", "/n", "--jid", "a@b", "--subid", "5A"},
                                             R"(unsubscribeFromNode {"node":"/n","jid":"a@b","subid":"5A"})",
                                             R"({"returnValue":true,"node":"/n"})",
                                             "unsubscribed from /n"}));

TEST_F(Verbs, RefuseAnUnsubscribeThatLacksWhatTheServiceNeeds) {
    EXPECT_EQ(run({"node", "unsubscribe", "/n", "--jid", "a@b"}), Exit::Usage);
    EXPECT_EQ(err.str(), "pubsubctl: --subid is missing; `node subscribe` printed its value\n");
}

TEST_F(Verbs, EndWithFourWhenTheServiceIsNotThere) {
    EXPECT_EQ(run({"node", "delete", "/n"}), Exit::NotConnected);
    EXPECT_THAT(err.str(), HasSubstr("com.zelt.pubsubservice is not on the bus"));
}

TEST_F(Verbs, EndWithFourWhenThereIsNoBus) {
    bus.stop();
    EXPECT_EQ(run({"node", "delete", "/n"}), Exit::NotConnected);
    EXPECT_THAT(err.str(), HasSubstr("Connecting to the private bus at "));
    EXPECT_EQ(run({"handler", "/n"}), Exit::NotConnected);
}

TEST_F(Verbs, EndWithFiveWhenNoAnswerComesInTime) {
    FakeService service;
    EXPECT_EQ(run({"--timeout", "1", "node", "delete", "/n"}), Exit::TimedOut);
    EXPECT_EQ(err.str(),
              "pubsubctl: no answer from com.zelt.pubsubservice within 1 s; --timeout SECONDS waits longer, "
              "and `call --no-reply` does not wait\n");
}

TEST_F(Verbs, EndWithFourWhenTheServiceDiesWithTheCallOpen) {
    FakeService service;
    service.afterReply = [&](const std::string&) {
        g_idle_add([](gpointer data) -> gboolean { return static_cast<FakeService*>(data)->leave(), FALSE; },
                   &service);
    };
    EXPECT_EQ(run({"node", "delete", "/n"}), Exit::NotConnected);
}

TEST_F(Verbs, PrintTheStatusAndTellItByTheExitCode) {
    FakeService service;
    service.script["subscribeConnStatus"] =
        R"({"returnValue":true,"connected":true,"session":true,"network":true})";
    EXPECT_EQ(run({"status"}), Exit::Ok);
    EXPECT_EQ(out.str(), "connected  network: yes  account: yes\n");
    service.script["subscribeConnStatus"] =
        R"({"returnValue":true,"connected":false,"session":false,"network":true})";
    EXPECT_EQ(run({"status"}), Exit::NotConnected);
    EXPECT_EQ(out.str(), "not connected  network: yes  account: no\n");
    EXPECT_EQ(err.str(), "");
    const char* asked = R"(subscribeConnStatus {"details":true})";
    EXPECT_THAT(service.calls, ElementsAre(asked, asked));
}

TEST_F(Verbs, AskOnThePublicBusWhenToldTo) {
    PrivateBus publicBus("ZELT_PUBLIC_BUS");
    FakeService service(QSBus::Public);
    service.script["connectStatus"] = R"({"returnValue":true,"connected":true})";
    EXPECT_EQ(run({"status", "--public"}), Exit::Ok);
    EXPECT_EQ(out.str(), "connected\n");
    EXPECT_THAT(service.calls, ElementsAre("connectStatus {}"));
}

TEST_F(Verbs, TellTheHostThatTheConnectionIsWantedWhenTheyAskForOneByTheStatus) {
    PrivateBus publicBus("ZELT_PUBLIC_BUS");
    FakeService service(QSBus::Public);
    FakeHost host;
    service.script["connectStatus"] = R"({"returnValue":true,"connected":true})";
    EXPECT_EQ(run({"status", "--public"}), Exit::Ok);
    EXPECT_THAT(host.calls, ElementsAre(R"(keep {"keep":true})"));
}

TEST_F(Verbs, FallBackToThePublicBusWhenThePrivateOneIsClosed) {
    PrivateBus publicBus("ZELT_PUBLIC_BUS");
    FakeService service(QSBus::Public);
    bus.stop();
    service.script["connectStatus"] = R"({"returnValue":true,"connected":true})";
    EXPECT_EQ(run({"status"}), Exit::Ok);
    EXPECT_EQ(out.str(), "connected\n");
}

TEST_F(Verbs, FollowTheStatusUntilTheServiceLeaves) {
    FakeService service;
    service.script["subscribeConnStatus"] =
        R"({"returnValue":true,"connected":false,"session":true,"network":true})";
    service.afterReply = [&](const std::string&) {
        g_idle_add(
            [](gpointer data) -> gboolean {
                auto* self = static_cast<FakeService*>(data);
                self->post("subscribeConnStatus",
                           R"({"returnValue":true, "connected":true, "session" : true, "network": true})");
                self->leave();
                return FALSE;
            },
            &service);
    };
    EXPECT_EQ(run({"--json", "status", "--follow"}), Exit::NotConnected);
    EXPECT_EQ(out.str(),
              "{\"returnValue\":true,\"connected\":false,\"session\":true,\"network\":true}\n"
              "{\"returnValue\":true,\"connected\":true,\"session\":true,\"network\":true}\n");
    EXPECT_EQ(err.str(), "pubsubctl: com.zelt.pubsubservice left the bus\n");
    EXPECT_THAT(service.calls, ElementsAre(R"(subscribeConnStatus {"subscribe":true,"details":true})"));
}

TEST_F(Verbs, WaitForTheConnection) {
    FakeService service;
    service.script["subscribeConnStatus"] = R"({"returnValue":true,"connected":false})";
    EXPECT_EQ(run({"--timeout", "1", "status", "--wait"}), Exit::TimedOut);
    EXPECT_EQ(err.str(), "pubsubctl: not connected within 1 s; --timeout SECONDS waits longer\n");
    service.afterReply = [&](const std::string&) {
        g_idle_add(
            [](gpointer data) -> gboolean {
                static_cast<FakeService*>(data)->post("subscribeConnStatus",
                                                      R"({"returnValue":true,"connected":true})");
                return FALSE;
            },
            &service);
    };
    EXPECT_EQ(run({"status", "--wait"}), Exit::Ok);
    EXPECT_EQ(out.str(), "not connected\nconnected\n");
}

TEST_F(Verbs, RefuseToFollowAndWaitAtOnce) {
    EXPECT_EQ(run({"status", "--wait", "--follow"}), Exit::Usage);
    EXPECT_EQ(run({"call", "m", "--no-reply", "--follow"}), Exit::Usage);
}

TEST_F(Verbs, CallAnyMethodAndPrintTheAnswerAsItCame) {
    FakeService service;
    service.script["getJabberId"] = R"({"returnValue": true, "jid":"a\/b"})";
    EXPECT_EQ(run({"call", "getJabberId"}), Exit::Ok);
    EXPECT_EQ(out.str(), "{\"returnValue\": true, \"jid\":\"a\\/b\"}\n");
    EXPECT_EQ(run({"--json", "call", "zelt://com.zelt.pubsubservice/getJabberId", "{\"a\":1}"}), Exit::Ok);
    EXPECT_EQ(out.str(), "{\"returnValue\":true,\"jid\":\"a/b\"}\n");
    EXPECT_THAT(service.calls, ElementsAre("getJabberId {}", "getJabberId {\"a\":1}"));
}

TEST_F(Verbs, PrintARefusalOfACallAndItsReason) {
    FakeService service;
    service.script["getJabberId"] = R"({"returnValue":false,"errorCode":"libErr","errorText":"why"})";
    EXPECT_EQ(run({"call", "getJabberId", "-"}, "{}"), Exit::Refused);
    EXPECT_EQ(out.str(), "{\"returnValue\":false,\"errorCode\":\"libErr\",\"errorText\":\"why\"}\n");
    EXPECT_EQ(err.str(), "pubsubctl: libErr: why\n");
}

TEST_F(Verbs, RefuseAMethodThatTheBusDoesNotKnowAndAnAddressThatIsNone) {
    FakeService service;
    EXPECT_EQ(run({"call", "noSuchMethod"}), Exit::Refused);
    EXPECT_THAT(err.str(), HasSubstr("no such method on this bus: "));
    EXPECT_EQ(run({"call", "zelt://no name/x"}), Exit::Usage);
    EXPECT_THAT(err.str(), HasSubstr("cannot call zelt://no name/x: "));
}

TEST_F(Verbs, SendACallThatNobodyAnswers) {
    FakeService service;
    EXPECT_EQ(run({"call", "initializeAccount", "--no-reply"}), Exit::Ok);
    EXPECT_EQ(out.str(), "");
    service.script["getResource"] = R"({"returnValue":true})";
    EXPECT_EQ(run({"call", "getResource"}), Exit::Ok);
    EXPECT_THAT(service.calls, ElementsAre("initializeAccount {}", "getResource {}"));
}

TEST_F(Verbs, FollowACallUntilTheReaderIsGone) {
    FakeService service;
    service.script["connectStatus"] = R"({"returnValue":true,"n":1})";
    service.afterReply = [&](const std::string&) {
        g_idle_add(
            [](gpointer data) -> gboolean {
                auto* self = static_cast<FakeService*>(data);
                self->post("connectStatus", R"({"returnValue":true,"n":2})");
                self->post("connectStatus", R"({"returnValue":false,"errorCode":"x","errorText":"y"})");
                return FALSE;
            },
            &service);
    };
    EXPECT_EQ(run({"call", "connectStatus", "{}", "--follow"}), Exit::Refused);
    EXPECT_EQ(out.str(),
              "{\"returnValue\":true,\"n\":1}\n{\"returnValue\":true,\"n\":2}\n"
              "{\"returnValue\":false,\"errorCode\":\"x\",\"errorText\":\"y\"}\n");
    EXPECT_EQ(err.str(), "pubsubctl: x: y\n");
}

}  // namespace
