// SPDX-License-Identifier: GPL-3.0-only
// Bus methods around the account: a new login, who the device is, and leaving the connection.
//
// Keeps no state of its own; all of it is the session's.
#include <json-c/json.h>

#include "request/requestframe.h"
#include "service/methods.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace {

constexpr const char* kDone = R"({"returnValue":true})";

// Written around the value, which json-c escapes: building and printing an object would be a fifth of the
// whole request's instructions.
void replyWith(QSHandle* handle, QSMessage* message, const std::string& key, const std::string& value,
               CallSite site = {}) {
    JsonRef text(json_object_new_string(value.c_str()));
    const std::string reply =
        R"({ "returnValue": true, ")" + key + R"(": )" + json_object_to_json_string(text.get()) + " }";
    sendReply(handle, message, reply.c_str(), site);
}

// The members of a createSession request; the first that is missing ends the reading.
struct SessionRequest {
    std::string jid, password, server, service;
    int32_t port = 0;

    bool read(json_object* payload) {
        std::string unused;
        return !(jid = getJSONString(payload, "jid", unused)).empty() &&
               !(password = getJSONString(payload, "password", unused)).empty() &&
               !(server = getJSONString(payload, "server", unused)).empty() &&
               !(service = getJSONString(payload, "service", unused)).empty() &&
               getJSONInt(payload, "port", unused, port);
    }
};

}  // namespace

// Never replies, whatever happens: the bus closes the request.
bool initializeAccount(QSHandle*, QSMessage*, void*) {
    PrvPrintErr({}, "==BEGIN - Initialize called");
    if (gCurrentSession.m_connected)
        gCurrentSession.disconnect();
    if (!gCurrentSession.getLoginDetails())
        gCurrentSession.scheduleReconnect();
    return true;
}

// sic: answers with the local part alone, under the key "username".
bool getJabberId(QSHandle* handle, QSMessage* message, void*) {
    replyWith(handle, message, "username", gCurrentSession.m_username);
    return true;
}

bool getResource(QSHandle* handle, QSMessage* message, void*) {
    replyWith(handle, message, "resource", gCurrentSession.m_resource);
    return true;
}

bool createSession(QSHandle* handle, QSMessage* message, void*) {
    // sic: the quotes belong to both texts.
    const std::string errorCode = "\"errBadArgument\"";
    JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!payload) {
        PrvPrintErr({}, "Malformed json packet? \n");
        HandleError(handle, message, errorCode, "Malformed json", nullptr);
        return true;
    }
    SessionRequest request;
    if (!request.read(payload.get())) {
        HandleError(handle, message, errorCode, "\"Bad Argument\"", nullptr);
        return true;
    }
    gCurrentSession.setSessionDetails(request.jid, request.password, "", request.server, request.service,
                                      request.port);
    gCurrentSession.connectToService();
    sendReply(handle, message, kDone);
    return true;
}

bool disconnect(QSHandle* handle, QSMessage* message, void*) {
    gCurrentSession.disconnect();
    sendReply(handle, message, kDone);
    return true;
}
