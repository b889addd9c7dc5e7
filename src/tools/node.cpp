// SPDX-License-Identifier: GPL-3.0-only
// `node`: create, delete, publish, subscribe and unsubscribe, each one call on the private bus.
// Keeps no state.
#include <unistd.h>

#include <charconv>

#include "tools/verbs.h"
#include "util/jsonref.h"

bool createPayload(const Invocation& invocation, std::string& payload, std::string& problem) {
    JsonObject request;
    request.set("node", invocation.arguments[0]);
    if (invocation.has("collection"))
        request.set("nodeType", 2);
    if (invocation.has("parent"))
        request.set("parent", invocation.value("parent"));
    if (invocation.has("title"))
        request.set("title", invocation.value("title"));
    if (invocation.has("access")) {
        const std::string access = invocation.value("access");
        if (access != "open" && access != "authorize") {
            problem = "--access is open or authorize, not \"" + access + "\"";
            return false;
        }
        request.set("accessType", access == "open" ? 1 : 2);
    }
    payload = request.line();
    return true;
}

Exit runNodeCreate(const Invocation& invocation, Console& console) {
    std::string payload;
    std::string problem;
    if (!createPayload(invocation, payload, problem))
        return console.usage(problem);
    return console.finish(callService(invocation, "createNode", payload),
                          "created " + invocation.arguments[0]);
}

Exit runNodeDelete(const Invocation& invocation, Console& console) {
    const std::string payload = JsonObject().set("node", invocation.arguments[0]).line();
    return console.finish(callService(invocation, "deleteNode", payload),
                          "deleted " + invocation.arguments[0]);
}

namespace {

// The item as elements and attributes, which only an object has.
bool readObject(const Invocation& invocation, Console& console, JsonRef& object, std::string& problem) {
    std::string text = invocation.value("json");
    if (text == "-" && !readWhole(console, "-", text, problem))
        return false;
    object = parseWholeJson(text);
    if (json_object_is_type(object.get(), json_type_object))
        return true;
    problem =
        "--json takes the item as a JSON object, such as {\"#\":\"text\"}; for JSON output write --json "
        "before the verb";
    return false;
}

}  // namespace

bool itemText(const Invocation& invocation, Console& console, std::string& text, std::string& problem) {
    if (invocation.has("file"))
        return readWhole(console, invocation.value("file"), text, problem);
    const std::string given = invocation.arguments.size() > 1 ? invocation.arguments[1] : "-";
    if (given == "-")
        return readWhole(console, "-", text, problem);
    text = given;
    return isSendable(text, "TEXT", problem);
}

bool publishPayload(const Invocation& invocation, Console& console, std::string& payload,
                    std::string& problem) {
    const int sources = (invocation.arguments.size() > 1) + invocation.has("file") + invocation.has("json");
    if (sources > 1) {
        problem = "give the item once: as TEXT, with --file or with --json";
        return false;
    }
    JsonObject request;
    request.set("node", invocation.arguments[0]);
    if (invocation.has("json")) {
        JsonRef object;
        if (!readObject(invocation, console, object, problem))
            return false;
        payload = request.set("xml", true).set("item", std::move(object)).line();
        return true;
    }
    std::string text;
    if (!itemText(invocation, console, text, problem))
        return false;
    payload = request.set("item", text).line();
    return true;
}

Exit runNodePublish(const Invocation& invocation, Console& console) {
    std::string payload;
    std::string problem;
    if (!publishPayload(invocation, console, payload, problem))
        return console.usage(problem);
    return console.finish(callService(invocation, "publishItem", payload),
                          "published to " + invocation.arguments[0]);
}

bool subscribePayload(const Invocation& invocation, std::string& payload, std::string& problem) {
    JsonObject request;
    request.set("node", invocation.arguments[0]);
    if (invocation.has("jid"))
        request.set("jid", invocation.value("jid"));
    if (invocation.has("depth")) {
        std::string text = invocation.value("depth");
        int depth = -1;
        auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), depth);
        if (fault != std::errc() || end != text.data() + text.size() || depth < 0) {
            problem = "--depth takes a whole number, 0 or more, not \"" + text + "\"";
            return false;
        }
        request.set("depth", depth);
    }
    payload = request.line();
    return true;
}

Exit runNodeSubscribe(const Invocation& invocation, Console& console) {
    std::string payload;
    std::string problem;
    if (!subscribePayload(invocation, payload, problem))
        return console.usage(problem);
    const Reply reply = callService(invocation, "subscribeToNode", payload);
    const JsonRef answer = parseWholeJson(reply.payload);
    const std::string subid = textMember(answer.get(), "subid");
    const std::string tail = subid.empty() ? "" : "  subid: " + subid;
    return console.finish(reply, "subscribed to " + invocation.arguments[0] + tail);
}

Exit runNodeUnsubscribe(const Invocation& invocation, Console& console) {
    for (const char* needed : {"jid", "subid"}) {
        if (!invocation.has(needed))
            return console.usage(std::string("--") + needed +
                                 " is missing; `node subscribe` printed its value");
    }
    const std::string payload = JsonObject()
                                    .set("node", invocation.arguments[0])
                                    .set("jid", invocation.value("jid"))
                                    .set("subid", invocation.value("subid"))
                                    .line();
    const Reply reply = callService(invocation, "unsubscribeFromNode", payload);
    return console.finish(reply, "unsubscribed from " + invocation.arguments[0]);
}

std::string nodeLines(const std::string& payload) {
    const JsonRef answer = parseWholeJson(payload);
    json_object* nodes = jsonMember(answer.get(), "nodes");
    std::string lines;
    for (size_t i = 0; json_object_is_type(nodes, json_type_array) && i < json_object_array_length(nodes);
         ++i)
        lines += (i ? "\n" : "") + std::string(json_object_get_string(json_object_array_get_idx(nodes, i)));
    return lines;
}

Exit runNodeList(const Invocation& invocation, Console& console) {
    const Reply reply = callService(invocation, "listNodes", "{}");
    const std::string lines = nodeLines(reply.payload);
    if (reply.exit == Exit::Ok && lines.empty() && !console.json()) {
        console.message("this device has no handlers and has received no items yet");
        return reply.exit;
    }
    return console.finish(reply, lines);
}
