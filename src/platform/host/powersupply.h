// SPDX-License-Identifier: GPL-3.0-only
// Whether the machine runs on mains power, according to the kernel. Keeps nothing: the state is read when it
// is asked for, and changes are watched only while somebody waits for one, since a battery that is in use
// reports itself every few seconds.
#pragma once

#include <glib.h>

#include <functional>
#include <string>

// A descriptor with the kernel's notices of devices; -1, logged, on failure.
int openDeviceNotices();

class PowerSupply {
  public:
    explicit PowerSupply(std::string folder = "/sys/class/power_supply", int (*open)() = openDeviceNotices)
        : m_folder(std::move(folder)), m_open(open) {}
    ~PowerSupply() { unwatch(); }
    PowerSupply(const PowerSupply&) = delete;
    PowerSupply& operator=(const PowerSupply&) = delete;

    // True for a machine that reports no supply at all.
    bool onMains() const;
    // Calls `onChange` whenever a supply may have changed, until `unwatch`.
    void watch(std::function<void()> onChange);
    void unwatch();

  private:
    static gboolean onNotice(gint descriptor, GIOCondition condition, gpointer data);

    std::string m_folder;
    int (*m_open)();
    std::function<void()> m_onChange;
    int m_notices = -1;
    guint m_source = 0;
};
