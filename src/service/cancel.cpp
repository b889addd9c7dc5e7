// SPDX-License-Identifier: GPL-3.0-only
// Client cancellation: a client that is gone loses its item subscription; a node that is kept for it while it
// is closed is activated again, so that the server goes on delivering.
//
// Keeps no state. Nothing is replied: there is nobody left to answer.
#include "service/cancel.h"

#include <string>

#include "request/names.h"
#include "request/requestframe.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace {

struct Cancelled {
    JsonRef payload;
    std::string errorCode = "parameterErr";
    std::string errorText = "\"Bad Argument\"";  // sic: the quotes belong to the text
};

// No connection is needed to forget somebody.
bool readRequest(QSMessage* message, Cancelled& cancelled) {
    cancelled.payload = parseJson(QSMessageGetPayload(message));
    json_object* payload = cancelled.payload.get();
    return checkInit(payload, gCurrentSession, cancelled.errorCode, cancelled.errorText, false);
}

bool readNode(QSMessage* message, Cancelled& cancelled, std::string& node) {
    std::string endpoint;
    if (!getJSONStringV2(cancelled.payload.get(), "endpoint", cancelled.errorText, endpoint))
        return false;
    const char* caller = QSMessageGetApplicationID(message);
    std::string appId = caller ? caller : "";
    if (getNodeName(endpoint, node, gCurrentSession, appId, cancelled.errorText))
        return true;
    cancelled.errorCode = "libErr";
    return false;
}

void forgetSubscriber(const std::string& node) {
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

bool cancelSubscribe(QSMessage* message, Cancelled& cancelled) {
    std::string node;
    if (!readNode(message, cancelled, node))
        return false;
    forgetSubscriber(node);
    return true;
}

void logRefused(QSMessage* message, const Cancelled& cancelled, CallSite site = {}) {
    PrvPrintErr(site, "Payload bad? %s Errcode %s ErrText %s", QSMessageGetPayload(message),
                cancelled.errorCode.c_str(), cancelled.errorText.c_str());
}

}  // namespace

bool publicCancelFunc(QSHandle*, QSMessage* message, void*) {
    Cancelled cancelled;
    if (!readRequest(message, cancelled) || !cancelSubscribe(message, cancelled))
        logRefused(message, cancelled);
    return true;
}

bool cancelFunction(QSHandle*, QSMessage* message, void*) {
    const std::string method = QSMessageGetMethod(message);
    Cancelled cancelled;
    if (!readRequest(message, cancelled) || (method == "subscribe" && !cancelSubscribe(message, cancelled))) {
        logRefused(message, cancelled);
        return true;
    }
    if (method == "registerOnClose") {
        PrvPrintErr({}, "Headless app crashed?");
        gCurrentSession.m_onCloseRegistered = false;
    }
    return true;
}
