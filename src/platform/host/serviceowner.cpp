// SPDX-License-Identifier: GPL-3.0-only
// The match is installed before the query, so that no change is missed. The daemon sends answer and changes
// in order, so the answer cannot be older than a change before it.
#include "platform/host/serviceowner.h"

#include <cstring>

#include "platform/bus/daemon.h"

ServiceOwner::~ServiceOwner() {
    sd_bus_slot_unref(m_match);
    sd_bus_slot_unref(m_query);
}

int ServiceOwner::start(sd_bus* bus, OnChange onChange, sd_bus_message_handler_t onMatched) {
    m_onChange = std::move(onChange);
    const std::string rule = std::string("type='signal',sender='") + kBusDaemon + "',path='" +
                             kBusDaemonPath + "',interface='" + kBusDaemon +
                             "',member='NameOwnerChanged',arg0='" + m_name + "'";
    const int result = sd_bus_add_match_async(bus, &m_match, rule.c_str(), onOwnerChanged, onMatched, this);
    if (result < 0)
        return result;
    return sd_bus_call_method_async(bus, &m_query, kBusDaemon, kBusDaemonPath, kBusDaemon, "GetNameOwner",
                                    onOwner, this, "s", m_name);
}

bool ServiceOwner::sent(sd_bus_message* message) const {
    const char* sender = sd_bus_message_get_sender(message);
    return sender && !m_owner.empty() && m_owner == sender;
}

int ServiceOwner::onOwnerChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto* self = static_cast<ServiceOwner*>(data);
    OwnerChange change;
    if (!busReadOwnerChange(signal, change))
        return 0;
    self->m_owner = change.after;
    if (self->m_onChange)
        self->m_onChange(!self->m_owner.empty());
    return 0;
}

int ServiceOwner::onOwner(sd_bus_message* reply, void* data, sd_bus_error*) {
    const char* owner = nullptr;
    if (!sd_bus_message_get_error(reply) && sd_bus_message_read(reply, "s", &owner) > 0)
        static_cast<ServiceOwner*>(data)->m_owner = owner;
    return 0;
}
