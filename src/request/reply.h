// SPDX-License-Identifier: GPL-3.0-only
// Answers to bus requests: the members that replies share, and sending the answer to a request that waited.
#pragma once

#include <gloox/jid.h>

#include <string>

#include "platform/bus/qs.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace gloox {
class Error;
}

// "errorCode" and "errorText" of a reply.
struct RequestError {
    std::string code;
    std::string text;
};

// The error code of public methods for every refusal of the server.
inline constexpr char kServerRefused[] = "xmppErr";

// Logged when the reply to a create, delete, publish or configure request cannot be sent. sic: one text
// for all four.
inline constexpr char kCreateRespondFailed[] = "Sending response to create Node failed id %s Error %s ";

// A reply: "returnValue" first, then the members in the order in which they are set.
class Reply : public JsonObject {
  public:
    explicit Reply(bool success) { set("returnValue", success); }

    void addError(const RequestError& error) { set("errorCode", error.code).set("errorText", error.text); }

    // Sends this as the answer to a kept request. On failure logs `failure`, a format for the request id and
    // the bus error, and returns false.
    bool respond(QSMessage* message, const std::string& id, const char* failure, CallSite site = {}) const;
};

// {"returnValue", "endpoint"}
Reply endpointReply(bool success, const std::string& endpoint);
// {"returnValue", KEY: name}; after an error also its code and text, which is logged for `node`.
Reply resultReply(const char* key, const std::string& name, const std::string& node,
                  const gloox::JID& service, const gloox::Error* error, CallSite site = {});

// Logs the server's error about `node` and returns it.
RequestError serverError(const gloox::Error& error, const std::string& node, const gloox::JID& service,
                         CallSite site = {});
// The error's type and conditions; empty texts when there is no error.
RequestError errorOf(const gloox::Error* error);
