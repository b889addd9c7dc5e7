// SPDX-License-Identifier: GPL-3.0-only
// A turn handles a bounded number of messages, so that a flood of them does not keep other sources waiting.
#include "platform/bus/sdbussource.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

struct SdBusSource::Source {
    GSource base;
    GPollFD descriptor;
    SdBusSource* owner;
};

namespace {

constexpr int kMessagesPerTurn = 32;

int millisecondsLeft(sd_bus* bus) {
    uint64_t due = UINT64_MAX;
    if (sd_bus_get_timeout(bus, &due) < 0 || due == UINT64_MAX)
        return -1;
    const auto now = static_cast<uint64_t>(g_get_monotonic_time());
    return due <= now ? 0 : static_cast<int>(std::min<uint64_t>((due - now + 999) / 1000, G_MAXINT));
}

}  // namespace

SdBusSource::SdBusSource(sd_bus* bus, std::function<void(int error)> onLost)
    : m_bus(bus), m_onLost(std::move(onLost)) {
    static GSourceFuncs functions = {prepare, check, dispatch, nullptr, nullptr, nullptr};
    m_source = g_source_new(&functions, sizeof(Source));
    auto* self = reinterpret_cast<Source*>(m_source);
    self->owner = this;
    self->descriptor = {sd_bus_get_fd(bus), 0, 0};
    g_source_add_poll(m_source, &self->descriptor);
    g_source_set_name(m_source, "sd-bus");
    g_source_attach(m_source, nullptr);
}

SdBusSource::~SdBusSource() {
    g_source_destroy(m_source);
    g_source_unref(m_source);
}

gboolean SdBusSource::prepare(GSource* source, gint* timeout) {
    auto* self = reinterpret_cast<Source*>(source);
    self->descriptor.fd = sd_bus_get_fd(self->owner->m_bus);
    const int events = sd_bus_get_events(self->owner->m_bus);
    self->descriptor.events = static_cast<gushort>(std::max(events, 0));
    *timeout = events < 0 ? 0 : millisecondsLeft(self->owner->m_bus);
    return *timeout == 0;
}

gboolean SdBusSource::check(GSource* source) {
    auto* self = reinterpret_cast<Source*>(source);
    return self->descriptor.revents != 0 || millisecondsLeft(self->owner->m_bus) == 0;
}

gboolean SdBusSource::dispatch(GSource* source, GSourceFunc, gpointer) {
    SdBusSource* owner = reinterpret_cast<Source*>(source)->owner;
    int result = 1;
    for (int i = 0; i < kMessagesPerTurn && result > 0; ++i)
        result = sd_bus_process(owner->m_bus, nullptr);
    // A message for which memory or the queue did not suffice is lost, the connection is not.
    if (result >= 0 || ((result == -ENOBUFS || result == -ENOMEM) && sd_bus_is_open(owner->m_bus) > 0))
        return G_SOURCE_CONTINUE;
    const auto onLost = std::exchange(owner->m_onLost, nullptr);
    if (onLost)
        onLost(-result);
    return G_SOURCE_REMOVE;
}
