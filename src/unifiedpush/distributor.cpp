// SPDX-License-Identifier: GPL-3.0-only
// Reading and answering the calls. Unknown members of the arguments are ignored; a known one of another type
// makes the registration fail, since an application that gets no answer waits for it.
#include "unifiedpush/distributor.h"

#include <cstring>
#include <map>
#include <utility>

#include "platform/bus/guard.h"

namespace {

constexpr char kInterface1[] = "org.unifiedpush.Distributor1";
constexpr char kInterface2[] = "org.unifiedpush.Distributor2";
constexpr char kSucceeded[] = "REGISTRATION_SUCCEEDED";
constexpr char kFailed[] = "REGISTRATION_FAILED";

using Members = std::map<std::string, std::string*>;

Wire keep(sd_bus_message* message) {
    return Wire(sd_bus_message_ref(message));
}

std::string senderOf(sd_bus_message* message) {
    const char* sender = sd_bus_message_get_sender(message);
    return sender ? sender : "";
}

// One member; false when it is a known one and no text.
bool readMember(sd_bus_message* message, const Members& members) {
    const char *key = nullptr, *contents = nullptr, *text = nullptr;
    char type = 0;
    if (sd_bus_message_read(message, "s", &key) <= 0 ||
        sd_bus_message_peek_type(message, &type, &contents) <= 0)
        return false;  // uncovered: sd-bus has compared the signature
    const auto member = members.find(key);
    if (member == members.end() || std::strcmp(contents, "s") != 0)
        return sd_bus_message_skip(message, "v") >= 0 && member == members.end();
    if (sd_bus_message_read(message, "v", "s", &text) <= 0)
        return false;  // uncovered: sd-bus has compared the signature
    *member->second = text;
    return true;
}

// Reads an a{sv} into the texts; false when a member is not as it should be.
bool readMembers(sd_bus_message* message, const Members& members) {
    if (sd_bus_message_enter_container(message, 'a', "{sv}") < 0)
        return false;  // uncovered: sd-bus has compared the signature
    bool good = true;
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
        good = readMember(message, members) && good;
        if (sd_bus_message_exit_container(message) < 0)
            return false;  // uncovered: sd-bus has compared the signature
    }
    return good;
}

void answer(const RegisterCall& call, const char* success, const char* reason) {
    if (call.version == 1)
        sd_bus_reply_method_return(call.call.get(), "ss", success, reason);
    else if (*reason)
        sd_bus_reply_method_return(call.call.get(), "a{sv}", 2, "success", "s", success, "reason", "s",
                                   reason);
    else
        sd_bus_reply_method_return(call.call.get(), "a{sv}", 1, "success", "s", success);
}

}  // namespace

const sd_bus_vtable Distributor::kVersion1[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("Register", SD_BUS_ARGS("s", serviceName, "s", token, "s", description),
                            SD_BUS_RESULT("s", registrationResult, "s", registrationResultReason),
                            Distributor::onRegister1, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Unregister", SD_BUS_ARGS("s", token), SD_BUS_NO_RESULT,
                            Distributor::onUnregister1,
                            SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_METHOD_NO_REPLY),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable Distributor::kVersion2[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("Register", SD_BUS_ARGS("a{sv}", args), SD_BUS_RESULT("a{sv}", res),
                            Distributor::onRegister2, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Unregister", SD_BUS_ARGS("a{sv}", args), SD_BUS_RESULT("a{sv}", res),
                            Distributor::onUnregister2, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int Distributor::serve(sd_bus* bus) {
    const int result =
        sd_bus_add_object_vtable(bus, Receive(m_object1), kDistributorPath, kInterface1, kVersion1, this);
    return result < 0 ? result
                      : sd_bus_add_object_vtable(bus, Receive(m_object2), kDistributorPath, kInterface2,
                                                 kVersion2, this);
}

int Distributor::onRegister1(sd_bus_message* message, void* data, sd_bus_error*) {
    const char *service = "", *token = "", *description = "";
    const int result = sd_bus_message_read(message, "sss", &service, &token, &description);
    if (result < 0)
        return result;  // uncovered: sd-bus has compared the signature
    RegisterCall call{keep(message), 1, senderOf(message), service, token, description, ""};
    busRunGuarded("Register", [&] { static_cast<Distributor*>(data)->onRegister(std::move(call)); });
    return 1;
}

int Distributor::onRegister2(sd_bus_message* message, void* data, sd_bus_error*) {
    RegisterCall call{keep(message), 2, senderOf(message), "", "", "", ""};
    Members members;
    members["service"] = &call.service;
    members["token"] = &call.token;
    members["description"] = &call.description;
    members["vapid"] = &call.vapid;
    if (!readMembers(message, members)) {
        fail(call, kInternalError);
        return 1;
    }
    busRunGuarded("Register", [&] { static_cast<Distributor*>(data)->onRegister(std::move(call)); });
    return 1;
}

int Distributor::onUnregister1(sd_bus_message* message, void* data, sd_bus_error*) {
    const char* token = "";
    const int result = sd_bus_message_read(message, "s", &token);
    if (result < 0)
        return result;  // uncovered: sd-bus has compared the signature
    UnregisterCall call{keep(message), 1, senderOf(message), token};
    busRunGuarded("Unregister", [&] { static_cast<Distributor*>(data)->onUnregister(std::move(call)); });
    return 1;
}

int Distributor::onUnregister2(sd_bus_message* message, void* data, sd_bus_error*) {
    UnregisterCall call{keep(message), 2, senderOf(message), ""};
    readMembers(message, {{"token", &call.token}});
    busRunGuarded("Unregister", [&] { static_cast<Distributor*>(data)->onUnregister(std::move(call)); });
    return 1;
}

void Distributor::succeed(const RegisterCall& call) {
    answer(call, kSucceeded, "");
}

void Distributor::fail(const RegisterCall& call, const char* reason) {
    answer(call, kFailed, reason);
}

void Distributor::acknowledge(const UnregisterCall& call) {
    if (call.version == 1)
        sd_bus_reply_method_return(call.call.get(), "");
    else
        sd_bus_reply_method_return(call.call.get(), "a{sv}", 0);
}
