// SPDX-License-Identifier: GPL-3.0-only
// Client cancellation: a client that has gone loses its item subscription, or ends to receive. If its application asked for
// on-close notices, the node is activated again, so that the server keeps delivering.
//
// Keeps no state. Nothing is replied, because the client has gone.
#include "service/cancel.h"

#include <string>

#include "request/request.h"
#include "session/pubsubsession.h"

namespace {

void removeSubscriber(const std::string& node) {
    gCurrentSession.setSubMapHandle(node, nullptr);
    gCurrentSession.removeSubMap(node);
    if (!gCurrentSession.m_onCloseRegistered)
        return;
    bool found = false;
    std::string errorCode, errorText, requestId;
    gCurrentSession.checkOfflineMap(node, found, errorCode, errorText);
    if (found)
        gCurrentSession.activateNode(node, requestId);
}

bool cancelSubscribe(Request& request) {
    if (!request.requireEndpoint() || !request.formNode())
        return false;
    removeSubscriber(request.node);
    return true;
}

bool endsReceiver(QSMessage* message) {
    if (std::string(QSMessageGetMethod(message)) != "receive")
        return false;
    gCurrentSession.endReceiver(message);
    return true;
}

void logRefused(const Request& request, CallSite site = {}) {
    PrvPrintErr(site, "Payload bad? %s Errcode %s ErrText %s", QSMessageGetPayload(request.message),
                request.error().code.c_str(), request.error().text.c_str());
}

}  // namespace

// Removing a subscriber needs no connection.
bool publicCancelFunc(QSHandle* handle, QSMessage* message, void*) {
    if (endsReceiver(message))
        return true;
    Request request(handle, message, kEndpointRefusal);
    if (!request.isReady(false) || !cancelSubscribe(request))
        logRefused(request);
    return true;
}

bool cancelFunction(QSHandle* handle, QSMessage* message, void*) {
    if (endsReceiver(message))
        return true;
    const std::string method = QSMessageGetMethod(message);
    Request request(handle, message, kEndpointRefusal);
    if (!request.isReady(false) || (method == "subscribe" && !cancelSubscribe(request))) {
        logRefused(request);
        return true;
    }
    if (method == "registerOnClose") {
        PrvPrintErr({}, "Headless app crashed?");
        gCurrentSession.setOnCloseRegistered(false);
    }
    return true;
}
