// SPDX-License-Identifier: GPL-3.0-only
// Sharing a limited amount among users. In memory, with the connection.
#include "platform/bus/share.h"

#include <algorithm>

size_t Share::available(unsigned user) const {
    const auto found = m_held.find(user);
    const size_t held = found == m_held.end() ? 0 : found->second;
    const size_t users = m_held.size() + (held ? 0 : 1);
    const size_t part = (m_most - std::min(m_most, m_total)) / users;
    return part - std::min(part, held);
}

void Share::add(unsigned user, size_t amount) {
    if (!amount)
        return;
    m_held[user] += amount;
    m_total += amount;
}

void Share::take(unsigned user, size_t amount) {
    const auto found = m_held.find(user);
    if (found == m_held.end())
        return;
    amount = std::min(amount, found->second);
    m_total -= amount;
    found->second -= amount;
    if (!found->second)
        m_held.erase(found);
}
