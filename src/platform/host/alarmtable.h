// SPDX-License-Identifier: GPL-3.0-only
// The alarms that clients have set, by key, and their form on disk (alarms.json below the state folder).
//
// A deadline is kept on the boot-time clock, which runs on during suspend and never jumps. The file also
// holds the deadline on the wall clock, which is used only after a reboot, when the boot-time clock starts
// again at zero.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct Alarm {
    std::string key;
    std::string uri;
    std::string params = "{}";  // the payload of the call, a JSON text
    bool wakeup = false;        // wakes the machine from suspend
    int64_t seconds = 0;        // the requested delay
    int64_t deadline = 0;       // microseconds of the boot-time clock
};

// Both clocks at one moment, in microseconds, and which boot the first belongs to.
struct ClockReading {
    int64_t boottime = 0;
    int64_t wallclock = 0;
    std::string bootId;
};
ClockReading readClocks();

// "HH:MM:SS", two digits each, minutes and seconds below 60.
bool parseDelay(const std::string& text, int64_t& seconds);
// Reads the payload of `set`; false with the reason.
bool parseAlarm(const char* payload, Alarm& alarm, std::string& problem);

class AlarmTable {
  public:
    // True when the key is new.
    bool set(const Alarm& alarm);
    bool clear(const std::string& key);
    // Removes and returns the alarms that are due, the earliest first.
    std::vector<Alarm> takeDue(int64_t boottime);
    // The next deadline of alarms that wake (or do not wake) the machine; -1 when there is none.
    int64_t next(bool wakeup) const;
    bool empty() const { return m_alarms.empty(); }

    std::string serialise(const ClockReading& now) const;
    // Replaces the table; false, without a change, when the text is not an alarm file. Entries that cannot
    // be used are counted in `dropped`.
    bool restore(const std::string& text, const ClockReading& now, int& dropped);

  private:
    std::map<std::string, Alarm> m_alarms;
};
