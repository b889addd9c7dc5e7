// SPDX-License-Identifier: GPL-3.0-only
// com.zelt.systemmanager: reports whether the machine has finished booting, according to systemd where it
// runs. Without systemd the boot counts as finished. Nothing survives a restart.
#pragma once

#include "platform/host/busservice.h"
#include "platform/host/serviceowner.h"
#include "platform/host/systembus.h"

class SystemManager {
  public:
    // `systemdRuns`: systemd is the machine's init.
    SystemManager(SystemBus& system, bool systemdRuns);
    ~SystemManager();
    SystemManager(const SystemManager&) = delete;
    SystemManager& operator=(const SystemManager&) = delete;

    StartResult start(GMainLoop* loop);

  private:
    bool askSystemd();
    bool askFinishTime();
    void finish();
    static bool onGetBootStatus(QSHandle* handle, QSMessage* message, void* context);
    static int onStartupFinished(sd_bus_message* signal, void* data, sd_bus_error* error);
    static int onMatched(sd_bus_message* reply, void* data, sd_bus_error* error);
    static int onFinishTime(sd_bus_message* reply, void* data, sd_bus_error* error);

    BusService m_bus;
    SystemBus& m_system;
    bool m_finished;
    bool m_askAgain = false;  // a signal came while a query was pending
    ServiceOwner m_systemd;
    sd_bus_slot* m_match = nullptr;
    sd_bus_slot* m_query = nullptr;
};
