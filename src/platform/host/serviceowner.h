// SPDX-License-Identifier: GPL-3.0-only
// Follows which connection of the system bus owns a service's name, so that signals of the service can be
// distinguished from those of other processes. Keeps the owner's unique name.
#pragma once

#include <functional>
#include <string>

#include "platform/host/systembus.h"

class ServiceOwner {
  public:
    using OnChange = std::function<void(bool there)>;

    explicit ServiceOwner(const char* name) : m_name(name) {}
    ~ServiceOwner();
    ServiceOwner(const ServiceOwner&) = delete;
    ServiceOwner& operator=(const ServiceOwner&) = delete;

    // Negative errno when the bus cannot be queried. `onChange` is called for every later change, not for the
    // current owner; `onMatched` gets the daemon's answer to the match.
    int start(sd_bus* bus, OnChange onChange, sd_bus_message_handler_t onMatched);
    // True for a message that the owner sent; false while the owner is not known yet.
    bool sent(sd_bus_message* message) const;

  private:
    static int onOwnerChanged(sd_bus_message* signal, void* data, sd_bus_error* error);
    static int onOwner(sd_bus_message* reply, void* data, sd_bus_error* error);

    const char* m_name;
    OnChange m_onChange;
    std::string m_owner;
    sd_bus_slot* m_match = nullptr;
    sd_bus_slot* m_query = nullptr;
};
