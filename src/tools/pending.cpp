// SPDX-License-Identifier: GPL-3.0-only
// `pending`: the subscribers that wait for a node owner's approval, and the owner's decision. Keeps no state.
#include "tools/listener.h"
#include "tools/verbs.h"
#include "util/jsonref.h"

namespace {

constexpr const char* kMembers[] = {"node", "subscriber_jid", "subid", "id"};

Exit decide(const Invocation& invocation, Console& console, bool approve) {
    for (const char* needed : {"id", "subid", "jid"}) {
        if (!invocation.has(needed))
            return console.usage(std::string("--") + needed +
                                 " is missing; `pending list` printed its value");
    }
    const std::string payload = JsonObject()
                                    .set("node", invocation.arguments[0])
                                    .set("id", invocation.value("id"))
                                    .set("subid", invocation.value("subid"))
                                    .set("approve", approve ? "true" : "false")
                                    .set("subscriber_jid", invocation.value("jid"))
                                    .line();
    return console.finish(callService(invocation, "approvePending", payload),
                          (approve ? "approved " : "denied ") + invocation.value("jid"));
}

}  // namespace

std::string pendingLine(const std::string& payload, bool json) {
    const JsonRef request = parseWholeJson(payload);
    JsonObject object;
    std::string line;
    for (const char* name : kMembers) {
        const std::string value = textMember(request.get(), name);
        object.set(name, value);
        line += line.empty() ? value : "  " + std::string(name) + ": " + value;
    }
    return json ? object.line() : line;
}

Exit runPendingList(const Invocation& invocation, Console& console) {
    Bounds bounds;
    std::string problem;
    if (!readBounds(invocation, bounds, problem))
        return console.usage(problem);
    JsonArray nodes;
    for (const std::string& node : invocation.arguments)
        nodes.add(node);
    if (invocation.arguments.empty())
        nodes.add("*");
    const std::string payload = JsonObject().set("subscribe", true).set("nodes", nodes.release()).line();
    auto take = [&](const Reply& reply) {
        if (!jsonMember(parseWholeJson(reply.payload).get(), "subid"))
            return Listener::Verdict::Wait;
        bool const heard = console.line(pendingLine(reply.payload, console.json()));
        return heard ? Listener::Verdict::Counted : Listener::Verdict::Stop;
    };
    return Listener(console, bounds).run({QSBus::Private, "subscribeNodeAuth", payload}, take);
}

Exit runPendingApprove(const Invocation& invocation, Console& console) {
    return decide(invocation, console, true);
}

Exit runPendingDeny(const Invocation& invocation, Console& console) {
    return decide(invocation, console, false);
}
