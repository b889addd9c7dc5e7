// SPDX-License-Identifier: GPL-3.0-only
// On-close notices: which applications want them while they are closed, and the one component
// that receives them.
//
// The applications are in the offline map, which survives a restart. The receiver is in the
// subscription list of the bus library, and PubSubSession::m_onCloseRegistered says that there is one;
// both end with the process.
#include <algorithm>

#include "endpoints/methods.h"
#include "platform/bus/qsraii.h"
#include "request/request.h"
#include "request/requestframe.h"
#include "session/pubsubsession.h"

namespace {

// For each application, since entries of the offline map survive its process.
constexpr std::ptrdiff_t kOfflineEntries = 64;
constexpr char kUnsubscribeFailed[] = "Sending response to unsubscribeOnClose failed id %s Error %s ";
constexpr char kTooMany[] =
    "Too many endpoints with on-close notices, the limit is 64. Call unsubscribeOnClose first";

bool maySubscribeMore(const PubSubSession& session, const std::string& appId) {
    const auto& entries = session.m_offlineMap;
    return std::count_if(entries.begin(), entries.end(),
                         [&](const auto& entry) { return entry.second == appId; }) < kOfflineEntries;
}

void notifyOfflineSubscriber(const PubSubSession& session, const std::string& appId, CallSite site = {}) {
    Reply notice(true);
    notice.set("appid", appId).set("open", true);
    BusError error;
    if (!QSSubscriptionPost(session.m_privateHandle, "/", "registerOnClose", notice.text().c_str(), error))
        PrvPrintErr(site, "Sending close to registerOnclose failed. Error %s ", error.message());
}

}  // namespace

bool registerOnClose(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kParameterRefusal);
    if (!request.hasJson() || !request.requireSubscribe())
        return request.refuse();
    if (!request.processSubscription())
        return request.refuse("libErr", "Subscribe on Zelt bus failed");
    session.setOnCloseRegistered(true);
    sendReply(handle, message, R"({"returnValue":true})");
    return true;
}

bool subscribeOnClose(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kEndpointRefusal);
    if (!request.isReady(false) || !request.requireEndpoint() || !request.formNode())
        return request.refuse();
    bool present = false;
    std::string ignored;
    session.checkOfflineMap(request.node, present, ignored, ignored);
    const bool writes = !present && maySubscribeMore(session, request.appId);
    if (const WriteTurn turn = session.takeWriteTurn(request, writes, subscribeOnClose);
        turn != WriteTurn::Now)
        return turn == WriteTurn::Later || request.refuse("appErr", kTooManyWrites);
    if (!present && !maySubscribeMore(session, request.appId))
        return request.refuse("appErr", kTooMany);
    if (present)
        notifyOfflineSubscriber(session, request.node);  // sic: the node's name is sent as "appid"
    else
        session.setOfflineMap(request.node, request.appId);
    return request.reply(endpointReply(true, request.endpoint));
}

bool unsubscribeOnClose(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kEndpointRefusal);
    if (!request.isReady(false) || !request.requireEndpoint() || !request.formNode())
        return request.refuse();
    const bool writes = session.m_offlineMap.contains(request.node);
    if (const WriteTurn turn = session.takeWriteTurn(request, writes, unsubscribeOnClose);
        turn != WriteTurn::Now)
        return turn == WriteTurn::Later || request.refuse("appErr", kTooManyWrites);
    session.removeOfflineMap(request.node);
    endpointReply(true, request.endpoint).respond(message, "", kUnsubscribeFailed);
    return true;
}

void PubSubSession::setOnCloseRegistered(bool registered) {
    m_onCloseRegistered = registered;
}
