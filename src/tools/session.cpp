// SPDX-License-Identifier: GPL-3.0-only
// `session`: logs in again, ends the connection, shows the account. Keeps no state; zelt-host keeps whether
// the connection was ended on purpose.
#include <algorithm>

#include "tools/verbs.h"
#include "util/jsonref.h"

bool LoginProgress::take(bool connected) {
    if (first) {
        first = false;
        // An existing connection is dropped first; that one loss is not a failure.
        lossesExpected = connected ? 1 : 0;
        return true;
    }
    up = connected;
    if (connected)
        return false;
    return lossesExpected-- > 0;
}

void tellHost(BusClient& client, const Invocation& invocation, Console& console, bool keep) {
    constexpr unsigned kLongest = 5;
    const Reply reply =
        client.call(kHostConnection + std::string("/keep"), JsonObject().set("keep", keep).line(),
                    std::min(invocation.timeoutSeconds, kLongest));
    if (reply.exit != Exit::Ok && reply.exit != Exit::NotConnected)
        console.message("zelt-host was not told: " + reply.problem);
}

namespace {

Reply waitForLogin(BusClient& client, const Invocation& invocation) {
    LoginProgress progress;
    auto onStatus = [&](const Reply& reply) {
        JsonRef const status = parseWholeJson(reply.payload);
        bool const asked = !progress.first;
        bool const goOn = progress.take(boolMember(status.get(), "connected"));
        // The login is requested only once the status is followed, so that no change is missed.
        if (!asked)
            client.notify(methodUri("initializeAccount"), "{}");
        return goOn;
    };
    const BusClient::Wait wait{.wholeSeconds = invocation.timeoutSeconds};
    Reply reply = client.follow(methodUri("subscribeConnStatus"), "{\"subscribe\":true}", wait, onStatus);
    if (reply.exit == Exit::TimedOut)
        reply.problem = "no connection within " + std::to_string(invocation.timeoutSeconds) +
                        " s; run `pubsubctl doctor` to find the reason";
    else if (reply.exit == Exit::Ok && !progress.up)
        return {Exit::NotConnected, reply.payload,
                "the login failed; run `pubsubctl doctor` to find the reason"};
    return reply;
}

}  // namespace

Exit runSessionLogin(const Invocation& invocation, Console& console) {
    Reply reply;
    auto client = openBus(QSBus::Private, reply);
    if (client) {
        tellHost(*client, invocation, console, true);
        reply = waitForLogin(*client, invocation);
    }
    return console.finish(reply, "connected");
}

Exit runSessionDisconnect(const Invocation& invocation, Console& console) {
    Reply reply;
    auto client = openBus(QSBus::Private, reply);
    if (client) {
        // First, or the host would ask for the connection again as soon as it has ended.
        tellHost(*client, invocation, console, false);
        reply = client->call(methodUri("disconnect"), "{}", invocation.timeoutSeconds);
    }
    return console.finish(reply, "disconnected");
}

Exit runSessionJid(const Invocation& invocation, Console& console) {
    Reply reply = callService(invocation, "getJabberId", "{}");
    if (reply.exit != Exit::Ok)
        return console.finish(reply, "");
    const Reply second = callService(invocation, "getResource", "{}");
    if (second.exit != Exit::Ok)
        return console.finish(second, "");
    const std::string user = textMember(parseWholeJson(reply.payload).get(), "username");
    const std::string resource = textMember(parseWholeJson(second.payload).get(), "resource");
    if (user.empty())
        return console.finish(
            {Exit::NotConnected, "", "no account has been used yet; log in with `pubsubctl session login`"},
            "");
    reply.payload = JsonObject().set("user", user).set("resource", resource).line();
    return console.finish(reply, user + (resource.empty() ? "" : "  resource: " + resource));
}
