// SPDX-License-Identifier: GPL-3.0-only
// Limits files to `bytes`, for the lifetime of the object. The limit applies to root, too.
#pragma once

#include <sys/resource.h>

#include <csignal>

class SmallDisk {
  public:
    explicit SmallDisk(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit{bytes, m_before.rlim_max};
        m_signal = std::signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~SmallDisk() {
        setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_signal);
    }

  private:
    rlimit m_before = {};
    void (*m_signal)(int) = nullptr;
};
