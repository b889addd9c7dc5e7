// SPDX-License-Identifier: GPL-3.0-only
// The settings of zelt-host: /etc/zelt/host.conf, or the file that ZELT_HOST_CONF names. Read once at start;
// without the file the defaults apply.
#pragma once

#include <set>
#include <string>

#include "platform/host/backoff.h"

struct HostConfig {
    std::string stateDir = "/var/lib/zelt/host";                 // ZELT_HOST_STATE_DIR
    bool loopbackIsInternet = false;                             // [network] loopback-is-internet
    std::set<std::string> interfaces;                            // [network] interfaces, all when empty
    std::string accountFile;                                     // [account] file, by default below stateDir
    std::string applicationsFolder = "/usr/share/applications";  // [applications] folder
    unsigned settleMs = 2000;                                    // [applications] settle-ms
    std::set<std::string> services;                              // [services] enabled, all when empty
    bool keepsConnection = true;                                 // [connection] keep
    DelayRange reconnectDelays;                                  // [connection] after
    bool reconnectsOnBattery = false;                            // [connection] battery

    bool runs(const char* service) const { return services.empty() || services.contains(service); }
};

// False with the problem when there is a file that cannot be used.
bool readHostConfig(HostConfig& config, std::string& problem);
