// SPDX-License-Identifier: GPL-3.0-only
// The dialogue of a private request: call, stanza, the server's answer, reply.
#pragma once

#include <string>

#include "tests/fakes/servicefixture.h"

// What every result handler does first.
inline const std::string kPing =
    R"(bus.call zelt://com.zelt.power/timeout/set {"key":"keepAliveTimer", )"
    R"("uri":"quor://com.zelt.pubsubservice/keepAliveTimer", "in":"00:25:00", "wakeup":true, "params":"{}"})";

// Requests to the pub-sub service, with "ID" for the id.
inline std::string pubsubStanza(const std::string& inside) {
    return "<iq to='pubsub.example.org' id='ID' type='set'><pubsub "
           "xmlns='http://jabber.org/protocol/pubsub'>" +
           inside + "</pubsub></iq>";
}
inline std::string ownerStanza(const std::string& type, const std::string& inside) {
    return "<iq to='pubsub.example.org' id='ID' type='" + type +
           "'><pubsub xmlns='http://jabber.org/protocol/pubsub#owner'>" + inside + "</pubsub></iq>";
}

class RequestTest : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        connectSession();
    }

    // Calls, and expects that the request waits and only a stanza was sent; removes that event.
    Answer ask(QSFilter handler, const std::string& payload) {
        const Answer answer = call(handler, payload);
        EXPECT_TRUE(answer.waiting()) << answer.text();
        const Texts events = takeEvents();
        EXPECT_EQ(events.size(), 1u);
        EXPECT_TRUE(!events.empty() && events.front().starts_with("xmpp.send ")) << events.front();
        EXPECT_TRUE(session().m_msgMap.contains(lastId()));
        return answer;
    }

    // The request was answered once, right after the ping alarm was set again, and is no longer kept.
    void expectAnswered(const Answer& answer, const std::string& reply) {
        EXPECT_EQ(takeEvents(), (Texts{kPing, "bus.respond method " + reply}));
        EXPECT_EQ(answer.all(), Texts{reply});
        EXPECT_FALSE(answer.kept());
        EXPECT_TRUE(session().m_msgMap.empty());
    }

    // The log of a failed node operation: what failed, and the server's whole error.
    static Texts errorLog(const std::string& handler, const std::string& what, const std::string& error) {
        return {handler + ": " + what + " error:  from " + kService,
                "printerror: ERR in func " + handler + ": " + error};
    }
};

inline const std::string kConflict =
    "<error type='cancel'><conflict xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>";
inline const std::string kNotFound =
    "<error type='cancel'><item-not-found xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>";
