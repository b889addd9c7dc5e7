// SPDX-License-Identifier: GPL-3.0-only
// `endpoint`: create, delete, key and list, each one call on the public bus for an application. A key is printed
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

std::string yesNo(json_object* object, const char* member) {
    return "  " + std::string(member) + (boolMember(object, member) ? ": yes" : ": no");
}

// How many items wait is known only while the service is connected.
std::string endpointLine(json_object* endpoint) {
    const bool counted = jsonMember(endpoint, "waiting") != nullptr;
    return textMember(endpoint, "endpoint") + yesNo(endpoint, "receiver") + yesNo(endpoint, "subscriber") +
           (counted ? "  waiting: " + textMember(endpoint, "waiting") : "") + yesNo(endpoint, "cached");
}

}  // namespace

std::string endpointLines(const std::string& payload) {
    const JsonRef answer = parseWholeJson(payload);
    json_object* endpoints = jsonMember(answer.get(), "endpoints");
    const bool isList = json_object_is_type(endpoints, json_type_array);
    std::string lines;
    for (size_t i = 0; isList && i < json_object_array_length(endpoints); ++i)
        lines += (i ? "\n" : "") + endpointLine(json_object_array_get_idx(endpoints, i));
    return lines;
}

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

Exit runEndpointList(const Invocation& invocation, Console& console) {
    const Reply reply = callPublic(invocation, "listEndpoints", "{}");
    const std::string lines = endpointLines(reply.payload);
    if (reply.exit == Exit::Ok && lines.empty() && !console.json()) {
        console.message("this application has no endpoints; `pubsubctl endpoint create` makes one");
        return reply.exit;
    }
    return console.finish(reply, lines);
}
