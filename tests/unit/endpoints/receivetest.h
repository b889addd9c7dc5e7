// SPDX-License-Identifier: GPL-3.0-only
// The dialogue of a receiver: an application with endpoints in the deletion store, its receive and acknowledge.
#pragma once

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include "service/cancel.h"
#include "tests/fakes/waitfor.h"
#include "tests/unit/endpoints/endpointtest.h"
#include "util/jsonref.h"

inline const std::string kPrefs = "com.zelt.pubsubservice";
inline const std::string kPowerOn =
    R"(bus.call zelt://com.zelt.power/com/zelt/power/activityStart {"duration_ms":2000})";
inline const std::string kUnknownReceipt =
    "Unknown receipt: its item was acknowledged or given back, or is handed out again with another one";

inline std::string nodeOf(const std::string& endpoint) {
    return "/u1234/dev42/com.example.app/" + endpoint;
}

inline std::string success(const std::string& endpoint) {
    return R"({ "returnValue": true, "endpoint": ")" + endpoint + R"(" })";
}

inline std::string limitedStanza(const std::string& seqNo = "0", const std::string& node = kNode,
                                 const std::string& urgency = "") {
    return deviceIq("set", "<activate xmlns='urn:zelt:pubsub:device:0' node='" + node + "' seqNo='" + seqNo +
                               "' limit='1'" + (urgency.empty() ? "" : " urgency='" + urgency + "'") + "/>");
}

inline std::string ackOf(const std::string& id, const std::string& seqNo, const std::string& node = kNode) {
    return "xmpp.send <message to='pubsub.example.org' id='ID'><ack xmlns='urn:zelt:pubsub:device:0' node='" +
           node + "' id='" + id + "' seqNo='" + seqNo + "'/></message>";
}

inline std::string itemOf(const std::string& text, const std::string& id, const std::string& receipt,
                          const std::string& endpoint = "inbox") {
    return R"({ "returnValue": true, "endpoint": ")" + endpoint + R"(", "item": ")" + text +
           R"(", "itemid": ")" + id + R"(", "receipt": ")" + receipt + R"(" })";
}

class ReceiveTest : public EndpointTest {
  protected:
    void SetUp() override {
        EndpointTest::SetUp();
        BusError error;
        ASSERT_TRUE(QSSubscriptionSetCancelFunction(publicHandle(), publicCancelFunc, nullptr, error));
    }

    // The application owns these endpoints.
    void own(const std::vector<std::string>& endpoints) {
        JsonArray nodes;
        for (const std::string& endpoint : endpoints)
            nodes.add(nodeOf(endpoint));
        fakePrefs().store(kPrefs, "deletecom.example.app", JsonObject().set("nodes", nodes.release()).text());
    }
    Answer askReceive(const std::string& payload = R"({"subscribe":true})") {
        return ask(receive, "receive", payload);
    }
    // A receiver of the inbox, whose node is active; the events until then are cleared.
    Answer receiveInbox() {
        own({"inbox"});
        const Answer receiver = askReceive();
        if (lastStanza().textWithoutId() == deactivateStanza())
            answer(lastId());
        answer(expectStanza(limitedStanza()));
        takeEvents();
        fakeServer().forgetStanzas();
        return receiver;
    }
    void answerBulk() {
        answer(lastId(), "<activate-nodes xmlns='urn:zelt:pubsub:device:0'/>");
        takeEvents();
    }
    void createEndpointOf(const std::string& endpoint) {
        ask(createEndpoint, "createEndpoint", R"({"endpoint":")" + endpoint + "\"}");
        answer(lastId(), "<key xmlns='urn:zelt:pubsub:device:0' node='" + nodeOf(endpoint) + "'>KEY</key>");
    }
    Answer askAcknowledge(const std::string& receipt, const std::string& endpoint = "inbox",
                          const std::string& more = "") {
        return ask(acknowledge, "acknowledge",
                   R"({"endpoint":")" + endpoint + R"(","receipt":")" + receipt + '"' + more + '}');
    }
    // The same until its answer.
    std::string acknowledged(const std::string& receipt, const std::string& endpoint = "inbox",
                             const std::string& more = "") {
        const Answer done = askAcknowledge(receipt, endpoint, more);
        pump();
        return done.text();
    }
    void acknowledgeOpen(const Answer& receiver) { EXPECT_EQ(acknowledged(receipt(receiver)), kSuccess); }
    // The receipt of the last item.
    static std::string receipt(const Answer& receiver) {
        return textMember(parseJson(receiver.all().back().c_str()).get(), "receipt");
    }
};
