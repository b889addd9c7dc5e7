// SPDX-License-Identifier: GPL-3.0-only
// Which of the registered applications are on the session bus, and which the bus can start. Followed by the
// daemon's signals; nothing is asked again while nothing changes.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>

#include "unifiedpush/sessionbus.h"

class Names {
  public:
    enum class State {
        Unknown,    // the daemon has not answered yet
        Running,    // the name has an owner
        Startable,  // it has none, and the daemon can start one
        Absent      // neither
    };

    explicit Names(SessionBus& bus) : m_bus(bus) {}

    // Asks for the names that can be started, and follows them.
    void start();
    // From now on until `unfollow`, changes of the name are reported. Nothing happens for a name that is followed.
    void follow(const std::string& name);
    void unfollow(const std::string& name) { m_names.erase(name); }
    State stateOf(const std::string& name) const;
    // Asks again what can be started.
    void refresh();
    // A followed name is known for the first time, appears, leaves, or can be started or no longer.
    std::function<void(const std::string& name)> onChange;

  private:
    struct Name {
        Names* names = nullptr;
        std::string name;
        bool known = false;
        bool running = false;
        Slot changes;
        Slot query;
    };
    static int onOwnerChanged(sd_bus_message* signal, void* data, sd_bus_error*);
    static int onStartableChanged(sd_bus_message* signal, void* data, sd_bus_error*);
    void note(Name& name, bool running);
    void takeStartable(sd_bus_message* answer);

    SessionBus& m_bus;
    std::map<std::string, Name> m_names;
    bool m_startableKnown = false;
    std::set<std::string> m_startable;
    Slot m_startableChanges;
    Slot m_startableQuery;
};
