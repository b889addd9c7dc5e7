// SPDX-License-Identifier: GPL-3.0-only
// How many applications the bus daemon is made to start at once. A start that takes long gives up its place,
// so that applications that hang do not keep others waiting.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "unifiedpush/timer.h"

class Starts {
  public:
    static constexpr std::size_t kAtOnce = 4;
    static constexpr int64_t kPatience = 5000;  // milliseconds until a place is free again

    // There is a place for this one now; called in the order of the names.
    std::function<void(const std::string& service)> onPlace;

    // False when all places are taken: `onPlace` follows.
    bool take(const std::string& service) {
        if (m_places.contains(service))
            return true;
        if (m_places.size() >= kAtOnce) {
            m_waiting.insert(service);
            return false;
        }
        m_waiting.erase(service);
        m_places[service].start(kPatience, [this, service] { release(service); });
        return true;
    }
    // It has started, has failed to, or is not wanted any longer.
    void release(const std::string& service) {
        m_waiting.erase(service);
        if (m_places.erase(service) == 0)
            return;
        const std::set<std::string> waiting = std::exchange(m_waiting, {});
        for (const std::string& next : waiting)
            onPlace(next);
    }

  private:
    std::map<std::string, Timer> m_places;
    std::set<std::string> m_waiting;
};
