// SPDX-License-Identifier: GPL-3.0-only
// getTrace: the stations that a marked item has passed, at the server and on this device.
//
// The device's are in PubSubSession::m_traces. The server is asked for its own and for its time, so that both
// are told by one clock, the device's; without it those of the device are told alone. The waiting request is
// in m_msgMap under the manager's request id.
#include <gloox/error.h>
#include <gloox/jid.h>

#include <algorithm>
#include <vector>

#include "maintenance/methods.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "xmpp/manager.h"

namespace {

constexpr char kTraceFailed[] = "Sending response to getTrace failed id %s Error %s ";

struct Told {
    int64_t at;
    JsonRef station;
};

Told told(const char* where, const std::string& name, int64_t at, const char* member,
          const std::string& value) {
    JsonObject station;
    station.set("name", name).set("where", where).set("at", at);
    if (!value.empty())
        station.set(member, value);
    return {at, station.release()};
}

JsonRef inOrder(std::vector<Told> stations) {
    std::stable_sort(stations.begin(), stations.end(),
                     [](const Told& one, const Told& other) { return one.at < other.at; });
    JsonArray array;
    for (Told& each : stations)
        array.add(std::move(each.station));
    return array.release();
}

}  // namespace

bool getTrace(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kPlainRefusal);
    std::string itemId;
    if (!request.hasJson() || !request.requireText("itemid", itemId))
        return request.refuse();
    const std::string id = session.m_connected && session.m_pubsub
                               ? session.m_pubsub->trace(session.pubsubService(), itemId, &session)
                               : "";
    if (id.empty()) {
        session.answerTrace(message, itemId, nullptr, {}, 0);
        return true;
    }
    session.m_traces.setAsked(id);
    return request.waitFor(id);
}

// The server's clock is read in the middle of the way there and back.
void PubSubSession::handleTrace(const std::string& id, const gloox::JID&, const std::string& itemId,
                                const xmpp::ServerTrace& trace, const gloox::Error* error) {
    const std::optional<int64_t> asked = m_traces.takeAsked(id);
    const auto waiting = takeRequest(id);
    if (!waiting)
        return;
    const int64_t now = g_get_real_time();
    const int64_t ahead = error ? 0 : trace.now - (asked.value_or(now) + now) / 2;
    const RequestError why = errorOf(error);
    answerTrace(waiting.get(), itemId, error ? nullptr : &trace, why.text, ahead);
}

void PubSubSession::answerTrace(QSMessage* message, const std::string& itemId, const xmpp::ServerTrace* trace,
                                const std::string& problem, int64_t ahead) {
    std::vector<Told> stations;
    for (const Traces::Station& each : m_traces.of(itemId))
        stations.push_back(told("device", each.name, each.at, "to", each.to));
    if (trace)
        for (const xmpp::ServerStation& each : trace->stations)
            stations.push_back(told("server", each.name, each.at - ahead, "resource", each.resource));
    Reply reply(true);
    reply.set("itemid", itemId).set("server", trace != nullptr);
    if (trace)
        reply.set("serverAhead", ahead);
    if (!problem.empty())
        reply.set("serverError", problem);
    reply.set("stations", inOrder(std::move(stations)));
    reply.respond(message, "", kTraceFailed);
}
