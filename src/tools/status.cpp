// SPDX-License-Identifier: GPL-3.0-only
// `status`: asks on the private bus, which reports more, or on the public bus when the caller may not use the
// private one. Keeps no state.
#include <glib.h>

#include "tools/verbs.h"
#include "util/jsonref.h"

namespace {

// A method that reports the status, and what it is asked.
struct Source {
    const char* method;
    const char* once;
    const char* followed;
};
constexpr Source kPrivate = {.method = "subscribeConnStatus",
                             .once = R"({"details":true})",
                             .followed = R"({"subscribe":true,"details":true})"};
constexpr Source kPublic = {.method = "connectStatus", .once = "{}", .followed = R"({"subscribe":true})"};

// "  since: 2026-11-22 07:36:12", in local time; "" without that member.
std::string momentIn(json_object* status, const char* key, const char* label) {
    json_object* seconds = jsonMember(status, key);
    GDateTime* moment = g_date_time_new_from_unix_local(json_object_get_int64(seconds));
    if (!seconds || !moment)
        return "";
    char* text = g_date_time_format(moment, "%Y-%m-%d %H:%M:%S");
    std::string found = std::string("  ") + label + ": " + text;
    g_free(text);
    g_date_time_unref(moment);
    return found;
}

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

Exit ask(BusClient& client, const Source& source, const Invocation& invocation, Console& console) {
    const std::string uri = methodUri(source.method);
    bool follow = invocation.has("follow");
    const bool wait = invocation.has("wait");
    auto onAnswer = [&](const Reply& reply) {
        if (reply.exit != Exit::Ok)
            return false;
        bool const heard = console.line(console.json() ? oneLine(reply.payload) : statusLine(reply.payload));
        return heard && (follow || !connectedIn(reply.payload));
    };
    if (!follow && !wait) {
        const Reply reply = client.call(uri, source.once, invocation.timeoutSeconds);
        onAnswer(reply);
        return conclude(reply, console);
    }
    BusClient::Wait times{.firstSeconds = invocation.timeoutSeconds};
    if (wait)
        times.wholeSeconds = invocation.timeoutSeconds;
    Reply reply = client.follow(uri, source.followed, times, onAnswer);
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
    if (boolMember(status.get(), "ended"))
        line += "  ended: on purpose";
    return line + momentIn(status.get(), "since", "since") + momentIn(status.get(), "heard", "last heard");
}

Exit runStatus(const Invocation& invocation, Console& console) {
    if (invocation.has("follow") && invocation.has("wait"))
        return console.usage("--follow and --wait are mutually exclusive");
    Reply failure;
    Reply publicFailure;
    auto client = invocation.has("public") ? nullptr : openBus(QSBus::Private, failure);
    if (client)
        return ask(*client, kPrivate, invocation, console);
    client = openBus(QSBus::Public, publicFailure);
    // This status asks the service to connect. Most who ask on the public bus may not use the private one.
    Reply forbidden;
    if (auto host = client ? openBus(QSBus::Private, forbidden) : nullptr)
        tellHost(*host, invocation, console, true);
    if (client)
        return ask(*client, kPublic, invocation, console);
    if (!failure.problem.empty())
        console.message(failure.problem);
    console.message(publicFailure.problem);
    return Exit::NotConnected;
}
