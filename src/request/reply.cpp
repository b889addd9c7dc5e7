// SPDX-License-Identifier: GPL-3.0-only
// Answers to bus requests. Keeps no state.
#include "request/reply.h"

#include <gloox/error.h>

#include "platform/bus/qsraii.h"
#include "request/names.h"
#include "util/logsubject.h"

bool Reply::respond(QSMessage* message, const std::string& id, const char* failure, CallSite site) const {
    BusError error;
    if (QSMessageRespond(message, text().c_str(), error))
        return true;
    PrvPrintErr(site, failure, id.c_str(), error.message());
    return false;
}

Reply endpointReply(bool success, const std::string& endpoint) {
    Reply reply(success);
    reply.set("endpoint", endpoint);
    return reply;
}

Reply resultReply(const char* key, const std::string& name, const std::string& node,
                  const gloox::JID& service, const gloox::Error* error, CallSite site) {
    Reply reply(!error);
    reply.set(key, name);
    if (error)
        reply.addError(serverError(*error, node, service, site));
    return reply;
}

RequestError serverError(const gloox::Error& error, const std::string& node, const gloox::JID& service,
                         CallSite site) {
    const LogSubject subject(node);
    PrvPrintErr(site, "Node %s error:  from %s", node.c_str(), service.full().c_str());
    printerror(&error, site);
    return errorOf(&error);
}

RequestError errorOf(const gloox::Error* error) {
    RequestError found;
    getErrorCode(error, found.code, found.text);
    return found;
}
