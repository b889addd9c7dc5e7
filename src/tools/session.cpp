// SPDX-License-Identifier: GPL-3.0-only
// `session`: logs in again, ends the connection, shows the account. Keeps no state.
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
            {Exit::NotConnected, "", "no account has been used yet; log in with `pubsubctl session login`"},
            "");
    reply.payload = JsonObject().set("user", user).set("resource", resource).line();
    return console.finish(reply, user + (resource.empty() ? "" : "  resource: " + resource));
}
