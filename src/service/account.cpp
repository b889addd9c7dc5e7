// SPDX-License-Identifier: GPL-3.0-only
// Bus methods for the account: start a login, report the device's identity, end the connection.
//
// Keeps no state; the session has all of it.
#include <json-c/json.h>

#include "request/request.h"
#include "request/requestframe.h"
#include "service/methods.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"

namespace {

constexpr char kDone[] = R"({"returnValue":true})";

// Formatted by hand; json-c only escapes the value. Building and printing an object would take a fifth of the
// instructions of the whole request.
void replyWith(QSHandle* handle, QSMessage* message, const std::string& key, const std::string& value,
               CallSite site = {}) {
    const JsonRef text(json_object_new_string(value.c_str()));
    const std::string reply =
        R"({ "returnValue": true, ")" + key + R"(": )" + json_object_to_json_string(text.get()) + " }";
    sendReply(handle, message, reply.c_str(), site);
}

// The members of a createSession request. Reading stops at the first one that is missing.
struct SessionDetails {
    std::string jid, password, server, service;
    int32_t port = 0;

    bool read(const Request& request) {
        std::string unused;
        return !(jid = request.text("jid")).empty() && !(password = request.text("password")).empty() &&
               !(server = request.text("server")).empty() && !(service = request.text("service")).empty() &&
               getJSONInt(request.json(), "port", unused, port);
    }
};

// A caller that only wants a connection would otherwise end one that came up while it called.
bool isWanted(QSMessage* message) {
    const JsonRef request = parseJson(QSMessageGetPayload(message));
    const bool busy = gCurrentSession.m_connected || gCurrentSession.m_connecting;
    return !busy || !boolMember(request.get(), "unlessConnected");
}

}  // namespace

// Never replies; the bus library closes the request.
bool initializeAccount(QSHandle*, QSMessage* message, void*) {
    if (!isWanted(message))
        return true;
    PrvPrintErr({}, "==BEGIN - Initialize called");
    gCurrentSession.m_endedByRequest = false;
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
    Request request(handle, message, kQuotedRefusal);
    SessionDetails details;
    if (!request.hasJson() || !details.read(request))
        return request.refuse();
    gCurrentSession.setSessionDetails(details.jid, details.password, "", details.server, details.service,
                                      details.port);
    gCurrentSession.connectToService();
    sendReply(handle, message, kDone);
    return true;
}

bool disconnect(QSHandle* handle, QSMessage* message, void*) {
    gCurrentSession.m_endedByRequest = true;
    gCurrentSession.disconnect();
    sendReply(handle, message, kDone);
    return true;
}
