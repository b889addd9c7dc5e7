// SPDX-License-Identifier: GPL-3.0-only
// Reports whether NetworkManager has detected a captive portal; without NetworkManager there is none. Keeps
// the last result.
#pragma once

#include <functional>

#include "platform/host/serviceowner.h"
#include "platform/host/systembus.h"

class PortalWatch {
  public:
    using OnVerdict = std::function<void(bool captive)>;

    PortalWatch(SystemBus& system, OnVerdict onVerdict);
    ~PortalWatch();
    PortalWatch(const PortalWatch&) = delete;
    PortalWatch& operator=(const PortalWatch&) = delete;

    void start();

  private:
    void ask();
    void judge(bool captive);
    static int onPropertiesChanged(sd_bus_message* signal, void* data, sd_bus_error* error);
    static int onMatched(sd_bus_message* reply, void* data, sd_bus_error* error);
    static int onConnectivity(sd_bus_message* reply, void* data, sd_bus_error* error);

    SystemBus& m_system;
    OnVerdict m_onVerdict;
    bool m_captive = false;
    bool m_askAgain = false;  // something changed while a query was pending
    ServiceOwner m_owner;
    sd_bus_slot* m_properties = nullptr;
    sd_bus_slot* m_query = nullptr;
};
