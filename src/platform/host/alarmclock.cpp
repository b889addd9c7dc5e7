// SPDX-License-Identifier: GPL-3.0-only
// timerfd on the boot-time clocks.
#include "platform/host/alarmclock.h"

#include <glib-unix.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/host/log.h"

namespace {

itimerspec absolute(int64_t microseconds) {
    itimerspec spec = {};
    spec.it_value.tv_sec = microseconds / 1000000;
    spec.it_value.tv_nsec = microseconds % 1000000 * 1000;
    return spec;
}

}  // namespace

AlarmClock::~AlarmClock() {
    for (const Timer& timer : m_timers) {
        if (timer.source)
            g_source_remove(timer.source);
        if (timer.descriptor >= 0)
            close(timer.descriptor);
    }
}

bool AlarmClock::openTimer(Timer& timer, int clock) {
    timer.descriptor = timerfd_create(clock, TFD_NONBLOCK | TFD_CLOEXEC);
    if (timer.descriptor < 0)
        return false;
    timer.source = g_unix_fd_add(timer.descriptor, G_IO_IN, onExpired, this);
    return true;
}

bool AlarmClock::open() {
    if (!openTimer(m_timers[0], CLOCK_BOOTTIME)) {
        logLine("cannot create a timer on the boot-time clock: %s", strerror(errno));
        return false;
    }
    if (openTimer(m_timers[1], CLOCK_BOOTTIME_ALARM))
        return true;
    logLine(
        "alarms cannot wake this machine from suspend (%s) and fire when it wakes; CAP_WAKE_ALARM is missing",
        strerror(errno));
    return openTimer(m_timers[1], CLOCK_BOOTTIME);
}

void AlarmClock::arm(bool wakeup, int64_t deadline) {
    Timer& timer = m_timers[wakeup];
    if (timer.deadline == deadline || timer.descriptor < 0)
        return;
    timer.deadline = deadline;
    // A time of 0 would disarm the timer; one in the past fires immediately.
    const itimerspec spec = deadline < 0 ? itimerspec{} : absolute(std::max<int64_t>(deadline, 1));
    if (timerfd_settime(timer.descriptor, TFD_TIMER_ABSTIME, &spec, nullptr) < 0)
        logLine("cannot set a timer: %s", strerror(errno));
}

gboolean AlarmClock::onExpired(gint descriptor, GIOCondition, gpointer data) {
    auto* self = static_cast<AlarmClock*>(data);
    uint64_t times = 0;
    if (read(descriptor, &times, sizeof times) < 0)
        return G_SOURCE_CONTINUE;
    for (Timer& timer : self->m_timers) {
        if (timer.descriptor == descriptor)
            timer.deadline = -1;
    }
    self->m_onExpiry();
    return G_SOURCE_CONTINUE;
}

ResumeWatch::~ResumeWatch() {
    if (m_source)
        g_source_remove(m_source);
    if (m_descriptor >= 0)
        close(m_descriptor);
}

void ResumeWatch::open() {
    m_descriptor = timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC);
    if (m_descriptor < 0)
        return;
    m_source = g_unix_fd_add(m_descriptor, G_IO_IN, onReadable, this);
    arm();
}

// The kernel cancels this timer, which never expires, whenever the wall clock jumps, as it does at a resume.
void ResumeWatch::arm() {
    itimerspec never = {};
    never.it_value.tv_sec = static_cast<time_t>(G_MAXINT32) * 4;
    timerfd_settime(m_descriptor, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr);
}

gboolean ResumeWatch::onReadable(gint descriptor, GIOCondition, gpointer data) {
    auto* self = static_cast<ResumeWatch*>(data);
    uint64_t times = 0;
    if (read(descriptor, &times, sizeof times) < 0 && errno != ECANCELED)
        return G_SOURCE_CONTINUE;
    self->arm();
    self->m_onResume();
    return G_SOURCE_CONTINUE;
}
