// SPDX-License-Identifier: GPL-3.0-only
// `call`: any method of the service, or by its full URI of another service on the bus. Prints every answer as
// received. Keeps no state.
#include "tools/verbs.h"
#include "util/jsonref.h"

namespace {

std::string subscribing(JsonRef request) {
    JsonObject object(std::move(request));
    if (!jsonMember(object.get(), "subscribe"))
        object.set("subscribe", true);
    return object.line();
}

Reply place(BusClient& client, const Invocation& invocation, const std::string& payload, Console& console) {
    const std::string uri = methodUri(invocation.arguments[0]);
    auto show = [&](const Reply& answer) {
        return console.line(console.json() ? oneLine(answer.payload) : answer.payload);
    };
    if (invocation.has("no-reply"))
        return client.send(uri, payload, invocation.timeoutSeconds);
    if (invocation.has("follow"))
        return client.follow(uri, payload, {.firstSeconds = invocation.timeoutSeconds}, show);
    Reply reply = client.call(uri, payload, invocation.timeoutSeconds);
    if (!reply.payload.empty())
        show(reply);
    return reply;
}

}  // namespace

bool callPayload(const Invocation& invocation, Console& console, std::string& payload, std::string& problem) {
    payload = invocation.arguments.size() > 1 ? invocation.arguments[1] : "{}";
    if (payload == "-" && !readWhole(console, "-", payload, problem))
        return false;
    if (invocation.has("raw"))
        return true;
    JsonRef object = parseWholeJson(payload);
    const bool follow = invocation.has("follow");
    if (!isJson(payload))
        problem = "the payload is not JSON: " + payload + " (--raw sends it anyway)";
    else if (follow && !json_object_is_type(object.get(), json_type_object))
        problem = "--follow needs a JSON object as payload, to add \"subscribe\" to it";
    if (!problem.empty())
        return false;
    if (follow)
        payload = subscribing(std::move(object));
    return true;
}

Exit runCall(const Invocation& invocation, Console& console) {
    if (invocation.has("follow") && invocation.has("no-reply"))
        return console.usage("--follow and --no-reply are mutually exclusive");
    std::string payload;
    std::string problem;
    if (!callPayload(invocation, console, payload, problem))
        return console.usage(problem);
    Reply reply;
    auto client = openBus(invocation.has("public") ? QSBus::Public : QSBus::Private, reply);
    if (client)
        reply = place(*client, invocation, payload, console);
    if (!reply.problem.empty())
        console.message(reply.problem);
    return reply.exit;
}
