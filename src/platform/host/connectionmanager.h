// SPDX-License-Identifier: GPL-3.0-only
// com.zelt.connectionmanager: reports which links reach the Internet, at the call and at every change. Keeps
// the last reported state; nothing survives a restart.
#pragma once

#include "platform/host/busservice.h"
#include "platform/host/config.h"
#include "platform/host/networkstate.h"

class ConnectionManager {
  public:
    explicit ConnectionManager(const HostConfig& config);
    ~ConnectionManager();
    ConnectionManager(const ConnectionManager&) = delete;
    ConnectionManager& operator=(const ConnectionManager&) = delete;

    StartResult start(GMainLoop* loop);
    // Reads the network state and reports it to the subscribers when it has changed.
    void refresh();
    // Whether a captive portal blocks the Internet.
    void setCaptivePortal(bool captive);

  private:
    static bool onGetStatus(QSHandle* handle, QSMessage* message, void* context);
    static gboolean onChange(gint descriptor, GIOCondition condition, gpointer data);

    BusService m_bus;
    NetworkRules m_rules;
    NetworkState m_state;
    int m_changes = -1;
    guint m_source = 0;
};
