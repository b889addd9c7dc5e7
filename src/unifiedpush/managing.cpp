// SPDX-License-Identifier: GPL-3.0-only
// What the command line asks of the bridge, at an object of its own: what is registered, and its removal. An
// application that is removed is told so. Keeps no state.
#include "unifiedpush/bridge.h"
#include "unifiedpush/connector.h"
#include "unifiedpush/management.h"
#include "util/jsonref.h"

namespace {

const char* stateOf(const Registration& registration) {
    if (registration.url.empty())
        return "waits for the server";
    if (!registration.newest)
        return "replaced by another key";
    return registration.announced ? "registered" : "the application has not taken its address";
}

}  // namespace

int Bridge::serveManagement() {
    static const sd_bus_vtable methods[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_ARGS("List", SD_BUS_NO_ARGS, SD_BUS_RESULT("s", registrations), onList,
                                SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_ARGS("Remove", SD_BUS_ARGS("s", endpoint), SD_BUS_RESULT("b", found), onRemove,
                                SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    return sd_bus_add_object_vtable(m_bus.get(), Receive(m_management), kManagementPath, kManagement, methods,
                                    this);
}

// Without the tokens, which only their applications know.
int Bridge::onList(sd_bus_message* call, void* data, sd_bus_error*) {
    JsonArray registrations;
    for (const auto& [endpoint, registration] : static_cast<Bridge*>(data)->m_state.registrations) {
        JsonObject entry;
        entry.set("endpoint", endpoint)
            .set("service", registration.service)
            .set("description", registration.description)
            .set("version", registration.version)
            .set("vapid", !registration.vapid.empty())
            .set("state", stateOf(registration));
        registrations.add(entry.release());
    }
    JsonObject answer;
    answer.set("returnValue", true).set("registrations", registrations.release());
    return sd_bus_reply_method_return(call, "s", answer.line().c_str());
}

int Bridge::onRemove(sd_bus_message* call, void* data, sd_bus_error*) {
    auto* bridge = static_cast<Bridge*>(data);
    const char* endpoint = "";
    const int result = sd_bus_message_read(call, "s", &endpoint);
    if (result < 0)
        return result;  // uncovered: sd-bus has compared the signature
    const auto found = bridge->m_state.registrations.find(endpoint);
    if (found == bridge->m_state.registrations.end())
        return sd_bus_reply_method_return(call, "b", 0);
    const Wire told = newUnregisteredCall(bridge->m_bus.get(), found->second.version, found->second.service,
                                          found->second.token);
    bridge->remove(endpoint);
    const std::shared_ptr<sd_bus_message> kept(sd_bus_message_ref(call), sd_bus_message_unref);
    bridge->save([bridge, kept](bool) {
        sd_bus_reply_method_return(kept.get(), "b", 1);
        bridge->attend();
    });
    // Not one that would have to be started for it.
    if (told && sd_bus_message_set_expect_reply(told.get(), 0) >= 0 &&
        sd_bus_message_set_auto_start(told.get(), 0) >= 0)
        sd_bus_send(bridge->m_bus.get(), told.get(), nullptr);
    return 1;
}
