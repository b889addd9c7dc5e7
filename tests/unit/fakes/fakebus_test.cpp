// SPDX-License-Identifier: GPL-3.0-only
// The functions of the fake bus for tests; the contract suite covers the QS calls.
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/bus/qsraii.h"
#include "tests/fakes/fakebus.h"
#include "tests/fakes/journal.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

KeptMessage gKept;
std::vector<std::string> gSeen;

bool echo(QSHandle* handle, QSMessage* message, void*) {
    return QSMessageReply(handle, message, QSMessageGetPayload(message), nullptr);
}

bool keep(QSHandle*, QSMessage* message, void*) {
    gKept = KeptMessage(message);
    return true;
}

bool follow(QSHandle* handle, QSMessage* message, void*) {
    return QSSubscriptionAdd(handle, "key", message, nullptr) &&
           QSMessageReply(handle, message, "{\"returnValue\":true}", nullptr);
}

bool see(QSHandle*, QSMessage* message, void* context) {
    gSeen.push_back(std::string(static_cast<const char*>(context)) + ' ' + QSMessageGetPayload(message));
    return true;
}

bool seeError(QSHandle*, QSMessage* message, void*) {
    gSeen.push_back(std::string(QSMessageIsError(message) ? "error " : "no error ") +
                    QSMessageGetErrorName(message) + ' ' + QSMessageGetPayload(message));
    return true;
}

constexpr QSMethod kPublicMethods[] = {{"echo", echo, 0}, {nullptr, nullptr, 0}};
constexpr QSMethod kPrivateMethods[] = {{"keep", keep, 0}, {nullptr, nullptr, 0}};

char kContext[] = "context";

class FakeBusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeBus().reset();
        journal().take();
        gSeen.clear();
    }
    void TearDown() override {
        gKept = KeptMessage();
        EXPECT_THAT(fakeBus().liveMessages(), IsEmpty());
        fakeBus().reset();
    }
    static void registerTables() {
        QSZeltService* service = nullptr;
        ASSERT_TRUE(QSRegisterZeltService("com.zelt.pubsubservice", &service, nullptr));
        ASSERT_TRUE(
            QSZeltServiceRegisterCategory(service, "/", kPublicMethods, kPrivateMethods, nullptr, nullptr));
    }
};

}  // namespace

TEST_F(FakeBusTest, DispatchesThroughTheRegisteredTables) {
    registerTables();
    EXPECT_EQ(fakeBus().call(fakeBus().publicHandle(), "echo", "{\"a\":1}")->reply(), "{\"a\":1}");
    EXPECT_EQ(fakeBus().call(fakeBus().privateHandle(), "echo", "{\"a\":2}")->reply(), "{\"a\":2}");
    EXPECT_THAT(journal().take(), ElementsAre("bus.reply echo {\"a\":1}", "bus.reply echo {\"a\":2}"));
}

TEST_F(FakeBusTest, HidesPrivateMethodsFromThePublicBus) {
    registerTables();
    EXPECT_EQ(fakeBus().call(fakeBus().publicHandle(), "keep", "{}")->errorName,
              "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_TRUE(fakeBus().call(fakeBus().privateHandle(), "keep", "{}")->kept());
}

TEST_F(FakeBusTest, GivesTheTestsServiceToTheOneWhoRegistersIt) {
    QSZeltService* made = fakeBus().service();
    QSZeltService* service = nullptr;
    ASSERT_TRUE(QSRegisterZeltService("com.zelt.pubsubservice", &service, nullptr));
    EXPECT_EQ(service, made);
    BusError error;
    EXPECT_FALSE(QSRegisterZeltService("com.zelt.pubsubservice", &service, error));
    EXPECT_EQ(error.code(), -EEXIST);
}

TEST_F(FakeBusTest, ClosesAMessageThatNobodyCanAnswerAnyMore) {
    FakeMessage* message = fakeBus().call(fakeBus().privateHandle(), keep, "keep", "{}");
    EXPECT_FALSE(message->closedUnanswered);
    gKept = KeptMessage();
    EXPECT_TRUE(message->closedUnanswered);
}

TEST_F(FakeBusTest, LetsAKeptMessageBeAnsweredLater) {
    FakeMessage* message = fakeBus().call(fakeBus().privateHandle(), keep, "keep", "{}");
    ASSERT_TRUE(QSMessageRespond(gKept.get(), "{\"late\":true}", nullptr));
    EXPECT_THAT(message->answers, ElementsAre("{\"late\":true}"));
    EXPECT_THAT(journal().take(), ElementsAre("bus.respond keep {\"late\":true}"));
}

TEST_F(FakeBusTest, ReportsTheUseOfAReleasedMessage) {
    static FakeMessage* message;
    message = fakeBus().call(fakeBus().privateHandle(), echo, "echo", "{}");
    EXPECT_NONFATAL_FAILURE(QSMessageRespond(message, "{}", nullptr), "released");
    EXPECT_NONFATAL_FAILURE(QSMessageUnref(message), "released");
}

TEST_F(FakeBusTest, AllowsAReleaseAfterAReset) {
    fakeBus().call(fakeBus().privateHandle(), keep, "keep", "{\"kept\":true}");
    fakeBus().reset();
    EXPECT_STREQ(QSMessageGetPayload(gKept.get()), "{\"kept\":true}");
    EXPECT_FALSE(QSMessageRespond(gKept.get(), "{}", nullptr));
    gKept = KeptMessage();
    EXPECT_THAT(fakeBus().liveMessages(), IsEmpty());
}

TEST_F(FakeBusTest, RunsTheCancelFunctionAfterTheMessageLeftItsLists) {
    ASSERT_TRUE(QSSubscriptionSetCancelFunction(
        fakeBus().publicHandle(),
        [](QSHandle* handle, QSMessage*, void*) {
            gSeen.push_back(std::to_string(fakeBus().subscribers(handle, "key").size()) + " left");
            return true;
        },
        nullptr, nullptr));
    FakeMessage* message = fakeBus().call(fakeBus().publicHandle(), follow, "subscribe", "{}");
    ASSERT_EQ(fakeBus().subscribers(fakeBus().publicHandle(), "key").size(), 1u);
    fakeBus().clientDies(message);
    EXPECT_THAT(gSeen, ElementsAre("0 left"));
    EXPECT_FALSE(message->kept());
    EXPECT_FALSE(message->ended);
    EXPECT_THAT(journal().take(),
                ElementsAre("bus.subscribe public key", "bus.reply subscribe {\"returnValue\":true}",
                            "bus.unsubscribe public key"));
}

TEST_F(FakeBusTest, ReportsTheEndOfAClientOnlyWhenTheConnectionsAreRead) {
    FakeMessage* message = fakeBus().call(fakeBus().publicHandle(), follow, "subscribe", "{}");
    fakeBus().clientDiesUnseen(message);
    EXPECT_TRUE(message->kept());
    QSZeltServiceReadReceived(fakeBus().service());
    EXPECT_FALSE(message->kept());
}

TEST_F(FakeBusTest, CancelsOneSubscriptionOfALivingClient) {
    FakeMessage* first = fakeBus().call(fakeBus().publicHandle(), follow, "subscribe", "{}", "", "me");
    FakeMessage* second = fakeBus().call(fakeBus().publicHandle(), follow, "subscribe", "{}", "", "me");
    EXPECT_TRUE(fakeBus().cancel(first));
    EXPECT_FALSE(fakeBus().cancel(first));
    EXPECT_THAT(fakeBus().subscribers(fakeBus().publicHandle(), "key"), ElementsAre(second));
    fakeBus().dropSubscriptions();
}

TEST_F(FakeBusTest, DeliversRepliesToTheNewestOpenCall) {
    QSHandle* handle = fakeBus().privateHandle();
    ASSERT_TRUE(QSCall(handle, "quor://com.zelt.power/a", "{\"n\":1}", see, kContext, nullptr, nullptr));
    ASSERT_TRUE(QSCall(handle, "zelt://com.zelt.power/a", "{\"n\":2}", see, kContext, nullptr, nullptr));
    EXPECT_THAT(journal().take(), ElementsAre("bus.call quor://com.zelt.power/a {\"n\":1}",
                                              "bus.call zelt://com.zelt.power/a {\"n\":2}"));
    EXPECT_TRUE(fakeBus().replyTo("quor://com.zelt.power/a", "{\"n\":1}", "first"));
    EXPECT_TRUE(fakeBus().replyTo("quor://com.zelt.power/a", "second"));
    EXPECT_FALSE(fakeBus().replyTo("quor://com.zelt.power/a", "third"));
    EXPECT_THAT(gSeen, ElementsAre("context first", "context second"));
    EXPECT_THAT(fakeBus().payloadsTo("zelt://com.zelt.power/a"), ElementsAre("{\"n\":1}", "{\"n\":2}"));
}

TEST_F(FakeBusTest, KeepsASubscribingCallOpenUntilAnError) {
    const char* uri = "quor://com.zelt.connectionmanager/getstatus";
    ASSERT_TRUE(
        QSCall(fakeBus().privateHandle(), uri, "{\"subscribe\":true}", seeError, nullptr, nullptr, nullptr));
    EXPECT_TRUE(fakeBus().replyTo(uri, "one"));
    EXPECT_TRUE(fakeBus().replyTo(uri, "two"));
    EXPECT_TRUE(fakeBus().replyErrorTo(uri, "com.zelt.Error.Gone", "gone"));
    EXPECT_FALSE(fakeBus().replyTo(uri, "three"));
    EXPECT_THAT(gSeen, ElementsAre("no error  one", "no error  two",
                                   "error com.zelt.Error.Gone {\"returnValue\":false,\"errorCode\":-1,"
                                   "\"errorText\":\"gone\"}"));
}

TEST_F(FakeBusTest, TellsTheWatchesOfOneService) {
    const char* uri = "zelt://com.zelt.bus/signal/registerServerStatus";
    ASSERT_TRUE(QSCall(fakeBus().privateHandle(), uri, "{\"serviceName\":\"com.zelt.power\"}", see, kContext,
                       nullptr, nullptr));
    EXPECT_FALSE(fakeBus().serverStatus("com.zelt.other", true));
    EXPECT_TRUE(fakeBus().serverStatus("com.zelt.power", true));
    EXPECT_TRUE(fakeBus().serverStatus("com.zelt.power", false));
    EXPECT_THAT(gSeen, ElementsAre("context {\"connected\":true}", "context {\"connected\":false}"));
}

TEST_F(FakeBusTest, FailsAsOftenAsTheTestSpecified) {
    fakeBus().failNext("QSCall", -EIO, "no bus", 2);
    BusError error;
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(
            QSCall(fakeBus().privateHandle(), "quor://com.zelt.a/b", "{}", nullptr, nullptr, nullptr, error));
        EXPECT_EQ(error.code(), -EIO);
        EXPECT_STREQ(error.message(), "no bus");
    }
    EXPECT_FALSE(fakeBus().faultPending("QSCall"));
    EXPECT_TRUE(
        QSCall(fakeBus().privateHandle(), "quor://com.zelt.a/b", "{}", nullptr, nullptr, nullptr, error));
    EXPECT_THAT(journal().take(), ElementsAre("bus.call quor://com.zelt.a/b {}"));
}

TEST_F(FakeBusTest, RefusesCallsToAMissingService) {
    fakeBus().serviceMissing("com.zelt.accountservices");
    BusError error;
    EXPECT_FALSE(QSCall(fakeBus().privateHandle(), "quor://com.zelt.accountservices/get", "{}", see, kContext,
                        nullptr, error));
    EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(FakeBusTest, QuitsTheLoopWhenAConnectionIsLost) {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    ASSERT_TRUE(QSGmainAttachZeltService(fakeBus().service(), loop, nullptr));
    g_idle_add(
        [](gpointer) -> gboolean {
            fakeBus().loseConnection(fakeBus().publicHandle());
            return G_SOURCE_REMOVE;
        },
        nullptr);
    g_main_loop_run(loop);  // returns only because the loss quits it
    EXPECT_FALSE(g_main_loop_is_running(loop));
    g_main_loop_unref(loop);
}
