// SPDX-License-Identifier: GPL-3.0-only
// Notices for applications that are closed: who wants them, and the one component that listens for them.
//
// The wishes stand in the offline map, which survives a restart. The listener stands in the bus's
// subscription list, and PubSubSession::m_onCloseRegistered says that there is one; both end with the
// process.
#include <algorithm>

#include "endpoints/methods.h"
#include "platform/bus/qsraii.h"
#include "request/publicrequest.h"
#include "request/requestframe.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/log.h"

namespace {

// Entries of the offline map survive their application's process, so an application may have only so many.
constexpr std::ptrdiff_t kOfflineEntries = 64;
constexpr char kTooMany[] =
    "Too many endpoints with on-close notices, the limit is 64. Call unsubscribeOnClose first";

bool maySubscribeMore(const std::string& appId) {
    const auto& entries = gCurrentSession.m_offlineMap;
    return std::count_if(entries.begin(), entries.end(),
                         [&](const auto& entry) { return entry.second == appId; }) < kOfflineEntries;
}

void notifyOfflineSubscriber(const std::string& first, const std::string&) {
    const JsonRef notice(json_object_new_object());
    json_object_object_add(notice.get(), "returnValue", json_object_new_boolean(true));
    addMember(notice, "appid", first);
    json_object_object_add(notice.get(), "open", json_object_new_boolean(true));
    BusError error;
    if (!QSSubscriptionPost(gCurrentSession.m_privateHandle, "/", "registerOnClose",
                            json_object_to_json_string(notice.get()), error))
        PrvPrintErr({}, "Sending close to registerOnclose failed. Error %s ", error.message());
}

bool wantsSubscription(QSMessage* message, std::string& errorText) {
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!payload) {
        PrvPrintErr({}, "Malformed json packet? \n");
        errorText = "Malformed json";
        return false;
    }
    bool wanted = false;
    if (!getJSONboolean(payload.get(), "subscribe", errorText, wanted))
        return false;
    if (!wanted)
        errorText = "Subscribe should be true";
    return wanted;
}

}  // namespace

bool registerOnClose(QSHandle* handle, QSMessage* message, void*) {
    std::string errorText = "\"Bad Argument\"";  // sic: the quotes are part of the text
    if (!wantsSubscription(message, errorText)) {
        HandleError(handle, message, "parameterErr", errorText, nullptr);
        return true;
    }
    bool subscribed = false;
    BusError error;
    if (!QSSubscriptionProcess(handle, message, &subscribed, error)) {
        PrvPrintErr({}, "Processing subscription failed %d %s", error.code(), error.message());
        HandleError(handle, message, "libErr", "Subscribe on Zelt bus failed", nullptr);
        return true;
    }
    gCurrentSession.m_onCloseRegistered = true;
    sendReply(handle, message, R"({"returnValue":true})");
    return true;
}

bool subscribeOnClose(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    PublicRequest request(handle, message);
    if (!request.readEndpoint(false) || !request.formNode())
        return request.refuse();
    bool present = false;
    std::string ignored;
    session.checkOfflineMap(request.node, present, ignored, ignored);
    if (const WriteTurn turn =
            session.takeWriteTurn(request, !present && maySubscribeMore(request.appId), subscribeOnClose);
        turn != WriteTurn::Now)
        return turn == WriteTurn::Later || request.refuseWrite();
    if (present) {
        // sic: the listener gets the node name as "appid".
        notifyOfflineSubscriber(request.node, request.appId);
    } else if (maySubscribeMore(request.appId)) {
        session.setOfflineMap(request.node, request.appId);
    } else {
        request.fail("appErr", kTooMany);
        return request.refuse();
    }
    sendReply(handle, message, json_object_to_json_string(endpointReply(true, request.endpoint).get()));
    return true;
}

bool unsubscribeOnClose(QSHandle* handle, QSMessage* message, void*) {
    PublicRequest request(handle, message);
    if (!request.readEndpoint(false) || !request.formNode())
        return request.refuse();
    if (const WriteTurn turn = gCurrentSession.takeWriteTurn(
            request, gCurrentSession.m_offlineMap.contains(request.node), unsubscribeOnClose);
        turn != WriteTurn::Now)
        return turn == WriteTurn::Later || request.refuseWrite();
    gCurrentSession.removeOfflineMap(request.node);
    const JsonRef reply = endpointReply(true, request.endpoint);
    BusError error;
    if (!QSMessageRespond(message, json_object_to_json_string(reply.get()), error))
        PrvPrintErr({}, "Sending response to unsubscribeOnClose failed id %s Error %s ", "", error.message());
    return true;
}
