// SPDX-License-Identifier: GPL-3.0-only
// Turns replies and bus errors into exit codes and words. Keeps no state.
#include "tools/reply.h"

#include <string_view>

#include "util/jsonref.h"

namespace {

struct Hint {
    const char* word;  // as it stands in "errorCode" or "errorText"
    const char* advice;
};

const Hint kHints[] = {
    {"connectionErr",
     "the service has no connection to its server; watch it with `pubsubctl status --follow`"},
    {"Service not initialized",
     "the service never reached its server yet; see `pubsubctl status` and its log"},
    {"item-not-found",
     "the server knows no such node; create it with `pubsubctl node create` or `pubsubctl endpoint create`"},
    {"item-required", "the item needs a child element; `payload` is the one that receivers are handed"},
    {"conflict", "a node of this name is there already"},
    {"forbidden", "this account may not do that to this node; ask the node's owner"},
    {"not-authorized", "this account may not do that to this node; ask the node's owner"},
    {"Error getting appid of calling app",
     "the platform knows no application behind this process; where the service allows it, `--app ID` names "
     "one"},
    {"closed-node", "the node takes only members that its owner lists"},
};

// Some of the service's fixed words carry quotes of their own; a person need not see them.
std::string withoutQuotes(std::string text) {
    if (text.size() >= 2 && text.front() == '"' && text.find('"', 1) == text.size() - 1)
        return text.substr(1, text.size() - 2);
    return text;
}

std::string adviceFor(const std::string& code, const std::string& text) {
    for (const Hint& hint : kHints) {
        if (code == hint.word || text.find(hint.word) != std::string::npos)
            return hint.advice;
    }
    return "";
}

bool meansAbsent(std::string_view errorName) {
    for (const char* name :
         {"org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner",
          "org.freedesktop.DBus.Error.NoReply", "org.freedesktop.DBus.Error.Disconnected"}) {
        if (errorName == name)
            return true;
    }
    return errorName.starts_with("org.freedesktop.DBus.Error.Spawn.");
}

bool meansUnknown(std::string_view errorName) {
    for (const char* name :
         {"org.freedesktop.DBus.Error.UnknownMethod", "org.freedesktop.DBus.Error.UnknownObject",
          "org.freedesktop.DBus.Error.UnknownInterface"}) {
        if (errorName == name)
            return true;
    }
    return false;
}

}  // namespace

Reply judgeAnswer(const std::string& payload) {
    const JsonRef object = parseWholeJson(payload);
    if (!json_object_is_type(object.get(), json_type_object))
        return {Exit::Refused, payload, "the answer is no JSON object: " + payload};
    if (boolMember(object.get(), "returnValue", true))
        return {Exit::Ok, payload, ""};
    const std::string code = withoutQuotes(textMember(object.get(), "errorCode"));
    const std::string text = withoutQuotes(textMember(object.get(), "errorText"));
    const std::string advice = adviceFor(code, text);
    std::string problem = code.empty() ? text : code + ": " + text;
    if (problem.empty())
        problem = "refused without a reason";
    if (!advice.empty())
        problem += " (" + advice + ")";
    return {code == "connectionErr" ? Exit::NotConnected : Exit::Refused, payload, problem};
}

Reply judgeBusError(const std::string& service, const std::string& errorName, const std::string& payload) {
    const JsonRef object = parseWholeJson(payload);
    const std::string text = textMember(object.get(), "errorText");
    if (meansAbsent(errorName))
        return {Exit::NotConnected, "", service + " is not on the bus: " + text + "; start it and try again"};
    if (meansUnknown(errorName))
        return {Exit::Refused, "",
                "no such method on this bus: " + text +
                    "; platform methods are on the private bus alone, public ones on both"};
    if (errorName == "org.freedesktop.DBus.Error.AccessDenied")
        return {Exit::Refused, "", "the bus forbids this call: " + text};
    return {Exit::Refused, "", errorName + ": " + text};
}

Reply lostBus() {
    return {Exit::NotConnected, "", "the bus closed the connection"};
}

Reply timedOut(const std::string& service, unsigned seconds) {
    return {Exit::TimedOut, "",
            "no answer from " + service + " within " + std::to_string(seconds) +
                " s; --timeout SECONDS waits longer, and `call --no-reply` does not wait"};
}

Reply noBus(const std::string& words) {
    return {Exit::NotConnected, "", words + "; check that the bus runs and that this user may use it"};
}
