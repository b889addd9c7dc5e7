// SPDX-License-Identifier: GPL-3.0-only
// The dialogue of a public request: an application, its endpoint "inbox", and the replies of
// the public methods.
#pragma once

#include <string>
#include <utility>

#include "endpoints/methods.h"
#include "tests/fakes/servicefixture.h"
#include "xmpp/manager.h"

inline const std::string kNode = "/u1234/dev42/com.example.app/inbox";
inline const std::string kInbox = R"({"endpoint":"inbox"})";
inline const std::string kSuccess = R"({ "returnValue": true, "endpoint": "inbox" })";
inline const std::string kPing =
    R"(bus.call zelt://com.zelt.power/timeout/set {"key":"keepAliveTimer", )"
    R"("uri":"quor://com.zelt.pubsubservice/keepAliveTimer", "in":"00:25:00", "wakeup":true, "params":"{}"})";
inline const std::string kForbidden =
    "<error type='auth'><forbidden xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>";
inline const std::string kServerRefused =
    R"({ "returnValue": false, "endpoint": "inbox", "errorCode": "xmppErr", "errorText": "forbidden" })";
inline const std::string kDisconnected =
    R"({ "returnValue": false, "endpoint": "inbox", "errorCode": "connectionErr", )"
    R"("errorText": "pubsubservice disconnected" })";

// The refusal of a request that was not sent to the server.
inline std::string refusal(const std::string& endpoint, const std::string& code, const std::string& text) {
    return R"({ "endpoint": ")" + endpoint + R"(", "returnValue": false, "errorCode": ")" + code +
           R"(", "errorText": ")" + text + R"(" })";
}

inline std::string deviceIq(const std::string& type, const std::string& inside) {
    return "<iq to='pubsub.example.org' id='ID' type='" + type + "'>" + inside + "</iq>";
}

inline std::string activateStanza(const std::string& seqNo = "0", const std::string& node = kNode) {
    return deviceIq("set",
                    "<activate xmlns='urn:zelt:pubsub:device:0' node='" + node + "' seqNo='" + seqNo + "'/>");
}

inline std::string deactivateStanza() {
    return deviceIq("set", "<deactivate xmlns='urn:zelt:pubsub:device:0' node='" + kNode + "'/>");
}

class EndpointTest : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        std::filesystem::create_directory(stateFolder() / "cache");
        connectSession();
    }

    // A call of an application, com.example.app by default.
    Answer ask(QSFilter handler, const std::string& method, const std::string& payload = kInbox,
               const std::string& appId = "com.example.app 4711") {
        return callPublic(handler, method, payload, appId);
    }
    Answer askSubscribe(const std::string& payload = kInbox) { return ask(subscribe, "subscribe", payload); }
    Answer askUnsubscribe(const std::string& payload = kInbox) {
        return ask(unsubscribe, "unsubscribe", payload);
    }

    void loseConnection() {
        fakeServer().closesWith(gloox::ConnStreamError);
        pump();
        ASSERT_FALSE(session().m_connected);
        journal().take();
        log().clear();
        fakeServer().forgetStanzas();
    }
    // Connects again, without clearing the events.
    void reconnect() {
        ASSERT_TRUE(session().connectToService());
        pump();
        ASSERT_TRUE(session().m_connected);
    }
    std::filesystem::path cacheFile() const {
        return stateFolder() / "cache" / "dev42-com.example.app-inbox";
    }
    static std::string item(const std::string& text) {
        return R"({ "item": ")" + text + R"(", "endpoint": "inbox", "returnValue": true })";
    }
};
