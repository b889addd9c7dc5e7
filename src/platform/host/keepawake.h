// SPDX-License-Identifier: GPL-3.0-only
// Keeps the machine from suspending for a while, by a delay inhibitor of logind; does nothing where no logind
// runs. One inhibitor serves all requests; it ends with the last of them.
#pragma once

#include <glib.h>
#include <systemd/sd-bus.h>

#include "platform/host/systembus.h"

class KeepAwake {
  public:
    explicit KeepAwake(SystemBus& system) : m_system(system) {}
    ~KeepAwake();
    KeepAwake(const KeepAwake&) = delete;
    KeepAwake& operator=(const KeepAwake&) = delete;

    // Keeps the machine awake for at least this time from now.
    void hold(unsigned milliseconds);

  private:
    void request();
    void release();
    static int onInhibitor(sd_bus_message* reply, void* data, sd_bus_error* error);
    static gboolean onTimeUp(gpointer data);

    SystemBus& m_system;
    sd_bus_slot* m_pending = nullptr;
    int m_inhibitor = -1;
    guint m_timer = 0;
    gint64 m_until = 0;  // microseconds of the monotonic clock
    bool m_absent = false;
};
