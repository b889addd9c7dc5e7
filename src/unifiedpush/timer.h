// SPDX-License-Identifier: GPL-3.0-only
// One moment on the main loop at which something is done. It ends with the object.
#pragma once

#include <glib.h>

#include <functional>
#include <utility>

class Timer {
  public:
    Timer() = default;
    ~Timer() { stop(); }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Replaces the moment that was set before. `due` may start the timer again, and may destroy it.
    void start(int64_t milliseconds, std::function<void()> due) {
        stop();
        m_due = std::move(due);
        m_source = g_timeout_add(static_cast<guint>(milliseconds), onDue, this);
    }
    void stop() {
        if (m_source)
            g_source_remove(std::exchange(m_source, 0));
    }
    bool isRunning() const { return m_source != 0; }

  private:
    static gboolean onDue(gpointer data) {
        auto* self = static_cast<Timer*>(data);
        self->m_source = 0;
        const std::function<void()> due = std::move(self->m_due);
        due();
        return G_SOURCE_REMOVE;
    }

    guint m_source = 0;
    std::function<void()> m_due;
};
