// SPDX-License-Identifier: GPL-3.0-only
// The inhibitor lock. A request while it is held only extends it, so a burst of items takes one lock.
#include "platform/host/keepawake.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "platform/host/log.h"

KeepAwake::~KeepAwake() {
    release();
}

void KeepAwake::hold(unsigned milliseconds) {
    if (!m_system.get() || m_absent)
        return;
    m_until = std::max(m_until, g_get_monotonic_time() + gint64{milliseconds} * 1000);
    if (m_timer)
        return;
    m_timer = g_timeout_add(milliseconds, onTimeUp, this);
    request();
}

void KeepAwake::request() {
    const int result = sd_bus_call_method_async(m_system.get(), &m_pending, "org.freedesktop.login1",
                                                "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                                "Inhibit", onInhibitor, this, "ssss", "sleep", "zelt-host",
                                                "Delivering an item", "delay");
    if (result < 0)
        release();
}

int KeepAwake::onInhibitor(sd_bus_message* reply, void* data, sd_bus_error*) {
    auto* self = static_cast<KeepAwake*>(data);
    self->m_pending = sd_bus_slot_unref(self->m_pending);
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
        logLine("cannot inhibit suspend: %s; the machine may sleep while an item is delivered",
                error->message);
        self->m_absent = sd_bus_error_has_name(error, SD_BUS_ERROR_SERVICE_UNKNOWN);
        self->release();
        return 0;
    }
    int descriptor = -1;
    if (sd_bus_message_read(reply, "h", &descriptor) >= 0)
        self->m_inhibitor = fcntl(descriptor, F_DUPFD_CLOEXEC, 3);  // the message owns the original
    return 0;
}

gboolean KeepAwake::onTimeUp(gpointer data) {
    auto* self = static_cast<KeepAwake*>(data);
    self->m_timer = 0;
    const gint64 left = (self->m_until - g_get_monotonic_time() + 999) / 1000;
    if (left > 0)
        self->m_timer = g_timeout_add(static_cast<guint>(left), onTimeUp, self);
    else
        self->release();
    return G_SOURCE_REMOVE;
}

void KeepAwake::release() {
    if (m_timer)
        g_source_remove(m_timer);
    m_timer = 0;
    m_pending = sd_bus_slot_unref(m_pending);
    if (m_inhibitor >= 0)
        close(m_inhibitor);
    m_inhibitor = -1;
}
