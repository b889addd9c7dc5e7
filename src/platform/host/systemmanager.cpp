// SPDX-License-Identifier: GPL-3.0-only
// The system manager service. The signal is subscribed to before the state is queried, so that the end of the
// boot in between is not missed; the signal only triggers a query, since any process can send one.
#include "platform/host/systemmanager.h"

#include "platform/host/log.h"

namespace {

constexpr char kSystemd[] = "org.freedesktop.systemd1";
constexpr char kPath[] = "/org/freedesktop/systemd1";
constexpr char kManager[] = "org.freedesktop.systemd1.Manager";

const char* bootPayload(bool finished) {
    return finished ? "{\"returnValue\":true,\"finished\":true}"
                    : "{\"returnValue\":true,\"finished\":false}";
}

}  // namespace

SystemManager::SystemManager(SystemBus& system, bool systemdRuns)
    : m_system(system), m_finished(!systemdRuns), m_systemd(kSystemd) {}

SystemManager::~SystemManager() {
    sd_bus_slot_unref(m_match);
    sd_bus_slot_unref(m_query);
}

StartResult SystemManager::start(GMainLoop* loop) {
    static constexpr QSMethod methods[] = {{.name = "getBootStatus", .handler = onGetBootStatus}, {}};
    const StartResult result = m_bus.take("com.zelt.systemmanager");
    if (result != StartResult::Started)
        return result;
    if (!m_finished && !askSystemd()) {
        logLine("systemd cannot be queried about the boot; assuming that it has finished");
        m_finished = true;
    }
    return m_bus.serve("/", methods, this) && m_bus.attach(loop) ? StartResult::Started : StartResult::Failed;
}

bool SystemManager::askSystemd() {
    sd_bus* bus = m_system.get();
    return bus && m_systemd.start(bus, nullptr, onMatched) >= 0 &&
           sd_bus_match_signal_async(bus, &m_match, kSystemd, kPath, kManager, "StartupFinished",
                                     onStartupFinished, onMatched, this) >= 0 &&
           sd_bus_call_method_async(bus, nullptr, kSystemd, kPath, kManager, "Subscribe", onMatched, this,
                                    "") >= 0 &&
           askFinishTime();
}

// One query at a time, however many signals come.
bool SystemManager::askFinishTime() {
    m_askAgain = m_query != nullptr;
    return m_askAgain || sd_bus_call_method_async(m_system.get(), &m_query, kSystemd, kPath,
                                                  "org.freedesktop.DBus.Properties", "Get", onFinishTime,
                                                  this, "ss", kManager, "FinishTimestampMonotonic") >= 0;
}

void SystemManager::finish() {
    if (m_finished)
        return;
    m_finished = true;
    m_bus.post("/", "getBootStatus", bootPayload(true));
}

// The signal only triggers a query.
int SystemManager::onStartupFinished(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto* self = static_cast<SystemManager*>(data);
    if (!self->m_finished && self->m_systemd.sent(signal))
        self->askFinishTime();
    return 0;
}

int SystemManager::onMatched(sd_bus_message* reply, void*, sd_bus_error*) {
    if (const sd_bus_error* error = sd_bus_message_get_error(reply))
        logLine("systemd does not report the end of the boot: %s", error->message);
    return 0;
}

int SystemManager::onFinishTime(sd_bus_message* reply, void* data, sd_bus_error*) {
    auto* self = static_cast<SystemManager*>(data);
    uint64_t finished = 0;
    self->m_query = sd_bus_slot_unref(self->m_query);
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
        logLine("systemd cannot be queried about the boot: %s; assuming that it has finished",
                error->message);
        self->finish();
    } else if (sd_bus_message_read(reply, "v", "t", &finished) >= 0 && finished > 0) {
        self->finish();
    } else if (self->m_askAgain) {
        self->askFinishTime();
    }
    return 0;
}

bool SystemManager::onGetBootStatus(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<SystemManager*>(context);
    self->m_bus.replyAndSubscribe(message, bootPayload(self->m_finished));
    return true;
}
