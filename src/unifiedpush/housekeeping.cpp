// SPDX-License-Identifier: GPL-3.0-only
// What nobody needs any longer goes after 14 days: registrations of an application that cannot be reached,
// endpoints that no registration is known for, and those whose token was registered again with another key.
// There is a timer only while there is something of the kind.
#include <algorithm>
#include <set>
#include <vector>

#include "unifiedpush/bridge.h"
#include "util/log.h"

namespace {

constexpr int kMostDays = 14;
constexpr int64_t kHour = 3600 * 1000;  // milliseconds

}  // namespace

void Bridge::keepHouse() {
    if (m_housekeeping.isRunning())
        return;
    if (countAges())
        save(nullptr);
    bool blocked = !m_state.absent.empty() || !m_state.unclaimed.empty();
    for (const auto& [endpoint, registration] : m_state.registrations)
        blocked = blocked || !registration.newest || m_delivery.isBlocked(registration.service);
    if (blocked)
        m_housekeeping.start(kHour, [this] {
            // uncovered: after an hour
            m_names.refresh();
            keepHouse();
        });
}

// An application can be reached again, or no longer.
void Bridge::watchAge(const std::string& service) {
    const bool returned =
        m_state.absent.contains(service) && m_names.stateOf(service) == Names::State::Running;
    if (!returned && !m_delivery.isBlocked(service))
        return;
    m_housekeeping.stop();
    keepHouse();
}

// True when the state has changed.
bool Bridge::countAges() {
    bool changed = false;
    std::set<std::string> gone;
    const int64_t now = unixTime();
    const auto count = [&](Age& age) {
        const Age before = age;
        age.count(now);
        changed = changed || age.counted != before.counted;
        return age.days >= kMostDays;
    };
    std::set<std::string> services;
    for (const auto& [endpoint, registration] : m_state.registrations) {
        if (!registration.newest && count(m_state.unclaimed[endpoint]))
            gone.insert(endpoint);
        if (m_names.stateOf(registration.service) == Names::State::Running)
            changed = m_state.absent.erase(registration.service) > 0 || changed;
        else if (m_delivery.isBlocked(registration.service) && services.insert(registration.service).second)
            count(m_state.absent[registration.service]);
    }
    for (const auto& [endpoint, registration] : m_state.registrations)
        if (m_state.absent.contains(registration.service) &&
            m_state.absent.at(registration.service).days >= kMostDays)
            gone.insert(endpoint);
    for (const std::string& endpoint : gone) {
        PrvPrintErr({}, "A registration of %s is removed: it was of no use for %d days",
                    m_state.registrations.at(endpoint).service.c_str(), kMostDays);
        remove(endpoint);
    }
    if (!gone.empty())
        attend();
    return changed || !gone.empty();
}

// The device's endpoints with names of ours that no registration is known for, for instance since the state was
// lost. Their applications may still register them again.
void Bridge::countUnclaimed(const DeviceAnswer& answer) {
    if (!answer.ok)
        return;  // uncovered: it is asked when the service has just answered
    std::set<std::string> listed;
    json_object* endpoints = jsonMember(answer.json.get(), "endpoints");
    for (std::size_t i = 0;
         json_object_is_type(endpoints, json_type_array) && i < json_object_array_length(endpoints); ++i) {
        const std::string name = textMember(json_object_array_get_idx(endpoints, i), "endpoint");
        if (isEndpointName(name) && !m_state.registrations.contains(name) && !m_state.deleting.contains(name))
            listed.insert(name);
    }
    std::erase_if(m_state.unclaimed, [&](const auto& entry) {
        return !listed.contains(entry.first) && !m_state.registrations.contains(entry.first);
    });
    for (const std::string& name : listed) {
        Age& age = m_state.unclaimed[name];
        age.count(unixTime());
        if (age.days < kMostDays)
            continue;
        m_state.unclaimed.erase(name);
        m_state.deleting.insert(name);
    }
    if (!listed.empty())
        save(nullptr);
    attend();
    keepHouse();
}
