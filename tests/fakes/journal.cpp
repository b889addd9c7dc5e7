// SPDX-License-Identifier: GPL-3.0-only
// The event journal that all fakes share.
#include "tests/fakes/journal.h"

#include <utility>

std::vector<std::string> Journal::take() {
    return std::exchange(m_events, {});
}

std::vector<std::string> Journal::eventsOf(const std::string& prefix) const {
    std::vector<std::string> found;
    for (const std::string& event : m_events)
        if (event.starts_with(prefix))
            found.push_back(event);
    return found;
}

Journal& journal() {
    static Journal instance;
    return instance;
}
