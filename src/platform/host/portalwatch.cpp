// SPDX-License-Identifier: GPL-3.0-only
// NetworkManager's connectivity check. Only a portal counts: "limited" also means that the check page of
// NetworkManager is not reachable, and "none" an interface that it does not manage.
#include "platform/host/portalwatch.h"

#include "platform/host/log.h"

namespace {

constexpr char kManager[] = "org.freedesktop.NetworkManager";
constexpr char kPath[] = "/org/freedesktop/NetworkManager";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr uint32_t kPortal = 2;  // NM_CONNECTIVITY_PORTAL

}  // namespace

PortalWatch::PortalWatch(SystemBus& system, OnVerdict onVerdict)
    : m_system(system), m_onVerdict(std::move(onVerdict)), m_owner(kManager) {}

PortalWatch::~PortalWatch() {
    sd_bus_slot_unref(m_properties);
    sd_bus_slot_unref(m_query);
}

void PortalWatch::start() {
    sd_bus* bus = m_system.get();
    if (!bus)
        return;
    const int owner = m_owner.start(
        bus,
        [this](bool there) {
            // An answer of the previous owner does not count.
            m_query = sd_bus_slot_unref(m_query);
            m_askAgain = false;
            if (there)
                ask();
            else
                judge(false);
        },
        onMatched);
    const int properties =
        sd_bus_match_signal_async(bus, &m_properties, kManager, kPath, kProperties, "PropertiesChanged",
                                  onPropertiesChanged, onMatched, this);
    if (owner < 0 || properties < 0)
        logLine("NetworkManager cannot be watched; captive portals are not detected");
    ask();
}

// One query at a time, however many signals come.
void PortalWatch::ask() {
    m_askAgain = m_query != nullptr;
    if (m_askAgain)
        return;
    sd_bus_message* call = nullptr;
    if (sd_bus_message_new_method_call(m_system.get(), &call, kManager, kPath, kProperties, "Get") >= 0) {
        sd_bus_message_append(call, "ss", kManager, "Connectivity");
        // A query must not start NetworkManager on a machine that does not run it.
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
        logLine("NetworkManager cannot be watched: %s; captive portals are not detected", error->message);
    return 0;
}

// The signal only tells that something changed; the value is queried.
int PortalWatch::onPropertiesChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto* self = static_cast<PortalWatch*>(data);
    if (self->m_owner.sent(signal))
        self->ask();
    return 0;
}

int PortalWatch::onConnectivity(sd_bus_message* reply, void* data, sd_bus_error*) {
    auto* self = static_cast<PortalWatch*>(data);
    self->m_query = sd_bus_slot_unref(self->m_query);
    uint32_t value = 0;
    if (!sd_bus_message_get_error(reply) && sd_bus_message_read(reply, "v", "u", &value) >= 0)
        self->judge(value == kPortal);
    if (self->m_askAgain)
        self->ask();
    return 0;
}
