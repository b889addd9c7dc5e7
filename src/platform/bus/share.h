// SPDX-License-Identifier: GPL-3.0-only
// An amount that the users of the machine share: what one of them holds leaves the others their part.
#pragma once

#include <cstddef>
#include <unordered_map>

class Share {
  public:
    explicit Share(size_t most) : m_most(most) {}

    // What the user may add: of what is free everybody who holds something, and this user, may hold an equal
    // part. The first user gets half of all, and the nth never less than one n(n+1)th.
    size_t room(unsigned user) const;
    size_t total() const { return m_total; }
    void add(unsigned user, size_t amount);
    void take(unsigned user, size_t amount);

  private:
    size_t m_most;
    size_t m_total = 0;
    std::unordered_map<unsigned, size_t> m_held;  // users that hold something
};
