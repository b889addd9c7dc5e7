// SPDX-License-Identifier: GPL-3.0-only
// Follows whether one bus name has an owner, asynchronously.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/bus/qs.h"
#include "platform/bus/slot.h"

class NameWatch : public std::enable_shared_from_this<NameWatch> {
  public:
    using Report = std::function<void(bool there)>;

    // Reports the state when the daemon has replied, then every change. A change from one owner to another is
    // reported as a loss followed by a gain. Null when the connection fails.
    static std::shared_ptr<NameWatch> start(QSHandle* handle, const std::string& name, Report report);
    // Ends the reports; a report may call it.
    void stop();

  private:
    static int onChanged(sd_bus_message* signal, void* self, sd_bus_error*);
    static int onInstalled(sd_bus_message* reply, void* self, sd_bus_error*);
    static int onAsked(sd_bus_message* reply, void* self, sd_bus_error*);
    void tell(bool there);

    std::string m_name;
    Report m_report;
    bool m_known = false;
    bool m_there = false;
    Slot m_changes;
    Slot m_query;
};
