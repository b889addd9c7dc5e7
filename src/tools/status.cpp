// SPDX-License-Identifier: GPL-3.0-only
// `status`: asks on the private bus, which reports more, or on the public bus when the caller may not use the
// private one. Keeps no state.
#include "tools/verbs.h"
#include "util/jsonref.h"

namespace {

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

bool connectedIn(const std::string& payload) {
    const JsonRef status = parseWholeJson(payload);
    return boolMember(status.get(), "connected");
}

// The exit code says whether the last status was "connected", so that a script need not read the text.
Exit conclude(const Reply& reply, Console& console) {
    if (!reply.problem.empty())
        console.message(reply.problem);
    if (reply.exit != Exit::Ok)
        return reply.exit;
    return connectedIn(reply.payload) ? Exit::Ok : Exit::NotConnected;
}

Exit ask(BusClient& client, const std::string& uri, const Invocation& invocation, Console& console) {
    bool follow = invocation.has("follow");
    const bool wait = invocation.has("wait");
    auto onAnswer = [&](const Reply& reply) {
        if (reply.exit != Exit::Ok)
            return false;
        bool const heard = console.line(console.json() ? oneLine(reply.payload) : statusLine(reply.payload));
        return heard && (follow || !connectedIn(reply.payload));
    };
    if (!follow && !wait) {
        const Reply reply = client.call(uri, "{}", invocation.timeoutSeconds);
        onAnswer(reply);
        return conclude(reply, console);
    }
    BusClient::Wait times{.firstSeconds = invocation.timeoutSeconds};
    if (wait)
        times.wholeSeconds = invocation.timeoutSeconds;
    Reply reply = client.follow(uri, "{\"subscribe\":true}", times, onAnswer);
    if (reply.exit == Exit::TimedOut && wait)
        reply.problem = "not connected within " + std::to_string(invocation.timeoutSeconds) +
                        " s; --timeout SECONDS waits longer";
    return conclude(reply, console);
}

}  // namespace

std::string statusLine(const std::string& payload) {
    const JsonRef status = parseWholeJson(payload);
    std::string line = boolMember(status.get(), "connected") ? "connected" : "not connected";
    if (jsonMember(status.get(), "network"))
        line += std::string("  network: ") + yesNo(boolMember(status.get(), "network"));
    if (jsonMember(status.get(), "session"))
        line += std::string("  account: ") + yesNo(boolMember(status.get(), "session"));
    return line;
}

Exit runStatus(const Invocation& invocation, Console& console) {
    if (invocation.has("follow") && invocation.has("wait"))
        return console.usage("--follow and --wait are mutually exclusive");
    Reply failure;
    Reply publicFailure;
    auto client = invocation.has("public") ? nullptr : openBus(QSBus::Private, failure);
    if (client)
        return ask(*client, methodUri("subscribeConnStatus"), invocation, console);
    client = openBus(QSBus::Public, publicFailure);
    if (client)
        return ask(*client, methodUri("connectStatus"), invocation, console);
    if (!failure.problem.empty())
        console.message(failure.problem);
    console.message(publicFailure.problem);
    return Exit::NotConnected;
}
