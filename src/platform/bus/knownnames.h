// SPDX-License-Identifier: GPL-3.0-only
// What a service's private connection knows about the other services: which are running and which the daemon
// can start. Queried when the connection opens and followed from then on, always asynchronously.
#pragma once

#include <map>
#include <set>
#include <string>

#include "platform/bus/qs.h"
#include "platform/bus/slot.h"

class KnownNames {
  public:
    // Follows the platform's names; `handle` owns this object.
    void start(QSHandle* handle);
    void stop();
    // A server-status watch reports that this name has an owner or not.
    void note(const std::string& name, bool there);
    // True when the name is known to be neither owned nor startable; false while nothing is known.
    bool isDown(const std::string& name) const;
    // Queries the startable names again: a service may have been installed since.
    void refreshStartable();

  private:
    static int onInstalled(sd_bus_message* reply, void* self, sd_bus_error*);
    static int onOwned(sd_bus_message* reply, void* self, sd_bus_error*);
    static int onStartable(sd_bus_message* reply, void* self, sd_bus_error*);
    static int onChanged(sd_bus_message* signal, void* self, sd_bus_error*);

    QSHandle* m_handle = nullptr;
    bool m_followed = false;        // the daemon reports changes of the platform's names
    bool m_ownedKnown = false;      // m_there holds every platform name that has an owner
    bool m_startableKnown = false;  // m_startable is complete
    std::map<std::string, bool> m_there;
    std::set<std::string> m_startable;
    Slot m_changes;
    Slot m_ownedQuery;
    Slot m_startableQuery;
};
