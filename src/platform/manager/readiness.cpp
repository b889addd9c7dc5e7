// SPDX-License-Identifier: GPL-3.0-only
// The watchdog is a source without events: each turn of the loop asks every source how long it may sleep, and this is
// where the manager is told. A loop that is stuck in a callback does not ask.
#include "platform/manager/readiness.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <limits>

namespace {

struct WatchdogSource {
    GSource base;
    gint64 interval;  // WatchdogSec, in microseconds
    gint64
        told;  // monotonic microseconds, a clock that stands still while the machine sleeps, as the manager's
};

gboolean prepare(GSource* source, gint* timeout) {
    auto* self = reinterpret_cast<WatchdogSource*>(source);
    const gint64 now = g_get_monotonic_time();
    if (now - self->told >= self->interval / 4) {
        sd_notify(0, "WATCHDOG=1");
        self->told = now;
    }
    const gint64 left = std::max<gint64>(self->told + self->interval / 2 - now, 0);
    *timeout = static_cast<gint>(std::min<gint64>((left + 999) / 1000, std::numeric_limits<gint>::max()));
    return FALSE;
}

gboolean check(GSource*) {
    return FALSE;  // the next turn's question does the work
}

gboolean dispatch(GSource*, GSourceFunc, gpointer) {
    return G_SOURCE_CONTINUE;
}

GSourceFuncs kFunctions = {prepare, check, dispatch, nullptr, nullptr, nullptr};

}  // namespace

guint reportReady() {
    sd_notify(0, "READY=1");
    uint64_t interval = 0;
    if (sd_watchdog_enabled(0, &interval) <= 0)
        return 0;
    GSource* source = g_source_new(&kFunctions, sizeof(WatchdogSource));
    auto* self = reinterpret_cast<WatchdogSource*>(source);
    self->interval = static_cast<gint64>(interval);
    self->told = g_get_monotonic_time();
    g_source_set_name(source, "watchdog");
    // A turn asks no sources of a lower priority than that of one that is ready.
    g_source_set_priority(source, G_PRIORITY_HIGH);
    const guint id = g_source_attach(source, nullptr);
    g_source_unref(source);
    return id;
}
