// SPDX-License-Identifier: GPL-3.0-only
// Readiness checks of bus methods, and the format of error replies.
//
// Every refusal goes through HandleError: the caller gets an error code and a text, and the log the same
// object. A reply that cannot be sent is only logged; nothing is rolled back. Keeps no state.
#include "request/requestframe.h"

#include "platform/bus/qsraii.h"
#include "session/pubsubsession.h"
#include "util/jsonref.h"
#include "util/log.h"

bool checkInit(json_object*& payload, PubSubSession& session, std::string& errorCode, std::string& errorText,
               bool needConnected) {
    if (needConnected && !session.m_connected) {
        errorCode = "connectionErr";
        errorText = "Not connected to xmpp server";
        return false;
    }
    if (!session.m_pubsub || session.m_pubsubService.empty()) {
        PrvPrintErr({}, "PubSub manager not intialized");  // sic: fixed text
        errorCode = "libErr";
        errorText = "Service not initialized";
        return false;
    }
    if (!payload) {
        // The error code stays the one that the caller preset.
        PrvPrintErr({}, "Malformed json packet? \n");
        errorText = "Malformed json";
        return false;
    }
    return true;
}

void HandleError(QSHandle* handle, QSMessage* message, const std::string& errorCode,
                 const std::string& errorText, json_object* object) {
    JsonObject reply = object ? JsonObject(JsonRef(object)) : JsonObject();
    reply.set("returnValue", false).set("errorCode", errorCode).set("errorText", errorText);
    const std::string text = reply.text();
    PrvPrintErr({}, "Sending return error %s \n", text.c_str());
    sendReply(handle, message, text.c_str());
}

void sendReply(QSHandle* handle, QSMessage* message, const char* payload, CallSite site) {
    BusError error;
    if (!QSMessageReply(handle, message, payload, error))
        PrvPrintErr(site, "Sending reply to client failed %d %s", error.code(), error.message());
}
