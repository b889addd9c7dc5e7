// SPDX-License-Identifier: GPL-3.0-only
// sd-bus on the main loop. A turn handles a bounded number of messages, so that a flood of calls does not
// keep the device's items waiting.
#include "unifiedpush/sessionbus.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "platform/bus/daemon.h"
#include "platform/bus/guard.h"

struct SessionBus::Source {
    GSource base;
    GPollFD descriptor;
    SessionBus* owner;
};

namespace {

constexpr int kMessagesPerTurn = 32;
constexpr unsigned kDaemonSeconds = 25;
constexpr uint64_t kMicroseconds = 1'000'000;

std::string address() {
    const char* chosen = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (chosen && *chosen)
        return chosen;
    const char* folder = std::getenv("XDG_RUNTIME_DIR");
    return folder && *folder ? std::string("unix:path=") + folder + "/bus" : "";
}

int millisecondsLeft(sd_bus* bus) {
    uint64_t due = UINT64_MAX;
    if (sd_bus_get_timeout(bus, &due) < 0 || due == UINT64_MAX)
        return -1;
    const auto now = static_cast<uint64_t>(g_get_monotonic_time());
    return due <= now ? 0 : static_cast<int>(std::min<uint64_t>((due - now + 999) / 1000, G_MAXINT));
}

int connectTo(const std::string& where, sd_bus** bus) {
    int result = sd_bus_new(bus);
    if (result >= 0)
        result = sd_bus_set_address(*bus, where.c_str());
    if (result >= 0)
        result = sd_bus_set_bus_client(*bus, 1);
    // No call carries a descriptor; refusing them keeps applications from filling the table.
    if (result >= 0)
        result = sd_bus_negotiate_fds(*bus, 0);
    if (result >= 0)
        result = sd_bus_start(*bus);
    const char* name = nullptr;
    return result < 0 ? result : sd_bus_get_unique_name(*bus, &name);
}

int onAnswer(sd_bus_message* answer, void* data, sd_bus_error*) {
    // It may reset the slot, which owns it.
    const SessionBus::Answered answered = std::move(*static_cast<SessionBus::Answered*>(data));
    busRunGuarded("an answer", [&] { answered(answer); });
    return 0;
}

void forget(void* data) {
    delete static_cast<SessionBus::Answered*>(data);
}

}  // namespace

gboolean SessionBus::prepare(GSource* source, gint* timeout) {
    auto* self = reinterpret_cast<Source*>(source);
    const int events = sd_bus_get_events(self->owner->m_bus);
    self->descriptor.events = static_cast<gushort>(std::max(events, 0));
    *timeout = events < 0 ? 0 : millisecondsLeft(self->owner->m_bus);
    return *timeout == 0;
}

gboolean SessionBus::check(GSource* source) {
    auto* self = reinterpret_cast<Source*>(source);
    return self->descriptor.revents != 0 || millisecondsLeft(self->owner->m_bus) == 0;
}

gboolean SessionBus::dispatch(GSource* source, GSourceFunc, gpointer) {
    SessionBus* owner = reinterpret_cast<Source*>(source)->owner;
    int result = 1;
    for (int i = 0; i < kMessagesPerTurn && result > 0; ++i)
        result = sd_bus_process(owner->m_bus, nullptr);
    // A message for which memory or the queue did not suffice is lost, the connection is not.
    if (result >= 0 || ((result == -ENOBUFS || result == -ENOMEM) && sd_bus_is_open(owner->m_bus) > 0))
        return G_SOURCE_CONTINUE;
    if (owner->onLost)
        owner->onLost();
    return G_SOURCE_REMOVE;
}

bool SessionBus::open(std::string& problem) {
    const std::string where = address();
    if (where.empty()) {
        problem = "there is no session bus: neither DBUS_SESSION_BUS_ADDRESS nor XDG_RUNTIME_DIR is set";
        return false;
    }
    const int result = connectTo(where, &m_bus);
    if (result < 0) {
        problem = "cannot connect to the session bus at " + where + ": " + std::strerror(-result);
        m_bus = sd_bus_unref(m_bus);
        return false;
    }
    attach();
    return true;
}

void SessionBus::attach() {
    static GSourceFuncs functions = {prepare, check, dispatch, nullptr, nullptr, nullptr};
    m_source = g_source_new(&functions, sizeof(Source));
    auto* self = reinterpret_cast<Source*>(m_source);
    self->owner = this;
    self->descriptor = {sd_bus_get_fd(m_bus), 0, 0};
    g_source_add_poll(m_source, &self->descriptor);
    g_source_set_name(m_source, "session bus");
    g_source_attach(m_source, nullptr);
}

SessionBus::~SessionBus() {
    if (m_source) {
        g_source_destroy(m_source);
        g_source_unref(m_source);
    }
    sd_bus_flush_close_unref(m_bus);
}

bool SessionBus::call(sd_bus_message* message, unsigned seconds, Slot& slot, Answered answered) {
    auto kept = std::make_unique<Answered>(std::move(answered));
    sd_bus_slot* pending = nullptr;
    if (sd_bus_call_async(m_bus, &pending, message, onAnswer, kept.get(), seconds * kMicroseconds) < 0)
        return false;
    sd_bus_slot_set_destroy_callback(pending, forget);
    kept.release();  // NOLINT(bugprone-unused-return-value): the slot owns it
    slot.reset(pending);
    return true;
}

bool SessionBus::askDaemon(const char* method, const char* argument, Slot& slot, Answered answered) {
    Wire message;
    sd_bus_message_new_method_call(m_bus, Receive(message), kBusDaemon, kBusDaemonPath, kBusDaemon, method);
    if (!message || (argument && sd_bus_message_append(message.get(), "s", argument) < 0))
        return false;
    return call(message.get(), kDaemonSeconds, slot, std::move(answered));
}
