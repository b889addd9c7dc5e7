// SPDX-License-Identifier: GPL-3.0-only
// The machine's system bus, with logind, systemd and NetworkManager where they run. Connects without waiting;
// a machine without that bus, or without one of these services, is supported too.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

#include "platform/bus/sdbussource.h"

class SystemBus {
  public:
    SystemBus() = default;
    ~SystemBus();
    SystemBus(const SystemBus&) = delete;
    SystemBus& operator=(const SystemBus&) = delete;

    // False when there is no system bus.
    bool open();
    // Null before `open`, without a system bus, and once the bus is lost.
    sd_bus* get() const { return m_bus; }

  private:
    void close();

    sd_bus* m_bus = nullptr;
    std::unique_ptr<SdBusSource> m_source;
};
