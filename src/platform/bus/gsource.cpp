// SPDX-License-Identifier: GPL-3.0-only
// Bus connections on the main loop: one source each, at the default priority, with bounded work per dispatch,
// so that a flooding client blocks neither the other bus nor the other sources. When idle there are no timers
// and no wake-ups: the loop waits for the file descriptor only.
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

constexpr int kMessagesPerDispatch = 32;
// Most requests arrive alone. After several dispatches of one message each, a dispatch does not try to read a
// second one, which costs a read that finds nothing, but leaves that to the poll of the loop. Every few
// dispatches it still tries, because under load one dispatch of many messages is cheaper.
constexpr unsigned kDispatchesUntilSingle = 4;
constexpr unsigned kDispatchesPerReadAhead = 8;
// A read of what was received ends at this number for each connection, so that a client that sends without
// pause cannot hold the reader.
constexpr int kMessagesPerRead = 256;
// A dispatch and such a read end after this time as well, because a single request may wait for a disk sync.
constexpr int64_t kMicrosecondsPerDispatch = 4 * 1000;
// With this many messages unsent nothing more is read: the answers to further requests would be queued here
// while the daemon accepts none.
constexpr uint64_t kMostUnsent = 1024;
constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

struct BusSource {
    GSource base;
    GPollFD descriptor;
    uint64_t due;      // as of the last prepare, monotonic microseconds
    QSHandle* handle;  // borrowed: the source is destroyed before the handle
    unsigned alone;    // dispatches since the last one of several messages
};

BusSource* asBusSource(GSource* source) {
    return reinterpret_cast<BusSource*>(source);
}

// When sd-bus has work without input: immediately for messages that it has already read, later only while a
// reply of the daemon is pending, otherwise never.
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

// When an answer could not be queued, or memory ran out, this message is lost but the connection is not.
bool isOnlyThisMessageLost(QSHandle* handle, int result) {
    return handle->bus && (result == -ENOBUFS || result == -ENOMEM) && sd_bus_is_open(handle->bus) > 0;
}

gboolean prepare(GSource* source, gint* timeout) {
    BusSource* self = asBusSource(source);
    self->due = kNever;
    self->descriptor.events = 0;
    *timeout = -1;
    // While a main loop runs inside a bus callback, this source pauses.
    if (self->handle->processing)
        return FALSE;
    const int events = sd_bus_get_events(self->handle->bus);
    // If sd-bus gives no events, the connection is lost; the dispatch finds out why.
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
    const bool readsAhead =
        self->alone < kDispatchesUntilSingle || self->alone % kDispatchesPerReadAhead == 0;
    int handled = 0;
    const bool alive = busProcess(handle, readsAhead ? kMessagesPerDispatch : 1, &handled);
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
    const int64_t end = g_get_monotonic_time() + kMicrosecondsPerDispatch;
    while (count < most && handle->bus && (!isBackedUp(handle->bus) || canSend(handle->bus))) {
        busNoteBacklog(handle);
        result = sd_bus_process(handle->bus, nullptr);
        if (isOnlyThisMessageLost(handle, result))
            result = 1;
        if (result <= 0 || ++count == most || g_get_monotonic_time() >= end)
            break;
    }
    if (result >= 0 && handle->bus)
        busCheckPresence(handle);
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
    // Recursion is prevented by `processing`. A source that may not recurse would be taken out of
    // the poll set and put back around each dispatch, and each of the two wakes the loop by a write
    // to its own descriptor.
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
            busNoteMissedSignals(handle);
        if (!alive)
            busLost(handle);
        busRelease(handle);
    }
}
