// SPDX-License-Identifier: GPL-3.0-only
// com.zelt.connectionmanager: tells which links lead to the Internet, at once and at every change. Keeps the
// state it told last; nothing survives a restart.
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

    Presence start(GMainLoop* loop);
    // Looks at the network anew and tells the subscribers when it is no longer what they know.
    void refresh();
    // A page that wants a login stands before the Internet, or does so no more.
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
