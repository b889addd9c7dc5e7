// SPDX-License-Identifier: GPL-3.0-only
// `node config`: shows what the service reports of a node's configuration, and sets options. Keeps no state.
#include "tools/verbs.h"
#include "util/jsonref.h"

bool configPayload(const Invocation& invocation, std::string& payload, std::string& problem) {
    JsonObject options;
    for (const std::string& given : invocation.values("set")) {
        const size_t equals = given.find('=');
        if (equals == std::string::npos || equals == 0) {
            problem = "--set takes NAME=VALUE, such as access_model=open, not \"" + given + "\"";
            return false;
        }
        std::string name = given.substr(0, equals);
        if (name.find('#') == std::string::npos)
            name = "pubsub#" + name;
        options.set(name.c_str(), given.substr(equals + 1));
    }
    payload = JsonObject().set("node", invocation.arguments[0]).set("options", options.release()).line();
    return true;
}

namespace {

std::string optionsOf(const std::string& payload) {
    const JsonRef reply = parseWholeJson(payload);
    json_object* options = jsonMember(reply.get(), "options");
    std::string lines;
    if (!json_object_is_type(options, json_type_object))
        return lines;
    json_object_object_foreach(options, name, value) {
        (void)value;
        lines += (lines.empty() ? "" : "\n") + std::string(name) + "  " + textMember(options, name);
    }
    return lines;
}

Exit show(const Invocation& invocation, Console& console) {
    const std::string payload =
        JsonObject().set("nodes", JsonArray().add(invocation.arguments[0]).release()).line();
    const Reply reply = callService(invocation, "getNodeConfig", payload);
    const std::string options = reply.exit == Exit::Ok ? optionsOf(reply.payload) : "";
    return console.finish(reply, options.empty() ? "no options are reported" : options);
}

}  // namespace

Exit runNodeConfig(const Invocation& invocation, Console& console) {
    if (!invocation.has("set"))
        return show(invocation, console);
    std::string payload;
    std::string problem;
    if (!configPayload(invocation, payload, problem))
        return console.usage(problem);
    return console.finish(callService(invocation, "setNodeConfig", payload),
                          "configured " + invocation.arguments[0]);
}
