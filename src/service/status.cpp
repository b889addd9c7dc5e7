// SPDX-License-Identifier: GPL-3.0-only
// Connection status: two bus methods that report it once and, to subscribers, at each change.
//
// The bus library keeps the subscribers, by category and method. The posted payloads are fixed texts.
#include <json-c/json.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <optional>

#include "platform/bus/qsraii.h"
#include "request/request.h"
#include "service/methods.h"
#include "session/pubsubsession.h"
#include "util/clock.h"
#include "xmpp/client.h"

namespace {

constexpr char kCategory[] = "/";
constexpr char kConnectStatus[] = "connectStatus";
constexpr char kSubscribeConnStatus[] = "subscribeConnStatus";

constexpr char kConnected[] = R"({"returnValue":true, "connected":true})";
constexpr char kDisconnected[] = R"({"returnValue":true, "connected":false})";
// sic: "session" is always true in posted payloads.
constexpr char kConnectedDetails[] =
    R"({"returnValue":true, "connected":true, "session" : true, "network": true})";
constexpr char kDisconnectedNetwork[] =
    R"({"returnValue":true, "connected":false, "session":true, "network":true})";
constexpr char kDisconnectedNoNetwork[] =
    R"({"returnValue":true, "connected":false, "session":true, "network":false})";

constexpr char kDetailsFailed[] = "Sending connection status failed. Error %s ";
// sic: a space before the full stop.
constexpr char kStatusFailed[] = "Sending connection status failed . Error %s ";

void post(QSHandle* handle, const char* method, const char* payload, const char* failed, CallSite site) {
    BusError error;
    if (!QSSubscriptionPost(handle, kCategory, method, payload, error))
        PrvPrintErr(site, failed, error.message());
}

// Order: platform services with all details, applications, platform services that subscribed to
// the plain form.
void postStatus(const PubSubSession& session, const char* details, const char* plain, CallSite site) {
    post(session.m_privateHandle, kSubscribeConnStatus, details, kDetailsFailed, site);
    post(session.m_publicHandle, kConnectStatus, plain, kStatusFailed, site);
    post(session.m_privateHandle, kConnectStatus, plain, kStatusFailed, site);
}

Reply statusReply(const PubSubSession& session) {
    Reply reply(true);
    reply.set("connected", session.m_connected);
    return reply;
}

// When the server was last heard, in Unix time: data, or an acknowledgement such as the answer to a keep-alive
// probe. The kernel knows it; noting it for each read would cost more than asking when somebody wants to know.
std::optional<int64_t> lastHeard(const xmpp::Client* client) {
    tcp_info info = {};
    socklen_t length = sizeof info;
    if (!client || getsockopt(client->socket(), IPPROTO_TCP, TCP_INFO, &info, &length) != 0)
        return std::nullopt;
    const int64_t milliseconds = std::min(info.tcpi_last_data_recv, info.tcpi_last_ack_recv);
    return unixTimeOf(bootTime() - milliseconds * 1'000);
}

// What a caller gets that asks for details: the posted payloads have no room for it.
void addDetails(Reply& reply, const PubSubSession& session) {
    if (!session.m_connected) {
        reply.set("ended", session.m_endedByRequest);
        return;
    }
    reply.set("since", unixTimeOf(session.m_connectedAt));
    if (const std::optional<int64_t> heard = lastHeard(session.m_client))
        reply.set("heard", *heard);
}

}  // namespace

void PubSubSession::postConnected(CallSite site) {
    postStatus(*this, kConnectedDetails, kConnected, site);
}

void PubSubSession::postDisconnected(CallSite site) {
    postStatus(*this, m_networkAvailable ? kDisconnectedNetwork : kDisconnectedNoNetwork, kDisconnected,
               site);
}

bool connectStatus(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kQuotedRefusal);
    if (!request.processSubscription())
        return request.refuse("libErr", "Processing subscription failed");
    request.reply(statusReply(session));
    // A status request also starts a connection.
    if (!session.m_connected)
        session.tryConnecting();
    return true;
}

bool subscribeConnStatus(QSHandle* handle, QSMessage* message, void*) {
    const PubSubSession& session = gCurrentSession;
    Request request(handle, message, kQuotedRefusal);
    if (!request.processSubscription())  // sic: the quotes belong to both texts
        return request.refuse("\"busErr\"", "\"Processing subscription failed\"");
    Reply reply = statusReply(session);
    reply.set("session", !session.m_jid.full().empty()).set("network", session.m_networkAvailable);
    if (boolMember(request.json(), "details"))
        addDetails(reply, session);
    return request.reply(reply);
}
