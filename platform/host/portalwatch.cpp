// SPDX-License-Identifier: GPL-3.0-only
// NetworkManager's connectivity check. Only a portal counts: "limited" also means a network without the page
// that NetworkManager looks for, and "none" an interface that it does not manage.
#include "platform/host/portalwatch.h"

#include <cstring>

#include "platform/host/say.h"

static constexpr char kManager[] = "org.freedesktop.NetworkManager";
static constexpr char kPath[] = "/org/freedesktop/NetworkManager";
static constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
static constexpr char kOwnerRule[] =
    "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',member='NameOwnerChanged',"
    "arg0='org.freedesktop.NetworkManager'";
static constexpr uint32_t kPortal = 2;  // NM_CONNECTIVITY_PORTAL

PortalWatch::~PortalWatch() {
    sd_bus_slot_unref(m_owner);
    sd_bus_slot_unref(m_properties);
    sd_bus_slot_unref(m_query);
}

void PortalWatch::start() {
    sd_bus* bus = m_system.get();
    if (!bus)
        return;
    int owner = sd_bus_add_match_async(bus, &m_owner, kOwnerRule, onOwnerChanged, onMatched, this);
    int properties = sd_bus_match_signal_async(bus, &m_properties, kManager, kPath, kProperties,
                                               "PropertiesChanged", onPropertiesChanged, onMatched, this);
    if (owner < 0 || properties < 0)
        say("NetworkManager cannot be watched; captive portals go unseen");
    ask();
}

void PortalWatch::ask() {
    sd_bus_message* call = nullptr;
    m_query = sd_bus_slot_unref(m_query);
    if (sd_bus_message_new_method_call(m_system.get(), &call, kManager, kPath, kProperties, "Get") >= 0) {
        sd_bus_message_append(call, "ss", kManager, "Connectivity");
        // A machine that does without NetworkManager is not to be given one.
        sd_bus_message_set_auto_start(call, 0);
        sd_bus_call_async(m_system.get(), &m_query, call, onConnectivity, this, 0);
    }
    sd_bus_message_unref(call);
}

void PortalWatch::judge(bool captive) {
    if (captive == m_captive)
        return;
    m_captive = captive;
    m_onVerdict(captive);
}

int PortalWatch::onMatched(sd_bus_message* reply, void*, sd_bus_error*) {
    if (const sd_bus_error* error = sd_bus_message_get_error(reply))
        say("NetworkManager cannot be watched: %s; captive portals go unseen", error->message);
    return 0;
}

int PortalWatch::onOwnerChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    auto* self = static_cast<PortalWatch*>(data);
    if (sd_bus_message_read(signal, "sss", &name, &before, &after) < 0)
        return 0;
    if (*after)
        self->ask();
    else
        self->judge(false);
    return 0;
}

int PortalWatch::onPropertiesChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto* self = static_cast<PortalWatch*>(data);
    const char* interface = nullptr;
    if (sd_bus_message_read(signal, "s", &interface) < 0 || strcmp(interface, kManager) != 0 ||
        sd_bus_message_enter_container(signal, 'a', "{sv}") < 0)
        return 0;
    while (sd_bus_message_enter_container(signal, 'e', "sv") > 0) {
        const char* name = nullptr;
        uint32_t value = 0;
        if (sd_bus_message_read(signal, "s", &name) < 0)
            return 0;
        if (strcmp(name, "Connectivity") != 0)
            sd_bus_message_skip(signal, "v");
        else if (sd_bus_message_read(signal, "v", "u", &value) >= 0)
            self->judge(value == kPortal);
        sd_bus_message_exit_container(signal);
    }
    return 0;
}

int PortalWatch::onConnectivity(sd_bus_message* reply, void* data, sd_bus_error*) {
    uint32_t value = 0;
    if (!sd_bus_message_get_error(reply) && sd_bus_message_read(reply, "v", "u", &value) >= 0)
        static_cast<PortalWatch*>(data)->judge(value == kPortal);
    return 0;
}
