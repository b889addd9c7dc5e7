// SPDX-License-Identifier: GPL-3.0-only
// The power service. A new alarm and a cleared one reach the disk before the answer. A client that keeps
// postponing one alarm (a keep-alive, at every stanza) is written a few seconds later: after a crash its
// alarm fires that much early, which costs less than a disk sync for each stanza.
#include "platform/host/power.h"

#include <glib/gstdio.h>

#include "platform/bus/qsraii.h"
#include "platform/host/log.h"
#include "util/jsonref.h"

namespace {

constexpr guint kSaveDelaySeconds = 5;
constexpr int64_t kLongestActivityMs = 15 * 60 * 1000;

}  // namespace

Power::Power(const HostConfig& config, SystemBus& system)
    : m_file(config.stateDir + "/alarms.json"), m_clock([this] { ring(); }), m_awake(system) {}

Power::~Power() {
    if (m_saveTimer) {
        g_source_remove(m_saveTimer);
        save();
    }
}

StartResult Power::start(GMainLoop* loop) {
    static constexpr QSMethod timeouts[] = {
        {.name = "set", .handler = onSet}, {.name = "clear", .handler = onClear}, {}};
    static constexpr QSMethod activities[] = {{.name = "activityStart", .handler = onActivityStart}, {}};
    const StartResult result = m_bus.take("com.zelt.power");
    if (result != StartResult::Started)
        return result;
    const bool served = m_clock.open() && m_bus.serve("/timeout", timeouts, this) &&
                        m_bus.serve("/com/zelt/power", activities, this) && m_bus.attach(loop);
    if (!served)
        return StartResult::Failed;
    load();
    armClock();
    return StartResult::Started;
}

void Power::load() {
    gchar* text = nullptr;
    if (!g_file_get_contents(m_file.c_str(), &text, nullptr, nullptr))
        return;
    int dropped = 0;
    const bool usable = m_alarms.restore(text, readClocks(), dropped);
    g_free(text);
    if (dropped)
        logLine("%d alarms in %s are invalid and were dropped", dropped, m_file.c_str());
    if (usable)
        return;
    const std::string aside = m_file + ".damaged";
    g_rename(m_file.c_str(), aside.c_str());
    logLine("%s is damaged and was moved to %s; its alarms are lost", m_file.c_str(), aside.c_str());
}

bool Power::save() {
    const std::string text = m_alarms.serialise(readClocks());
    GError* error = nullptr;
    auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    if (g_file_set_contents_full(m_file.c_str(), text.c_str(), static_cast<gssize>(text.size()), flags, 0600,
                                 &error))
        return true;
    logLine("cannot save the alarms: %s; they will not survive a restart", error->message);
    g_error_free(error);
    return false;
}

void Power::saveSoon() {
    if (!m_saveTimer)
        m_saveTimer = g_timeout_add_seconds(kSaveDelaySeconds, onSaveTime, this);
}

gboolean Power::onSaveTime(gpointer data) {
    auto* self = static_cast<Power*>(data);
    self->m_saveTimer = 0;
    self->save();
    return G_SOURCE_REMOVE;
}

void Power::armClock() {
    m_clock.arm(false, m_alarms.next(false));
    m_clock.arm(true, m_alarms.next(true));
}

// The call comes before the removal on disk: a crash in between fires an alarm twice rather than never.
void Power::ring() {
    const std::vector<Alarm> due = m_alarms.takeDue(readClocks().boottime);
    for (const Alarm& alarm : due)
        call(alarm);
    if (!due.empty())
        save();
    armClock();
}

void Power::call(const Alarm& alarm) {
    BusError error;
    if (!QSCall(m_bus.handle(), alarm.uri.c_str(), alarm.params.c_str(), nullptr, nullptr, nullptr, error))
        logLine("alarm %s could not call %s: %s", alarm.key.c_str(), alarm.uri.c_str(), error.message());
}

bool Power::onSet(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<Power*>(context);
    Alarm alarm;
    std::string problem;
    if (!parseAlarm(QSMessageGetPayload(message), alarm, problem)) {
        self->m_bus.refuse(message, problem);
        return true;
    }
    alarm.deadline = readClocks().boottime + alarm.seconds * 1000000;
    const bool fresh = self->m_alarms.set(alarm);
    self->armClock();
    if (!fresh)
        self->saveSoon();
    else if (!self->save())
        logLine("alarm %s is set in memory only", alarm.key.c_str());
    self->m_bus.accept(message);
    return true;
}

bool Power::onClear(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<Power*>(context);
    const JsonRef object = parseJson(QSMessageGetPayload(message));
    json_object* key = jsonMember(object.get(), "key");
    if (!json_object_is_type(key, json_type_string)) {
        self->m_bus.refuse(message, "\"key\" is missing: the text that names the alarm");
        return true;
    }
    // Clearing an alarm that does not exist succeeds.
    if (self->m_alarms.clear(json_object_get_string(key))) {
        self->save();
        self->armClock();
    }
    self->m_bus.accept(message);
    return true;
}

bool Power::onActivityStart(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<Power*>(context);
    const JsonRef object = parseJson(QSMessageGetPayload(message));
    json_object* duration = jsonMember(object.get(), "duration_ms");
    const int64_t milliseconds =
        json_object_is_type(duration, json_type_int) ? json_object_get_int64(duration) : 0;
    if (milliseconds < 1 || milliseconds > kLongestActivityMs) {
        self->m_bus.refuse(message,
                           "\"duration_ms\" must be a whole number of milliseconds from 1 to 900000");
        return true;
    }
    self->m_awake.hold(static_cast<unsigned>(milliseconds));
    self->m_bus.accept(message);
    return true;
}
