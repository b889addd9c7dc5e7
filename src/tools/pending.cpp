// SPDX-License-Identifier: GPL-3.0-only
// `pending`: the subscribers that wait for a node owner's approval, and the owner's decision. Keeps no state.
#include "tools/json.h"
#include "tools/listener.h"
#include "tools/verbs.h"

static constexpr const char* kMembers[] = {"node", "subscriber_jid", "subid", "id"};

std::string pendingLine(const std::string& payload, bool json) {
    Json request = readJson(payload);
    Payload object;
    std::string line;
    for (const char* name : kMembers) {
        std::string value = textMember(request.get(), name);
        object.add(name, value);
        line += line.empty() ? value : "  " + std::string(name) + ": " + value;
    }
    return json ? object.text() : line;
}

Exit runPendingList(const Invocation& invocation, Console& console) {
    Bounds bounds;
    std::string problem;
    if (!readBounds(invocation, bounds, problem))
        return console.usage(problem);
    Json nodes(json_object_new_array());
    for (const std::string& node : invocation.arguments)
        json_object_array_add(nodes.get(), json_object_new_string(node.c_str()));
    if (invocation.arguments.empty())
        json_object_array_add(nodes.get(), json_object_new_string("*"));
    std::string payload = Payload().add("subscribe", true).add("nodes", std::move(nodes)).text();
    auto take = [&](const Reply& reply) {
        if (!hasMember(readJson(reply.payload).get(), "subid"))
            return Listener::Then::Wait;
        bool heard = console.line(pendingLine(reply.payload, console.json()));
        return heard ? Listener::Then::Counted : Listener::Then::Leave;
    };
    return Listener(console, bounds).run({QSBus::Private, "subscribeNodeAuth", payload}, take);
}

static Exit decide(const Invocation& invocation, Console& console, bool approve) {
    for (const char* needed : {"id", "subid", "jid"}) {
        if (!invocation.has(needed))
            return console.usage(std::string("--") + needed +
                                 " is missing; `pending list` printed what it takes");
    }
    std::string payload = Payload()
                              .add("node", invocation.arguments[0])
                              .add("id", invocation.value("id"))
                              .add("subid", invocation.value("subid"))
                              .add("approve", approve ? "true" : "false")
                              .add("subscriber_jid", invocation.value("jid"))
                              .text();
    return console.finish(callService(invocation, "approvePending", payload),
                          (approve ? "approved " : "denied ") + invocation.value("jid"));
}

Exit runPendingApprove(const Invocation& invocation, Console& console) {
    return decide(invocation, console, true);
}

Exit runPendingDeny(const Invocation& invocation, Console& console) {
    return decide(invocation, console, false);
}
