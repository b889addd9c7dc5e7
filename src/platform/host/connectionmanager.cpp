// SPDX-License-Identifier: GPL-3.0-only
// The connection manager service. The kernel's change notices only say when to look; what they tell is read
// whole, so that a lost notice never leaves a wrong state behind.
#include "platform/host/connectionmanager.h"

#include <glib-unix.h>
#include <unistd.h>

#include "platform/host/netlink.h"
#include "platform/host/say.h"

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

Presence ConnectionManager::start(GMainLoop* loop) {
    static const QSMethod methods[] = {{"getstatus", onGetStatus, 0}, {nullptr, nullptr, 0}};
    const Presence presence = m_bus.take("com.zelt.connectionmanager");
    if (presence != Presence::Up)
        return presence;
    // Watched before it is read: a change in between is then seen twice rather than never.
    m_changes = openNetworkChanges();
    if (m_changes >= 0)
        m_source = g_unix_fd_add(m_changes, G_IO_IN, onChange, this);
    refresh();
    const bool served = m_bus.serve("/", methods, this) && m_bus.attach(loop);
    return served ? Presence::Up : Presence::Failed;
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
    say("network: %s", payload.c_str());
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
