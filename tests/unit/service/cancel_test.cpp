// SPDX-License-Identifier: GPL-3.0-only
// What is removed, kept or activated again when a bus client's subscription is cancelled.
#include "service/cancel.h"

#include "tests/fakes/servicefixture.h"

namespace {

constexpr char kApp[] = "com.example.app 4711";
constexpr char kNode[] = "/u1234/dev42/com.example.app/inbox";
constexpr char kSubscribe[] = R"({"endpoint":"inbox","subscribe":true})";

class Cancellation : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        connectSession();
        session().setSubMap(kNode, "com.example.app 4711", publicHandle());
    }
    void cancelled(QSFilter cancel, QSHandle* handle, const std::string& method, const std::string& payload,
                   const std::string& appId = kApp) {
        FakeMessage* message = fakeBus().request(handle, method, payload, appId);
        EXPECT_TRUE(cancel(handle, message, nullptr));
        EXPECT_EQ(message->answers, Texts{}) << "the client is gone";
        QSMessageUnref(message);
    }
    void cancelledPublic(const std::string& payload, const std::string& appId = kApp) {
        cancelled(publicCancelFunc, publicHandle(), "subscribe", payload, appId);
    }
    void cancelledPrivate(const std::string& method, const std::string& payload) {
        cancelled(cancelFunction, privateHandle(), method, payload);
    }
    bool subscribed() { return session().subMap.contains(kNode); }
    void expectRefused(const std::string& function, const std::string& payload, const std::string& code,
                       const std::string& text) {
        EXPECT_EQ(takeLogLines().back(),
                  function + ": Payload bad? " + payload + " Errcode " + code + " ErrText " + text);
        EXPECT_TRUE(subscribed());
    }
};

TEST_F(Cancellation, RemovesThePublicSubscriber) {
    cancelledPublic(kSubscribe);
    EXPECT_FALSE(subscribed());
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(Cancellation, LeavesOtherListenersOfTheNodeOnTheBus) {
    FakeMessage* other = fakeBus().request(publicHandle(), "subscribe", kSubscribe, kApp);
    BusError error;
    ASSERT_TRUE(QSSubscriptionAdd(publicHandle(), kNode, other, error));
    QSMessageUnref(other);
    cancelledPublic(kSubscribe);
    EXPECT_FALSE(subscribed());
    EXPECT_EQ(fakeBus().subscribers(publicHandle(), kNode), std::vector<FakeMessage*>{other});
}

TEST_F(Cancellation, TakesEveryCancelledPublicSubscriptionForASubscribe) {
    cancelled(publicCancelFunc, publicHandle(), "connectStatus", kSubscribe);
    EXPECT_FALSE(subscribed());
}

TEST_F(Cancellation, RemovesTheSubscriberOfAPrivateSubscribe) {
    cancelledPrivate("subscribe", kSubscribe);
    EXPECT_FALSE(subscribed());
}

TEST_F(Cancellation, OfAReceiveThatWasRefusedLeavesTheSubscriber) {
    const std::string payload = R"({"subscribe":true})";
    cancelledPrivate("receive", payload);
    cancelled(publicCancelFunc, publicHandle(), "receive", payload);
    EXPECT_TRUE(subscribed());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Cancellation, NeedsNoConnection) {
    session().m_connected = false;
    cancelledPublic(kSubscribe);
    EXPECT_FALSE(subscribed());
    session().m_connected = true;
}

TEST_F(Cancellation, NeverActivatesWithoutAListenerForClosedApplications) {
    session().setOfflineMap(kNode, "com.example.app");
    cancelledPublic(kSubscribe);
    EXPECT_FALSE(subscribed());
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(Cancellation, ActivatesANodeThatIsKeptForTheClosedApplication) {
    session().m_onCloseRegistered = true;
    session().setOfflineMap(kNode, "com.example.app");
    cancelledPublic(kSubscribe);
    EXPECT_FALSE(subscribed());
    EXPECT_EQ(stanzaCount(), 1u);
    expectStanza(
        "<iq to='pubsub.example.org' id='ID' type='set'><activate "
        "xmlns='urn:zelt:pubsub:device:0' node='" +
        std::string(kNode) + "' seqNo='0'/></iq>");
    EXPECT_TRUE(session().m_offlineMap.contains(kNode)) << "only read";
    EXPECT_TRUE(session().m_onCloseRegistered);
    EXPECT_TRUE(session().m_endpointMap.empty()) << "nobody waits for the result";
}

TEST_F(Cancellation, DoesNotActivateANodeThatIsNotKept) {
    session().m_onCloseRegistered = true;
    cancelledPublic(kSubscribe);
    EXPECT_FALSE(subscribed());
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(Cancellation, ActivatesForAPrivateSubscribeToo) {
    session().m_onCloseRegistered = true;
    session().setOfflineMap(kNode, "com.example.app");
    cancelledPrivate("subscribe", kSubscribe);
    EXPECT_EQ(stanzaCount(), 1u);
}

TEST_F(Cancellation, LogsAPayloadWithoutAnEndpoint) {
    cancelledPublic(R"({"subscribe":true})");
    expectRefused("publicCancelFunc", R"({"subscribe":true})", "parameterErr", "No endpoint provided");
    cancelledPrivate("subscribe", R"({"endpoint":""})");
    expectRefused("cancelFunction", R"({"endpoint":""})", "parameterErr", "Empty endpoint provided");
}

TEST_F(Cancellation, LogsAPayloadThatIsNoJson) {
    cancelledPublic("no json");
    expectRefused("publicCancelFunc", "no json", "parameterErr", "Malformed json");
    // The payload is checked before the method.
    for (const char* method : {"subscribe", "registerOnClose", "subscribeConnStatus"}) {
        cancelledPrivate(method, "no json");
        expectRefused("cancelFunction", "no json", "parameterErr", "Malformed json");
    }
}

TEST_F(Cancellation, LogsAClientWithoutAnApplicationId) {
    cancelledPublic(kSubscribe, "");
    expectRefused("publicCancelFunc", kSubscribe, "libErr", "Error getting appid of calling app");
    cancelled(cancelFunction, privateHandle(), "subscribe", kSubscribe, "");
    expectRefused("cancelFunction", kSubscribe, "libErr", "Error getting appid of calling app");
}

TEST_F(Cancellation, LogsAnEndpointThatMakesTooLongANode) {
    const std::string payload = R"({"endpoint":")" + std::string(100, 'n') + R"("})";
    cancelledPublic(payload);
    expectRefused("publicCancelFunc", payload, "libErr", "endpoint too long");
}

TEST_F(Cancellation, LogsARequestFromBeforeTheFirstSession) {
    restartService();
    session().setSubMap(kNode, kApp, publicHandle());
    cancelledPublic(kSubscribe);
    expectRefused("publicCancelFunc", kSubscribe, "libErr", "Service not initialized");
    session().m_onCloseRegistered = true;
    cancelledPrivate("registerOnClose", R"({"subscribe":true})");
    expectRefused("cancelFunction", R"({"subscribe":true})", "libErr", "Service not initialized");
    EXPECT_TRUE(session().m_onCloseRegistered);
}

TEST_F(Cancellation, RemovesTheListenerForClosedApplications) {
    session().m_onCloseRegistered = true;
    cancelledPrivate("registerOnClose", R"({"subscribe":true})");
    EXPECT_EQ(takeLogLines(), Texts{"cancelFunction: Headless app crashed?"});
    EXPECT_FALSE(session().m_onCloseRegistered);
    session().setOfflineMap(kNode, "com.example.app");
    cancelledPublic(kSubscribe);
    EXPECT_EQ(stanzaCount(), 0u) << "the offline check is skipped from here on";
}

TEST_F(Cancellation, OfAListenerForClosedApplicationsTakesNoSubscriberAlong) {
    cancelledPrivate("registerOnClose", kSubscribe);
    EXPECT_TRUE(subscribed());
}

TEST_F(Cancellation, OfAnyOtherPrivateMethodChangesNothing) {
    session().m_onCloseRegistered = true;
    for (const char* method : {"subscribeConnStatus", "subscribeNodeAuth", "Subscribe", ""})
        cancelledPrivate(method, kSubscribe);
    EXPECT_TRUE(subscribed());
    EXPECT_TRUE(session().m_onCloseRegistered);
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(stanzaCount(), 0u);
}

}  // namespace
