// SPDX-License-Identifier: GPL-3.0-only
// com.zelt.accountservices: returns the machine's push account. The file is read at each call, so a change
// takes effect immediately; only the problem that was logged last is kept.
#pragma once

#include "platform/host/busservice.h"
#include "platform/host/config.h"

class AccountServices {
  public:
    explicit AccountServices(const HostConfig& config) : m_file(config.accountFile) {}
    StartResult start(GMainLoop* loop);

  private:
    static bool onGetAccountToken(QSHandle* handle, QSMessage* message, void* context);

    BusService m_bus;
    std::string m_file;
    std::string m_logged;
};
