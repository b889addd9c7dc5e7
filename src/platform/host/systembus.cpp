// SPDX-License-Identifier: GPL-3.0-only
// sd-bus on the main loop of GLib.
#include "platform/host/systembus.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "platform/host/log.h"

struct SystemBus::Source {
    GSource base;
    GPollFD descriptor;
    SystemBus* owner;
};

namespace {

constexpr int kMessagesPerTurn = 32;

int millisecondsLeft(sd_bus* bus) {
    uint64_t due = UINT64_MAX;
    if (sd_bus_get_timeout(bus, &due) < 0 || due == UINT64_MAX)
        return -1;
    auto now = static_cast<uint64_t>(g_get_monotonic_time());
    return due <= now ? 0 : static_cast<int>(std::min<uint64_t>((due - now + 999) / 1000, G_MAXINT));
}

}  // namespace

gboolean SystemBus::prepare(GSource* source, gint* timeout) {
    auto* self = reinterpret_cast<Source*>(source);
    self->descriptor.fd = sd_bus_get_fd(self->owner->m_bus);
    const int events = sd_bus_get_events(self->owner->m_bus);
    self->descriptor.events = static_cast<gushort>(std::max(events, 0));
    *timeout = events < 0 ? 0 : millisecondsLeft(self->owner->m_bus);
    return *timeout == 0;
}

gboolean SystemBus::check(GSource* source) {
    auto* self = reinterpret_cast<Source*>(source);
    return self->descriptor.revents != 0 || millisecondsLeft(self->owner->m_bus) == 0;
}

gboolean SystemBus::dispatch(GSource* source, GSourceFunc, gpointer) {
    SystemBus* owner = reinterpret_cast<Source*>(source)->owner;
    int result = 1;
    for (int i = 0; i < kMessagesPerTurn && result > 0; i++)
        result = sd_bus_process(owner->m_bus, nullptr);
    if (result >= 0)
        return G_SOURCE_CONTINUE;
    logLine(
        "the system bus connection is lost: %s; suspend, captive portals and the boot status are not "
        "detected",
        strerror(-result));
    owner->close();
    return G_SOURCE_REMOVE;
}

bool SystemBus::open() {
    if (sd_bus_open_system(&m_bus) < 0) {
        m_bus = nullptr;
        return false;
    }
    static GSourceFuncs functions = {prepare, check, dispatch, nullptr, nullptr, nullptr};
    m_source = g_source_new(&functions, sizeof(Source));
    auto* self = reinterpret_cast<Source*>(m_source);
    self->owner = this;
    self->descriptor = {sd_bus_get_fd(m_bus), 0, 0};
    g_source_add_poll(m_source, &self->descriptor);
    g_source_attach(m_source, nullptr);
    return true;
}

void SystemBus::close() {
    if (m_source) {
        g_source_destroy(m_source);
        g_source_unref(m_source);
        m_source = nullptr;
    }
    m_bus = sd_bus_close_unref(m_bus);
}

SystemBus::~SystemBus() {
    close();
}
