// SPDX-License-Identifier: GPL-3.0-only
// The event journal that all fakes share: what the service did to the bus, the store and the
// server, in order.
//
// One test process has one journal; nothing of it outlives the process. The forms of the events:
//   bus.reply METHOD PAYLOAD          bus.respond METHOD PAYLOAD      bus.call URI PAYLOAD
//   bus.push KEY PAYLOAD              bus.post private|public CATEGORY METHOD PAYLOAD
//   bus.subscribe private|public KEY  bus.unsubscribe private|public KEY   (KEY is CATEGORY+METHOD for the
//                                      subscriptions of a method, such as "/+connectStatus")
//   prefs.set APP KEY VALUE   prefs.remove APP KEY   prefs.commit APP   prefs.drop APP
//   xmpp.send XML
#pragma once

#include <string>
#include <vector>

class Journal {
  public:
    void add(std::string event) { m_events.push_back(std::move(event)); }
    const std::vector<std::string>& events() const { return m_events; }
    // Returns the events of the journal and clears it.
    std::vector<std::string> take();
    // The events that begin with `prefix`, such as "bus." or "prefs.commit"; the journal keeps them.
    std::vector<std::string> eventsOf(const std::string& prefix) const;

  private:
    std::vector<std::string> m_events;
};

Journal& journal();
