// SPDX-License-Identifier: GPL-3.0-only
// The connection manager service. Change notices of the kernel only trigger a reading of the complete state,
// so that a lost notice never leaves a wrong one.
#include "platform/host/connectionmanager.h"

#include <glib-unix.h>
#include <unistd.h>

#include "platform/host/log.h"
#include "platform/host/netlink.h"

ConnectionManager::ConnectionManager(const HostConfig& config) {
    m_rules.loopbackIsInternet = config.loopbackIsInternet;
    m_rules.interfaces = config.interfaces;
}

ConnectionManager::~ConnectionManager() {
    if (m_source)
        g_source_remove(m_source);
    if (m_changes >= 0)
        close(m_changes);
}

StartResult ConnectionManager::start(GMainLoop* loop) {
    static constexpr QSMethod methods[] = {{.name = "getstatus", .handler = onGetStatus}, {}};
    const StartResult result = m_bus.take("com.zelt.connectionmanager");
    if (result != StartResult::Started)
        return result;
    // Watched before it is read: a change in between is seen twice rather than missed.
    m_changes = openNetworkChanges();
    if (m_changes >= 0)
        m_source = g_unix_fd_add(m_changes, G_IO_IN, onChange, this);
    refresh();
    const bool served = m_bus.serve("/", methods, this) && m_bus.attach(loop);
    return served ? StartResult::Started : StartResult::Failed;
}

void ConnectionManager::refresh() {
    NetworkSnapshot snapshot;
    if (!m_bus.handle() || !readNetwork(snapshot))
        return;
    const NetworkState state = decideNetwork(snapshot, m_rules);
    if (state == m_state)
        return;
    m_state = state;
    const std::string payload = networkPayload(state);
    logLine("network: %s", payload.c_str());
    m_bus.post("/", "getstatus", payload);
}

void ConnectionManager::setCaptivePortal(bool captive) {
    m_rules.captivePortal = captive;
    refresh();
}

bool ConnectionManager::onGetStatus(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<ConnectionManager*>(context);
    self->m_bus.replyAndSubscribe(message, networkPayload(self->m_state));
    return true;
}

gboolean ConnectionManager::onChange(gint descriptor, GIOCondition, gpointer data) {
    drainNetworkChanges(descriptor);
    static_cast<ConnectionManager*>(data)->refresh();
    return G_SOURCE_CONTINUE;
}
