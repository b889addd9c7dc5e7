// SPDX-License-Identifier: GPL-3.0-only
// A limited amount that the users of the machine share: no user can use it up and leave
// nothing for the others.
#pragma once

#include <cstddef>
#include <unordered_map>

class Share {
  public:
    explicit Share(size_t most) : m_most(most) {}

    // How much more the user may add. Each user that holds something, and this one, may hold an equal part of
    // what is free. The first user gets half of the total, and the nth always at least 1/(n(n+1)) of it.
    size_t available(unsigned user) const;
    size_t total() const { return m_total; }
    void add(unsigned user, size_t amount);
    void take(unsigned user, size_t amount);

  private:
    size_t m_most;
    size_t m_total = 0;
    std::unordered_map<unsigned, size_t> m_held;  // users that hold something
};
