// SPDX-License-Identifier: GPL-3.0-only
// `session`: log in anew, end the connection, name the account. Keeps no state.
#include "tools/verbs.h"
#include "util/jsonref.h"

bool LoginProgress::take(bool connected) {
    if (first) {
        first = false;
        // A connection that stands is dropped first; that one loss is no failure.
        lossesToBear = connected ? 1 : 0;
        return true;
    }
    up = connected;
    if (connected)
        return false;
    return lossesToBear-- > 0;
}

static Reply waitForLogin(BusClient& client, const Invocation& invocation) {
    LoginProgress progress;
    auto onStatus = [&](const Reply& reply) {
        JsonRef const status = parseWholeJson(reply.payload);
        bool const asked = !progress.first;
        bool const goOn = progress.take(boolMember(status.get(), "connected"));
        // Asked for only once the status is followed, so that no change is missed.
        if (!asked)
            client.notify(methodUri("initializeAccount"), "{}");
        return goOn;
    };
    const BusClient::Wait wait{.wholeSeconds = invocation.timeoutSeconds};
    Reply reply = client.follow(methodUri("subscribeConnStatus"), "{\"subscribe\":true}", wait, onStatus);
    if (reply.exit == Exit::TimedOut)
        reply.problem = "no connection within " + std::to_string(invocation.timeoutSeconds) +
                        " s; `pubsubctl doctor` looks for the reason";
    else if (reply.exit == Exit::Ok && !progress.up)
        return {Exit::NotConnected, reply.payload,
                "the login failed; `pubsubctl doctor` looks for the reason"};
    return reply;
}

Exit runSessionLogin(const Invocation& invocation, Console& console) {
    Reply reply;
    auto client = openBus(QSBus::Private, reply);
    if (client)
        reply = waitForLogin(*client, invocation);
    return console.finish(reply, "connected");
}

Exit runSessionDisconnect(const Invocation& invocation, Console& console) {
    return console.finish(callService(invocation, "disconnect", "{}"), "disconnected");
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
            {Exit::NotConnected, "", "no account was used yet; `pubsubctl session login` logs in"}, "");
    reply.payload = JsonObject().set("user", user).set("resource", resource).line();
    return console.finish(reply, user + (resource.empty() ? "" : "  resource: " + resource));
}
