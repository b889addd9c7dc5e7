// SPDX-License-Identifier: GPL-3.0-only
// The machine's system bus, with logind, systemd and NetworkManager where they run. Connects without waiting;
// a machine without that bus, or without one of these services, is supported too.
#pragma once

#include <glib.h>
#include <systemd/sd-bus.h>

#include <functional>

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
    struct Source;
    static gboolean prepare(GSource* source, gint* timeout);
    static gboolean check(GSource* source);
    static gboolean dispatch(GSource* source, GSourceFunc callback, gpointer data);
    void close();

    sd_bus* m_bus = nullptr;
    GSource* m_source = nullptr;
};
