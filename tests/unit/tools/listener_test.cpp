// SPDX-License-Identifier: GPL-3.0-only
// Long-lived subscriptions that take the newest item, against a small service on a real bus: what is called again, what is printed,
// what ends them.
#include <gmock/gmock.h>

#include "tests/unit/tools/publicsteps.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kAccepted[] = R"({"returnValue":true,"endpoint":"box"})";
constexpr char kNotInitialized[] =
    R"({"returnValue":false,"errorCode":"libErr","errorText":"Service not initialized"})";
constexpr char kLost[] =
    R"({"returnValue":false,"errorCode":"connectionErr","errorText":"pubsubservice disconnected"})";

class Receiver : public PublicSteps {
  protected:
    Receiver() { service.script["subscribe"] = kAccepted; }
    // An item as the service delivers it: it ends the subscription.
    std::function<void()> item(const std::string& text) {
        return [this, text] {
            service.post("subscribe",
                         (R"({"item":")" + text + R"(","endpoint":"box","returnValue":true})").c_str());
            service.endSubscriptions("subscribe");
        };
    }

    std::string subscription = R"(subscribe {"endpoint":"box","subscribe":true})";
};

TEST_F(Receiver, SubscribesAgainAfterEachItemUntilTheCount) {
    after("subscribe", {item("one"), item("two\\nlines")});
    EXPECT_EQ(run({"subscribe", "--newest", "box", "-C", "2"}), Exit::Ok);
    EXPECT_EQ(out.str(), "one\ntwo\nlines\n");
    EXPECT_EQ(err.str(), "pubsubctl: receiving the items of box\n");
    EXPECT_THAT(service.calls, ElementsAre(subscription, subscription));
}

TEST_F(Receiver, PrintsObjectsUnderJson) {
    after("subscribe", {item("a\\\"b")});
    EXPECT_EQ(run({"--json", "subscribe", "--newest", "box", "-C", "1"}), Exit::Ok);
    EXPECT_EQ(out.str(), "{\"endpoint\":\"box\",\"item\":\"a\\\"b\"}\n");
}

TEST_F(Receiver, SubscribesAgainWhenItsSubscriptionIsEndedWithoutAnItem) {
    after("subscribe", {[this] { service.endSubscriptions("subscribe"); }, item("one")});
    EXPECT_EQ(run({"subscribe", "--newest", "box", "-C", "1"}), Exit::Ok);
    EXPECT_EQ(out.str(), "one\n");
    EXPECT_THAT(service.calls, ElementsAre(subscription, subscription));
}

TEST_F(Receiver, RefusesToWaitBesideAnotherProcessOfTheApplication) {
    service.script["subscribe"] = R"({"returnValue":true,"endpoint":"box","status":"subscribed"})";
    EXPECT_EQ(run({"subscribe", "--newest", "box"}), Exit::Refused);
    EXPECT_EQ(err.str(),
              "pubsubctl: another process of this application already waits for box and gets its next item; "
              "`pubsubctl unsubscribe` ends its wait\n");
}

TEST_F(Receiver, EndsWithARefusalThatComesAsTheSecondAnswer) {
    after("subscribe", {[this] {
              service.post("subscribe",
                           R"({"returnValue":false,"errorCode":"xmppErr","errorText":"forbidden"})");
          }});
    EXPECT_EQ(run({"subscribe", "--newest", "box"}), Exit::Refused);
    EXPECT_THAT(err.str(), HasSubstr("pubsubctl: xmppErr: forbidden"));
}

TEST_F(Receiver, StaysWhenTheConnectionIsLostUnderAnAcceptedSubscription) {
    after("subscribe", {[this] {
              service.post("subscribe", kLost);
              item("later")();
          }});
    EXPECT_EQ(run({"subscribe", "--newest", "box", "-C", "1"}), Exit::Ok);
    EXPECT_EQ(out.str(), "later\n");
    EXPECT_THAT(err.str(),
                HasSubstr("pubsubctl: the connection was lost; delivery resumes when it is back\n"));
    EXPECT_THAT(service.calls, ElementsAre(subscription));
}

TEST_F(Receiver, WaitsForTheFirstConnectionOfTheService) {
    service.script["subscribe"] = kNotInitialized;
    service.script["connectStatus"] = R"({"returnValue":true,"connected":false})";
    after("connectStatus", {[this] {
              service.script["subscribe"] = kAccepted;
              service.post("connectStatus", R"({"returnValue":true,"connected":true})");
          }});
    EXPECT_EQ(run({"subscribe", "--newest", "box", "-C", "1", "-W", "1"}), Exit::TimedOut);
    EXPECT_THAT(service.calls,
                ElementsAre(subscription, R"(connectStatus {"subscribe":true})", subscription));
    EXPECT_EQ(err.str(),
              "pubsubctl: the service has no connection to its server; waiting for it\n"
              "pubsubctl: receiving the items of box\n"
              "pubsubctl: timed out: 0 of 1 received\n");
}

TEST_F(Receiver, SaysWhenNoAnswerComesAndGoesOnWaiting) {
    service.script["subscribe"] = "";
    EXPECT_EQ(run({"subscribe", "--newest", "box", "-W", "4"}), Exit::Ok);
    EXPECT_EQ(err.str(), "pubsubctl: no answer yet: the service has no connection to its server; waiting\n");
}

TEST_F(Receiver, EndsWithFourWhenTheServiceIsNotThereOrTheBusGoes) {
    after("subscribe", {[this] { publicBus.stop(); }});
    EXPECT_EQ(run({"subscribe", "--newest", "box"}), Exit::NotConnected);
    EXPECT_THAT(err.str(), HasSubstr("pubsubctl: the bus closed the connection\n"));
}

TEST_F(Receiver, EndsWithFourWhenThereNeverWasAService) {
    service.leave();
    EXPECT_EQ(run({"subscribe", "--newest", "box"}), Exit::NotConnected);
    EXPECT_THAT(err.str(), HasSubstr("com.zelt.pubsubservice is not on the bus"));
}

TEST_F(Receiver, WaitsForAServiceThatLeftAndSubscribesAtTheNextOne) {
    std::unique_ptr<FakeService> next;
    after("subscribe", {[&] {
              service.leave();
              schedule([&] {
                  next = std::make_unique<FakeService>(QSBus::Public);
                  next->script["subscribe"] = R"({"returnValue":true,"item":"new","endpoint":"box"})";
              });
          }});
    EXPECT_EQ(run({"subscribe", "--newest", "box", "-C", "1"}), Exit::Ok);
    EXPECT_EQ(out.str(), "new\n");
    EXPECT_EQ(err.str(),
              "pubsubctl: receiving the items of box\n"
              "pubsubctl: com.zelt.pubsubservice left the bus; waiting for it to return\n"
              "pubsubctl: com.zelt.pubsubservice is back\n");
}

TEST_F(Receiver, EndsWhenInterruptedAndTheServiceHearsOfIt) {
    for (int signal : {SIGINT, SIGTERM}) {
        service.cancelled.clear();
        after("subscribe", {});
        service.afterReply = [signal](const std::string&) { kill(getpid(), signal); };
        EXPECT_EQ(run({"subscribe", "--newest", "box"}), Exit::Ok);
        EXPECT_TRUE(service.until([this] { return !service.cancelled.empty(); }));
        EXPECT_THAT(service.cancelled, ElementsAre(subscription));
    }
}

TEST_F(Receiver, RunsTheCommandForEachItemAndReportsItsFailures) {
    after("subscribe", {item("good"), item("bad")});
    std::string file = testing::TempDir() + "pubsubctl-items-" + std::to_string(getpid());
    EXPECT_EQ(run({"subscribe", "--newest", "box", "-C", "2", "--", "sh", "-c",
                   "cat >>" + file + "; echo >>" + file + "; ! grep -q bad " + file}),
              Exit::CommandFailed);
    std::string text;
    std::string problem;
    Console console(in, out, err, false);
    EXPECT_TRUE(readWhole(console, file, text, problem));
    unlink(file.c_str());
    EXPECT_EQ(text, "good\nbad\n");
    EXPECT_EQ(out.str(), "");
    EXPECT_THAT(err.str(), HasSubstr("pubsubctl: sh exited with code 1\n"));
    EXPECT_THAT(service.calls, ElementsAre(subscription, subscription));
}

TEST_F(Receiver, SaysWhichSignalEndedACommand) {
    after("subscribe", {item("one")});
    EXPECT_EQ(run({"subscribe", "--newest", "box", "-C", "1", "--", "sh", "-c", "kill -9 $$"}),
              Exit::CommandFailed);
    EXPECT_THAT(err.str(), HasSubstr("pubsubctl: sh was killed by signal 9\n"));
}

TEST_F(Receiver, NeedsTheProgramBeforeItReceivesAnything) {
    EXPECT_EQ(run({"subscribe", "--newest", "box", "--", "no-such-program"}), Exit::Usage);
    EXPECT_TRUE(service.calls.empty());
}

class Unsubscriber : public Receiver {
  protected:
    std::string request = R"(unsubscribe {"endpoint":"box","subscribe":true})";
    Unsubscriber() { service.script["unsubscribe"] = kAccepted; }
};

TEST_F(Unsubscriber, TakesTheSecondAnswerWhileTheServiceIsConnected) {
    service.script["connectStatus"] = R"({"returnValue":true,"connected":true})";
    after("connectStatus", {[this] {
              service.post("unsubscribe",
                           R"({"returnValue":false,"errorCode":"xmppErr","errorText":"forbidden"})");
          }});
    EXPECT_EQ(run({"unsubscribe", "box"}), Exit::Refused);
    EXPECT_THAT(err.str(), HasSubstr("xmppErr: forbidden"));
    EXPECT_THAT(service.calls, ElementsAre(request, "connectStatus {}"));
}

TEST_F(Unsubscriber, TakesTheSecondAnswerThatComesAtOnce) {
    service.script["connectStatus"] = R"({"returnValue":true,"connected":true})";
    after("unsubscribe", {[this] { service.post("unsubscribe", kAccepted); }});
    EXPECT_EQ(run({"--timeout", "5", "unsubscribe", "box"}), Exit::Ok);
    EXPECT_EQ(out.str(), "unsubscribed from box\n");
}

TEST_F(Unsubscriber, TakesTheFirstAnswerWithoutAConnection) {
    service.script["connectStatus"] = R"({"returnValue":true,"connected":false})";
    EXPECT_EQ(run({"unsubscribe", "box"}), Exit::Ok);
    EXPECT_EQ(out.str(), "unsubscribed from box\n");
}

TEST_F(Unsubscriber, AsksNoFurtherWhenNobodyWasSubscribed) {
    service.script["unsubscribe"] = R"({"returnValue":true,"endpoint":"box","status":"not subscribed"})";
    EXPECT_EQ(run({"unsubscribe", "box", "--onclose"}), Exit::Ok);
    EXPECT_EQ(out.str(), "nobody was subscribed to box\n");
    EXPECT_THAT(service.calls,
                ElementsAre(R"(unsubscribe {"endpoint":"box","onclose":true,"subscribe":true})"));
}

TEST_F(Unsubscriber, EndsInTimeWhenTheSecondAnswerNeverComes) {
    service.script["connectStatus"] = R"({"returnValue":true,"connected":true})";
    EXPECT_EQ(run({"--timeout", "1", "unsubscribe", "box"}), Exit::TimedOut);
}

}  // namespace
