// SPDX-License-Identifier: GPL-3.0-only
// Turns replies and bus errors into exit codes and messages. Keeps no state.
#include "tools/reply.h"

#include <string_view>

#include "util/jsonref.h"

namespace {

struct Hint {
    const char* error;  // in "errorCode" or "errorText"
    const char* advice;
};

constexpr Hint kHints[] = {
    {.error = "connectionErr",
     .advice = "the service has no connection to its server; watch it with `pubsubctl status --follow`"},
    {.error = "Service not initialized",
     .advice = "the service has not reached its server yet; see `pubsubctl status` and its log"},
    {.error = "item-not-found",
     .advice = "the node does not exist on the server; create it with `pubsubctl node create` or `pubsubctl "
               "endpoint create`"},
    {.error = "Call createEndpoint first", .advice = "`pubsubctl endpoint create` does that"},
    {.error = "item-required",
     .advice = "the item needs a child element; `payload` is the one that receivers get"},
    {.error = "conflict", .advice = "a node with this name already exists"},
    {.error = "forbidden",
     .advice = "this account is not allowed to do that with this node; ask the node's owner"},
    {.error = "not-authorized",
     .advice = "this account is not allowed to do that with this node; ask the node's owner"},
    {.error = "Error getting appid of calling app",
     .advice =
         "the platform cannot tell which application this process belongs to; where the service allows it, "
         "`--app ID` names one"},
    {.error = "closed-node", .advice = "only members that the owner lists may use this node"},
};

// Some fixed texts of the service contain quotes, which are of no use to a reader.
std::string withoutQuotes(std::string text) {
    if (text.size() >= 2 && text.front() == '"' && text.find('"', 1) == text.size() - 1)
        return text.substr(1, text.size() - 2);
    return text;
}

std::string adviceFor(const std::string& code, const std::string& text) {
    for (const Hint& hint : kHints) {
        if (code == hint.error || text.find(hint.error) != std::string::npos)
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
        return {Exit::Refused, payload, "the answer is not a JSON object: " + payload};
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
                    "; platform methods are on the private bus only, public ones on both"};
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

Reply noBus(const std::string& reason) {
    return {Exit::NotConnected, "",
            reason + "; check that the bus is running and that this user may connect to it"};
}
