// SPDX-License-Identifier: GPL-3.0-only
#include "session/traces.h"

#include <glib.h>

#include <algorithm>
#include "util/log.h"

namespace {

constexpr char kPrefix[] = "trace-";
constexpr std::size_t kMostIdBytes = 80;  // the server records no longer ones either

}  // namespace

bool Traces::isMark(const std::string& mark) {
    return mark.size() >= kMarkMin && mark.size() <= kMarkMax &&
           std::all_of(mark.begin(), mark.end(),
                       [](char c) { return g_ascii_isalnum(c) || c == '-' || c == '_'; });
}

void Traces::append(const std::string& itemId, const char* station, const std::string& to) {
    if (!itemId.starts_with(kPrefix) || itemId.size() > kMostIdBytes)
        return;
    auto item =
        std::find_if(m_items.begin(), m_items.end(), [&](const Item& each) { return each.id == itemId; });
    if (item == m_items.end()) {
        if (m_items.size() == kItems)
            m_items.pop_front();
        m_items.push_back({itemId, {}});
        item = std::prev(m_items.end());
    }
    if (item->stations.size() == kStations)
        return;
    item->stations.push_back({g_get_real_time(), station, to});
    PrvPrintErr({}, "Item %s: %s%s%s", itemId.c_str(), station, to.empty() ? "" : ", ", to.c_str());
}

std::vector<Traces::Station> Traces::of(const std::string& itemId) const {
    for (const Item& item : m_items)
        if (item.id == itemId)
            return item.stations;
    return {};
}

void Traces::setAsked(const std::string& requestId) {
    if (m_askings.size() == kItems)
        m_askings.pop_front();
    m_askings.emplace_back(requestId, g_get_real_time());
}

std::optional<int64_t> Traces::takeAsked(const std::string& requestId) {
    const auto found = std::find_if(m_askings.begin(), m_askings.end(),
                                    [&](const auto& each) { return each.first == requestId; });
    if (found == m_askings.end())
        return std::nullopt;
    const int64_t at = found->second;
    m_askings.erase(found);
    return at;
}
