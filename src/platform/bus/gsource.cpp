// SPDX-License-Identifier: GPL-3.0-only
// A bus connection on the main loop: one source each, at the default priority, with bounded work per turn,
// because a flooding client must starve neither the other bus nor the other sources. When idle there are no
// timers and no wake-ups: the loop waits for the descriptor alone.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "platform/bus/connection.h"
#include "platform/bus/error.h"
#include "platform/bus/presence.h"
#include "util/log.h"

namespace {

constexpr int kMessagesPerTurn = 32;
// Requests mostly come alone. After some turns of one message each a turn does not look for a second one,
// which costs a read that finds nothing, but leaves that to the poll of the loop. Every few turns it still
// looks: under load a turn of many messages is cheaper.
constexpr unsigned kTurnsUntilAlone = 4;
constexpr unsigned kTurnsBetweenLooks = 8;
// A read of what has been received ends here, so that a client that sends without pause cannot
// hold the reader.
constexpr int kMessagesPerRead = 256;
// A turn and a read end after this time as well, since a single request may cost a sync of the disk.
constexpr int64_t kMicrosecondsPerTurn = 4 * 1000;
// With so many messages unsent nothing more is read: requests lead to answers, which would all be queued here
// while the daemon accepts none.
constexpr uint64_t kMostUnsent = 1024;
constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

struct BusSource {
    GSource base;
    GPollFD descriptor;
    uint64_t due;      // as of the last prepare, monotonic microseconds
    QSHandle* handle;  // borrowed: the source is destroyed before the handle
    unsigned alone;    // turns since the last one that met more than one message
};

BusSource* asBusSource(GSource* source) {
    return reinterpret_cast<BusSource*>(source);
}

// When sd-bus has work of its own: immediately for messages that it has read already, later only while an
// answer of the daemon is outstanding, otherwise never.
uint64_t dueTime(sd_bus* bus) {
    uint64_t due = kNever;
    return sd_bus_get_timeout(bus, &due) < 0 ? kNever : due;
}

bool isDue(uint64_t due) {
    return due == 0 || (due != kNever && due <= static_cast<uint64_t>(g_get_monotonic_time()));
}

int millisecondsUntil(uint64_t due) {
    if (due == kNever)
        return -1;
    const uint64_t now = static_cast<uint64_t>(g_get_monotonic_time());
    const uint64_t left = due > now ? (due - now + 999) / 1000 : 0;
    return static_cast<int>(std::min<uint64_t>(left, std::numeric_limits<int>::max()));
}

bool isBackedUp(sd_bus* bus) {
    uint64_t unsent = 0;
    return sd_bus_get_n_queued_write(bus, &unsent) >= 0 && unsent >= kMostUnsent;
}

bool canSend(sd_bus* bus) {
    pollfd wait = {sd_bus_get_fd(bus), POLLOUT, 0};
    return poll(&wait, 1, 0) != 0;
}

// A message whose answer could not be queued, or for which there was no memory, is lost, but
// not the connection.
bool costsOneMessage(QSHandle* handle, int result) {
    return handle->bus && (result == -ENOBUFS || result == -ENOMEM) && sd_bus_is_open(handle->bus) > 0;
}

gboolean prepare(GSource* source, gint* timeout) {
    BusSource* self = asBusSource(source);
    self->due = kNever;
    self->descriptor.events = 0;
    *timeout = -1;
    // A main loop inside a bus callback waits for other sources; this one continues afterwards.
    if (self->handle->processing)
        return FALSE;
    const int events = sd_bus_get_events(self->handle->bus);
    // A connection that gives no events is lost: the dispatch finds out why.
    self->due = events < 0 ? 0 : dueTime(self->handle->bus);
    self->descriptor.events = static_cast<gushort>(std::max(events, 0));
    if (events >= 0 && isBackedUp(self->handle->bus)) {
        self->due = kNever;
        self->descriptor.events = POLLOUT;
    }
    if (isDue(self->due))
        return TRUE;
    *timeout = millisecondsUntil(self->due);
    return FALSE;
}

gboolean check(GSource* source) {
    BusSource* self = asBusSource(source);
    return !self->handle->processing && (self->descriptor.revents != 0 || isDue(self->due));
}

gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
    BusSource* self = asBusSource(source);
    QSHandle* handle = self->handle;
    busReference(handle);
    const bool looks = self->alone < kTurnsUntilAlone || self->alone % kTurnsBetweenLooks == 0;
    int handled = 0;
    const bool alive = busProcess(handle, looks ? kMessagesPerTurn : 1, &handled);
    self->alone = handled > 1 ? 0 : self->alone + 1;
    if (!alive)
        busLost(handle);
    busRelease(handle);
    return G_SOURCE_CONTINUE;
}

GSourceFuncs busSourceFunctions = {prepare, check, dispatch, nullptr, nullptr, nullptr};

}  // namespace

bool busProcess(QSHandle* handle, int most, int* handled, bool* drained) {
    if (handle->processing)
        return true;
    handle->processing = true;
    int result = 1, count = 0;
    const int64_t end = g_get_monotonic_time() + kMicrosecondsPerTurn;
    while (count < most && handle->bus && (!isBackedUp(handle->bus) || canSend(handle->bus))) {
        busNoteBacklog(handle);
        result = sd_bus_process(handle->bus, nullptr);
        if (costsOneMessage(handle, result))
            result = 1;
        if (result <= 0 || ++count == most || g_get_monotonic_time() >= end)
            break;
    }
    if (result >= 0 && handle->bus)
        busSettleDoubt(handle);
    if (handled)
        *handled = count;
    if (drained)
        *drained = result == 0;
    handle->processing = false;
    if (result < 0 && handle->bus)
        PrvPrintErr({}, "The %s bus connection of %s is lost: %s", busSideName(handle),
                    handle->name.empty() ? "this client" : handle->name.c_str(), std::strerror(-result));
    return result >= 0 || !handle->bus;
}

void busLost(QSHandle* handle) {
    GMainLoop* loop = handle->loop;
    busDetach(handle);
    if (loop)
        g_main_loop_quit(loop);
}

void busDetach(QSHandle* handle) {
    handle->loop = nullptr;
    if (GSource* source = std::exchange(handle->source, nullptr)) {
        g_source_destroy(source);
        g_source_unref(source);
    }
}

bool QSGmainAttach(QSHandle* handle, GMainLoop* loop, QSError* error) {
    if (!busIsOpen(handle, error))
        return false;
    if (!loop || handle->source)
        return busFail(error, -EINVAL,
                       loop ? "The connection is attached to a main loop already" : "There is no main loop");
    const int descriptor = sd_bus_get_fd(handle->bus);
    if (descriptor < 0)
        return busFailErrno(error, descriptor, "Attaching the bus connection to the main loop failed");
    GSource* source = g_source_new(&busSourceFunctions, sizeof(BusSource));
    BusSource* self = asBusSource(source);
    self->handle = handle;
    self->descriptor = {descriptor, 0, 0};
    self->due = kNever;
    g_source_add_poll(source, &self->descriptor);
    g_source_set_name(source, busIsPublic(handle) ? "public bus" : "private bus");
    // Not for recursion, which `processing` prevents: a source that may not recurse is taken out of
    // the poll set and put back around each dispatch, and each of the two wakes the loop by a write to
    // its own descriptor.
    g_source_set_can_recurse(source, TRUE);
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_attach(source, g_main_loop_get_context(loop));
    handle->source = source;
    handle->loop = loop;
    return true;
}

void QSZeltServiceReadReceived(QSZeltService* service) {
    if (!service || service->privateHandle->processing || service->publicHandle->processing)
        return;
    for (QSHandle* handle : {service->privateHandle, service->publicHandle}) {
        busReference(handle);
        bool drained = true;
        const bool alive = !handle->bus || busProcess(handle, kMessagesPerRead, nullptr, &drained);
        if (!drained && handle->bus)
            busNoteUnread(handle);
        if (!alive)
            busLost(handle);
        busRelease(handle);
    }
}
