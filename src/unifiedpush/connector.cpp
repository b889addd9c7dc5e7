// SPDX-License-Identifier: GPL-3.0-only
// Building the calls. Keeps no state.
#include "unifiedpush/connector.h"

#include <algorithm>
#include <string>

namespace {

constexpr char kConnector1[] = "org.unifiedpush.Connector1";
constexpr char kConnector2[] = "org.unifiedpush.Connector2";

Wire newCall(sd_bus* bus, int version, const std::string& to, const char* method) {
    Wire call;
    sd_bus_message_new_method_call(bus, Receive(call), to.c_str(), kConnectorPath,
                                   version == 1 ? kConnector1 : kConnector2, method);
    return call;
}

int appendBytes(sd_bus_message* call, const std::string& key, std::string_view bytes) {
    int result = sd_bus_message_open_container(call, 'e', "sv");
    if (result >= 0)
        result = sd_bus_message_append(call, "s", key.c_str());
    if (result >= 0)
        result = sd_bus_message_open_container(call, 'v', "ay");
    if (result >= 0)
        result = sd_bus_message_append_array(call, 'y', bytes.data(), bytes.size());
    if (result >= 0)
        result = sd_bus_message_close_container(call);
    return result < 0 ? result : sd_bus_message_close_container(call);
}

int appendMessage(sd_bus_message* call, const std::string& token, const std::string& id,
                  std::string_view bytes) {
    int result = sd_bus_message_open_container(call, 'a', "{sv}");
    if (result >= 0)
        result = sd_bus_message_append(call, "{sv}", "token", "s", token.c_str());
    if (result >= 0)
        result = appendBytes(call, "message", bytes);
    if (result >= 0)
        result = sd_bus_message_append(call, "{sv}", "id", "s", id.c_str());
    return result < 0 ? result : sd_bus_message_close_container(call);
}

int appendMessage1(sd_bus_message* call, const std::string& token, const std::string& id,
                   std::string_view bytes) {
    int result = sd_bus_message_append(call, "s", token.c_str());
    if (result >= 0)
        result = sd_bus_message_append_array(call, 'y', bytes.data(), bytes.size());
    return result < 0 ? result : sd_bus_message_append(call, "s", id.c_str());
}

Wire unless(int result, Wire call) {
    return result < 0 ? nullptr : std::move(call);
}

}  // namespace

Wire newMessageCall(sd_bus* bus, const Registration& registration, const std::string& id,
                    std::string_view bytes) {
    Wire call = newCall(bus, registration.version, registration.service, "Message");
    if (!call)
        return nullptr;  // uncovered: the names were checked when it registered
    const auto append = registration.version == 1 ? appendMessage1 : appendMessage;
    const int result = append(call.get(), registration.token, id, bytes);
    return unless(result, std::move(call));
}

Wire newEndpointCall(sd_bus* bus, const Registration& registration, const std::string& to) {
    Wire call = newCall(bus, registration.version, to, "NewEndpoint");
    if (!call)
        return nullptr;  // uncovered: the names were checked when it registered
    const char* token = registration.token.c_str();
    const char* url = registration.url.c_str();
    const int result = registration.version == 1 ? sd_bus_message_append(call.get(), "ss", token, url)
                                                 : sd_bus_message_append(call.get(), "a{sv}", 2, "token", "s",
                                                                         token, "endpoint", "s", url);
    return unless(result, std::move(call));
}

Wire newUnregisteredCall(sd_bus* bus, int version, const std::string& to, const std::string& token) {
    Wire call = newCall(bus, version, to, "Unregistered");
    if (!call)
        return nullptr;  // uncovered: the names were checked when it registered
    const int result = version == 1
                           ? sd_bus_message_append(call.get(), "s", token.c_str())
                           : sd_bus_message_append(call.get(), "a{sv}", 1, "token", "s", token.c_str());
    return unless(result, std::move(call));
}

Outcome outcomeOf(sd_bus_message* answer) {
    const sd_bus_error* error = sd_bus_message_get_error(answer);
    if (!error)
        return Outcome::Taken;
    const std::string_view name = error->name;
    constexpr std::string_view kStandard = "org.freedesktop.DBus.Error.";
    if (!name.starts_with(kStandard))
        return Outcome::Refused;
    const std::string_view kind = name.substr(kStandard.size());
    if (kind == "ServiceUnknown" || kind == "NameHasNoOwner")
        return Outcome::Absent;
    // Also one that has not taken its name in the time that the daemon gives it.
    if (kind.starts_with("Spawn.") || kind == "TimedOut")
        return Outcome::Unstartable;
    // What the daemon says of an application that starts, ends, is silent or may have no more calls, and what
    // bus libraries say of an object that is not there yet.
    constexpr std::string_view kNotYet[] = {"NoReply",        "Timeout",       "Disconnected",
                                            "UnknownMethod",  "UnknownObject", "UnknownInterface",
                                            "LimitsExceeded", "NoMemory",      "AccessDenied"};
    return std::find(std::begin(kNotYet), std::end(kNotYet), kind) == std::end(kNotYet) ? Outcome::Refused
                                                                                        : Outcome::NotYet;
}
