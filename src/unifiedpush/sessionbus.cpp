// SPDX-License-Identifier: GPL-3.0-only
#include "unifiedpush/sessionbus.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "platform/bus/daemon.h"
#include "platform/bus/guard.h"

namespace {

constexpr unsigned kDaemonSeconds = 25;
constexpr uint64_t kMicroseconds = 1'000'000;

std::string address() {
    const char* chosen = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (chosen && *chosen)
        return chosen;
    const char* folder = std::getenv("XDG_RUNTIME_DIR");
    return folder && *folder ? std::string("unix:path=") + folder + "/bus" : "";
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
    m_source = std::make_unique<SdBusSource>(m_bus, [this](int) {
        if (onLost)
            onLost();
    });
    return true;
}

SessionBus::~SessionBus() {
    m_source.reset();
    sd_bus_flush_close_unref(m_bus);
}

bool SessionBus::call(sd_bus_message* message, unsigned seconds, Slot& slot, Answered answered) {
    auto kept = std::make_unique<Answered>(std::move(answered));
    sd_bus_slot* pending = nullptr;
    if (sd_bus_call_async(m_bus, &pending, message, onAnswer, kept.get(), seconds * kMicroseconds) < 0)
        return false;  // uncovered: a call is sent, or the bus is lost
    sd_bus_slot_set_destroy_callback(pending, forget);
    kept.release();  // NOLINT(bugprone-unused-return-value): the slot owns it
    slot.reset(pending);
    return true;
}

bool SessionBus::askDaemon(const char* method, const char* argument, Slot& slot, Answered answered) {
    Wire message;
    sd_bus_message_new_method_call(m_bus, Receive(message), kBusDaemon, kBusDaemonPath, kBusDaemon, method);
    if (!message || (argument && sd_bus_message_append(message.get(), "s", argument) < 0))
        return false;  // uncovered: a call of fixed texts
    return call(message.get(), kDaemonSeconds, slot, std::move(answered));
}
