// SPDX-License-Identifier: GPL-3.0-only
// The readiness checks of a request and the format of error replies.
#include "request/requestframe.h"

#include "tests/fakes/servicefixture.h"
#include "util/jsonref.h"
#include "xmpp/manager.h"

namespace {

class CheckInit : public ServiceTest {
  protected:
    // The outcome as a text: what a public handler would reply, or "ready".
    std::string check(const char* text, bool needConnected) {
        JsonRef parsed = parseJson(text);
        json_object* payload = parsed.get();
        std::string errorCode = "parameterErr", errorText = "\"Bad Argument\"";
        if (checkInit(payload, session(), errorCode, errorText, needConnected))
            return "ready";
        m_payload = payload;
        return errorCode + " / " + errorText;
    }
    void makeManager() {
        setAccountDetails();
        ASSERT_TRUE(session().createSession());
    }

    json_object* m_payload = nullptr;
};

TEST_F(CheckInit, AsksForTheConnectionFirstAndLogsNothing) {
    EXPECT_EQ(check("no json", true), "connectionErr / Not connected to xmpp server");
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(CheckInit, AsksForTheManagerBeforeThePayload) {
    EXPECT_EQ(check("no json", false), "libErr / Service not initialized");
    EXPECT_EQ(takeLogLines(), Texts{"checkInit: PubSub manager not intialized"});
}

TEST_F(CheckInit, RefusesAManagerWithoutAPubSubService) {
    makeManager();
    session().m_pubsubService.clear();
    EXPECT_EQ(check("{}", false), "libErr / Service not initialized");
    EXPECT_EQ(takeLogLines(), Texts{"checkInit: PubSub manager not intialized"});
}

TEST_F(CheckInit, KeepsThePresetCodeForAMalformedPayload) {
    makeManager();
    EXPECT_EQ(check("no json", false), "parameterErr / Malformed json");
    EXPECT_EQ(m_payload, nullptr);
    EXPECT_EQ(takeLogLines(), Texts{"checkInit: Malformed json packet? \n"});
}

TEST_F(CheckInit, TakesAPayloadOfNullForMalformed) {
    makeManager();
    EXPECT_EQ(check("null", false), "parameterErr / Malformed json");
}

TEST_F(CheckInit, IsReadyWithoutAConnectionWhenNoneIsNeeded) {
    makeManager();
    EXPECT_EQ(check("{}", false), "ready");
    EXPECT_EQ(check("{}", true), "connectionErr / Not connected to xmpp server");
    session().m_connected = true;
    EXPECT_EQ(check("{}", true), "ready");
    EXPECT_EQ(check("[]", true), "ready");
    EXPECT_EQ(takeLogLines(), Texts{});
    session().m_connected = false;
}

class ErrorReply : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        m_message = fakeBus().request(privateHandle(), "createNode", "{}");
    }
    void TearDown() override {
        QSMessageUnref(m_message);
        ServiceTest::TearDown();
    }

    FakeMessage* m_message = nullptr;
};

TEST_F(ErrorReply, HoldsReturnValueErrorCodeAndErrorTextInThisOrder) {
    HandleError(privateHandle(), m_message, "libErr", "Service not initialized", nullptr);
    EXPECT_EQ(m_message->reply(),
              R"({ "returnValue": false, "errorCode": "libErr", "errorText": "Service not initialized" })");
    EXPECT_EQ(takeLogLines(),
              Texts{"HandleError: Sending return error { \"returnValue\": false, \"errorCode\": "
                    "\"libErr\", \"errorText\": \"Service not initialized\" } \n"});
}

TEST_F(ErrorReply, PutsTheHandlersOwnMembersFirstAndReleasesTheObject) {
    JsonRef object(json_object_new_object());
    json_object_object_add(object.get(), "node", json_object_new_string("/a"));
    HandleError(privateHandle(), m_message, "parameterErr", "\"Bad Argument\"",
                json_object_get(object.get()));
    EXPECT_EQ(m_message->reply(),
              "{ \"node\": \"\\/a\", \"returnValue\": false, \"errorCode\": \"parameterErr\", "
              "\"errorText\": \"\\\"Bad Argument\\\"\" }");
    // json_object_put returns 1 when it frees the object, so the test's own reference is the last one.
    EXPECT_EQ(json_object_put(object.release()), 1);
}

TEST_F(ErrorReply, LogsAReplyThatCannotBeSent) {
    JsonRef object(json_object_new_object());
    fakeBus().failNext("QSMessageReply", -107, "gone");
    HandleError(privateHandle(), m_message, "libErr", "text", json_object_get(object.get()));
    EXPECT_EQ(json_object_put(object.release()), 1) << "the object is released all the same";
    EXPECT_EQ(takeLogLines(),
              (Texts{"HandleError: Sending return error { \"returnValue\": false, \"errorCode\": "
                     "\"libErr\", \"errorText\": \"text\" } \n",
                     "HandleError: Sending reply to client failed -107 gone"}));
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(ErrorReply, SendReplyLogsItsFailureUnderTheCallersName) {
    fakeBus().failNext("QSMessageReply", -107, "gone");
    sendReply(privateHandle(), m_message, "{}", {"getJabberId", 12});
    EXPECT_EQ(log().raw(), "[getJabberId: 12]: Sending reply to client failed -107 gone\n");
    sendReply(privateHandle(), m_message, "{}", {"getJabberId", 12});
    EXPECT_EQ(takeEvents(), Texts{"bus.reply createNode {}"});
}

}  // namespace
