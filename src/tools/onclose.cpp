// SPDX-License-Identifier: GPL-3.0-only
// `onclose`: the notices for closed applications, and which endpoints get them. Keeps no state.
#include <utility>

#include "tools/listener.h"
#include "tools/verbs.h"
#include "util/jsonref.h"

std::string noticeLine(const std::string& payload, bool json) {
    if (json)
        return oneLine(payload);
    const JsonRef notice = parseWholeJson(payload);
    const std::string who = textMember(notice.get(), "appid");
    if (boolMember(notice.get(), "open"))
        return "open  " + who;
    return "item  " + who + "  " + textMember(notice.get(), "node") + "  " + textMember(notice.get(), "item");
}

Exit runOnCloseListen(const Invocation& invocation, Console& console) {
    Bounds bounds;
    std::string problem;
    if (!readBounds(invocation, bounds, problem))
        return console.usage(problem);
    bool announced = false;
    auto take = [&](const Reply& reply) {
        if (!jsonMember(parseWholeJson(reply.payload).get(), "appid")) {
            if (!std::exchange(announced, true))
                console.message("listening for items of closed applications");
            return Listener::Verdict::Wait;
        }
        bool const heard = console.line(noticeLine(reply.payload, console.json()));
        return heard ? Listener::Verdict::Counted : Listener::Verdict::Stop;
    };
    return Listener(console, bounds).run({QSBus::Private, "registerOnClose", "{\"subscribe\":true}"}, take);
}

namespace {

Exit change(const Invocation& invocation, Console& console, const char* method, const char* done) {
    const std::string& endpoint = invocation.arguments[0];
    const Reply reply = callPublic(invocation, method, JsonObject().set("endpoint", endpoint).line());
    return console.finish(reply, done + endpoint);
}

}  // namespace

Exit runOnCloseAdd(const Invocation& invocation, Console& console) {
    return change(invocation, console, "subscribeOnClose", "notices for ");
}

Exit runOnCloseRemove(const Invocation& invocation, Console& console) {
    return change(invocation, console, "unsubscribeOnClose", "no notices for ");
}
