// SPDX-License-Identifier: GPL-3.0-only
// com.zelt.power: alarms that call a method once and can wake the machine, and a short keep-awake. Alarms
// survive their client and, on disk, a restart of the daemon and of the machine.
#pragma once

#include <string>

#include "platform/host/alarmclock.h"
#include "platform/host/alarmtable.h"
#include "platform/host/busservice.h"
#include "platform/host/config.h"
#include "platform/host/keepawake.h"

class Power {
  public:
    Power(const HostConfig& config, SystemBus& system);
    ~Power();
    Power(const Power&) = delete;
    Power& operator=(const Power&) = delete;

    StartResult start(GMainLoop* loop);
    // Fires the alarms that are due and sets the timers for the rest.
    void ring();

  private:
    static bool onSet(QSHandle* handle, QSMessage* message, void* context);
    static bool onClear(QSHandle* handle, QSMessage* message, void* context);
    static bool onActivityStart(QSHandle* handle, QSMessage* message, void* context);
    static gboolean onSaveTime(gpointer data);
    void load();
    bool save();
    void saveSoon();
    void call(const Alarm& alarm);
    void armClock();

    BusService m_bus;
    std::string m_file;
    AlarmTable m_alarms;
    AlarmClock m_clock;
    KeepAwake m_awake;
    guint m_saveTimer = 0;
};
