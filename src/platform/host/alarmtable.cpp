// SPDX-License-Identifier: GPL-3.0-only
// Alarms in memory and as text. Touches no file and no timer.
#include "platform/host/alarmtable.h"

#include <time.h>

#include <algorithm>
#include <fstream>

#include "util/jsonref.h"

namespace {

constexpr int64_t kSecond = 1000000;

int64_t readClock(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return now.tv_sec * kSecond + now.tv_nsec / 1000;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string textOf(json_object* object, const char* key) {
    json_object* value = jsonMember(object, key);
    return json_object_is_type(value, json_type_string) ? json_object_get_string(value) : "";
}

int64_t numberOf(json_object* object, const char* key) {
    json_object* value = jsonMember(object, key);
    return json_object_is_type(value, json_type_int) ? json_object_get_int64(value) : -1;
}

// Clients give the payload of the call as a JSON text; an object is accepted as well.
bool readParams(json_object* object, std::string& params) {
    json_object* value = jsonMember(object, "params");
    if (!value)
        return true;
    if (json_object_is_type(value, json_type_string))
        params = json_object_get_string(value);
    else
        params = jsonLine(value);
    return parseJson(params.c_str()) != nullptr;
}

bool isCallable(const std::string& uri) {
    const bool scheme = uri.starts_with("zelt://") || uri.starts_with("quor://");
    return scheme && uri.find('/', 7) != std::string::npos && uri.back() != '/';
}

// The rest of a delay, by the clock that is valid.
int64_t remaining(json_object* entry, const Alarm& alarm, const ClockReading& now, bool sameBoot) {
    const int64_t left = sameBoot ? numberOf(entry, "boottime_us") - now.boottime
                                  : numberOf(entry, "wallclock_us") - now.wallclock;
    // A wall clock that was wrong must not postpone an alarm beyond its whole delay.
    return std::clamp<int64_t>(left, 0, alarm.seconds * kSecond);
}

}  // namespace

ClockReading readClocks() {
    ClockReading now;
    now.boottime = readClock(CLOCK_BOOTTIME);
    now.wallclock = readClock(CLOCK_REALTIME);
    std::ifstream("/proc/sys/kernel/random/boot_id") >> now.bootId;
    return now;
}

bool parseDelay(const std::string& text, int64_t& seconds) {
    if (text.size() != 8 || text[2] != ':' || text[5] != ':')
        return false;
    int fields[3] = {};
    for (int i = 0; i < 3; i++) {
        const char tens = text[i * 3];
        const char ones = text[i * 3 + 1];
        if (!isDigit(tens) || !isDigit(ones))
            return false;
        fields[i] = (tens - '0') * 10 + (ones - '0');
    }
    if (fields[1] > 59 || fields[2] > 59)
        return false;
    seconds = fields[0] * 3600 + fields[1] * 60 + fields[2];
    return true;
}

bool parseAlarm(const char* payload, Alarm& alarm, std::string& problem) {
    const JsonRef object = parseJson(payload);
    if (!json_object_is_type(object.get(), json_type_object)) {
        problem = "the payload is not a JSON object";
        return false;
    }
    alarm.key = textOf(object.get(), "key");
    alarm.uri = textOf(object.get(), "uri");
    alarm.wakeup = json_object_get_boolean(jsonMember(object.get(), "wakeup"));
    if (alarm.key.empty())
        problem = "\"key\" is missing: a text that names the alarm";
    else if (!isCallable(alarm.uri))
        problem = "\"uri\" must be the method to call, zelt://SERVICE/METHOD";
    else if (!parseDelay(textOf(object.get(), "in"), alarm.seconds))
        problem = "\"in\" must be hours:minutes:seconds with two digits each, such as \"00:25:00\"";
    else if (!readParams(object.get(), alarm.params))
        problem = "\"params\" must be a JSON text, the payload of the call";
    return problem.empty();
}

bool AlarmTable::set(const Alarm& alarm) {
    return m_alarms.insert_or_assign(alarm.key, alarm).second;
}

bool AlarmTable::clear(const std::string& key) {
    return m_alarms.erase(key) > 0;
}

std::vector<Alarm> AlarmTable::takeDue(int64_t boottime) {
    std::vector<Alarm> due;
    for (auto it = m_alarms.begin(); it != m_alarms.end();) {
        if (it->second.deadline > boottime) {
            ++it;
            continue;
        }
        due.push_back(std::move(it->second));
        it = m_alarms.erase(it);
    }
    std::stable_sort(due.begin(), due.end(),
                     [](const Alarm& a, const Alarm& b) { return a.deadline < b.deadline; });
    return due;
}

int64_t AlarmTable::next(bool wakeup) const {
    int64_t next = -1;
    for (const auto& [key, alarm] : m_alarms) {
        if (alarm.wakeup == wakeup && (next < 0 || alarm.deadline < next))
            next = alarm.deadline;
    }
    return next;
}

std::string AlarmTable::serialise(const ClockReading& now) const {
    JsonArray list;
    for (const auto& [key, alarm] : m_alarms) {
        list.add(JsonObject()
                     .set("key", key)
                     .set("uri", alarm.uri)
                     .set("params", alarm.params)
                     .set("wakeup", alarm.wakeup)
                     .set("seconds", alarm.seconds)
                     .set("boottime_us", alarm.deadline)
                     .set("wallclock_us", now.wallclock + alarm.deadline - now.boottime)
                     .release());
    }
    JsonObject file;
    file.set("boot", now.bootId).set("alarms", list.release());
    return json_object_to_json_string_ext(file.get(),
                                          JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE);
}

bool AlarmTable::restore(const std::string& text, const ClockReading& now, int& dropped) {
    const JsonRef file = parseJson(text.c_str());
    json_object* list = jsonMember(file.get(), "alarms");
    if (!json_object_is_type(list, json_type_array))
        return false;
    const bool sameBoot = textOf(file.get(), "boot") == now.bootId && !now.bootId.empty();
    std::map<std::string, Alarm> alarms;
    for (size_t i = 0; i < json_object_array_length(list); i++) {
        json_object* entry = json_object_array_get_idx(list, i);
        Alarm alarm;
        alarm.key = textOf(entry, "key");
        alarm.uri = textOf(entry, "uri");
        alarm.wakeup = json_object_get_boolean(jsonMember(entry, "wakeup"));
        alarm.seconds = numberOf(entry, "seconds");
        if (alarm.key.empty() || !isCallable(alarm.uri) || alarm.seconds < 0 ||
            !readParams(entry, alarm.params)) {
            dropped++;
            continue;
        }
        alarm.deadline = now.boottime + remaining(entry, alarm, now, sameBoot);
        alarms[alarm.key] = alarm;
    }
    m_alarms = std::move(alarms);
    return true;
}
