// SPDX-License-Identifier: GPL-3.0-only
// Connection status: two bus methods that tell it once and, to subscribers, at each change.
//
// The bus layer keeps the subscribers, by category and method; this file keeps no list. The posted payloads
// are fixed texts and go out byte for byte.
#include <json-c/json.h>

#include "platform/bus/qsraii.h"
#include "request/request.h"
#include "service/methods.h"
#include "session/pubsubsession.h"

namespace {

constexpr char kCategory[] = "/";
constexpr char kConnectStatus[] = "connectStatus";
constexpr char kSubscribeConnStatus[] = "subscribeConnStatus";

constexpr char kConnected[] = R"({"returnValue":true, "connected":true})";
constexpr char kDisconnected[] = R"({"returnValue":true, "connected":false})";
// sic: "session" is always true in what is posted, whatever the session holds.
constexpr char kConnectedDetails[] =
    R"({"returnValue":true, "connected":true, "session" : true, "network": true})";
constexpr char kDisconnectedNetwork[] =
    R"({"returnValue":true, "connected":false, "session":true, "network":true})";
constexpr char kDisconnectedNoNetwork[] =
    R"({"returnValue":true, "connected":false, "session":true, "network":false})";

constexpr char kDetailsFailed[] = "Sending connection status failed. Error %s ";
// sic: a blank before the point in this one.
constexpr char kStatusFailed[] = "Sending connection status failed . Error %s ";

void post(QSHandle* handle, const char* method, const char* payload, const char* failed, CallSite site) {
    BusError error;
    if (!QSSubscriptionPost(handle, kCategory, method, payload, error))
        PrvPrintErr(site, failed, error.message());
}

// Platform services first, with all details, then applications, then platform services that asked as these
// do.
void postStatus(const PubSubSession& session, const char* details, const char* plain, CallSite site) {
    post(session.m_privateHandle, kSubscribeConnStatus, details, kDetailsFailed, site);
    post(session.m_publicHandle, kConnectStatus, plain, kStatusFailed, site);
    post(session.m_privateHandle, kConnectStatus, plain, kStatusFailed, site);
}

Reply statusReply() {
    Reply reply(true);
    reply.set("connected", gCurrentSession.m_connected);
    return reply;
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
    Request request(handle, message, kQuotedRefusal);
    if (!request.processSubscription())
        return request.refuse("libErr", "Processing subscription failed");
    request.reply(statusReply());
    // Asking for the status is a request to connect, too.
    if (!gCurrentSession.m_connected)
        gCurrentSession.tryConnecting();
    return true;
}

bool subscribeConnStatus(QSHandle* handle, QSMessage* message, void*) {
    Request request(handle, message, kQuotedRefusal);
    if (!request.processSubscription())  // sic: the quotes belong to both texts
        return request.refuse("\"busErr\"", "\"Processing subscription failed\"");
    Reply reply = statusReply();
    reply.set("session", !gCurrentSession.m_jid.full().empty())
        .set("network", gCurrentSession.m_networkAvailable);
    return request.reply(reply);
}
