// SPDX-License-Identifier: GPL-3.0-only
// The kernel timers behind the alarms, and the detection of a suspend or a step of the clock. Nothing polls:
// the kernel keeps the time.
#pragma once

#include <glib.h>

#include <cstdint>
#include <functional>

class AlarmClock {
  public:
    using OnExpiry = std::function<void()>;

    explicit AlarmClock(OnExpiry onExpiry) : m_onExpiry(std::move(onExpiry)) {}
    ~AlarmClock();
    AlarmClock(const AlarmClock&) = delete;
    AlarmClock& operator=(const AlarmClock&) = delete;

    // False, logged, when no timer can be created.
    bool open();
    // Fires at the deadline, in microseconds of the boot-time clock; -1 never fires. `wakeup` selects the
    // timer that wakes the machine, where the process may use it.
    void arm(bool wakeup, int64_t deadline);

  private:
    struct Timer {
        int descriptor = -1;
        guint source = 0;
        int64_t deadline = -1;
    };
    bool openTimer(Timer& timer, int clock);
    static gboolean onExpired(gint descriptor, GIOCondition condition, gpointer data);

    OnExpiry m_onExpiry;
    Timer m_timers[2];  // ordinary, waking
};

// Calls back after a resume from suspend or a step of the wall clock.
class ResumeWatch {
  public:
    explicit ResumeWatch(std::function<void()> onResume) : m_onResume(std::move(onResume)) {}
    ~ResumeWatch();
    ResumeWatch(const ResumeWatch&) = delete;
    ResumeWatch& operator=(const ResumeWatch&) = delete;
    void open();

  private:
    void arm();
    static gboolean onReadable(gint descriptor, GIOCondition condition, gpointer data);

    std::function<void()> m_onResume;
    int m_descriptor = -1;
    guint m_source = 0;
};
