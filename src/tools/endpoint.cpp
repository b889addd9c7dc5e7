// SPDX-License-Identifier: GPL-3.0-only
// `endpoint`: create, delete and key, each one call on the public bus for an application. A key is printed
// alone, for scripts. Keeps no state.
#include "tools/verbs.h"
#include "util/jsonref.h"

namespace {

std::string statusOf(const Reply& reply) {
    return textMember(parseWholeJson(reply.payload).get(), "status");
}

std::string keyOf(const Reply& reply) {
    return textMember(parseWholeJson(reply.payload).get(), "publishKey");
}

}  // namespace

Exit runEndpointCreate(const Invocation& invocation, Console& console) {
    JsonObject request;
    request.set("endpoint", invocation.arguments[0]);
    if (invocation.has("description"))
        request.set("description", invocation.value("description"));
    if (invocation.has("access")) {
        if (invocation.value("access") != "authorize")
            return console.usage("--access takes only \"authorize\", not \"" + invocation.value("access") +
                                 "\"");
        request.set("accessType", 2);
    }
    const Reply reply = callPublic(invocation, "createEndpoint", request.line());
    if (reply.exit == Exit::Ok && statusOf(reply) == "exists")
        console.message("the endpoint already exists; this is its key");
    return console.finish(reply, keyOf(reply));
}

Exit runEndpointDelete(const Invocation& invocation, Console& console) {
    const std::string& name = invocation.arguments[0];
    const Reply reply = callPublic(invocation, "deleteEndpoint", JsonObject().set("endpoint", name).line());
    const bool missing = statusOf(reply) == "notfound";
    return console.finish(reply, missing ? "there was no endpoint " + name : "deleted " + name);
}

Exit runEndpointKey(const Invocation& invocation, Console& console) {
    const std::string payload = JsonObject().set("endpoint", invocation.arguments[0]).line();
    const Reply reply = callPublic(invocation, "getPublishKey", payload);
    return console.finish(reply, keyOf(reply));
}
