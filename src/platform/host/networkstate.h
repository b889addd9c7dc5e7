// SPDX-License-Identifier: GPL-3.0-only
// The platform's view of the machine's links, addresses and routes: which link carries Internet traffic, and
// from which address. Pure functions over a snapshot; keeps no state.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

enum class LinkKind { Loopback, Wireless, Wired, Mobile };

struct Link {
    int index = 0;
    std::string name;
    LinkKind kind = LinkKind::Wired;
    bool up = false;  // set up by the administrator, and with a carrier
};

struct Address {
    int link = 0;
    int family = AF_INET;
    std::string text;
    bool usable = false;  // of global scope, verified, not deprecated
};

struct DefaultRoute {
    int link = 0;
    int family = AF_INET;
    uint32_t metric = 0;
    std::string source;  // the preferred source address, "" when the route names none
};

struct NetworkSnapshot {
    std::vector<Link> links;
    std::vector<Address> addresses;
    std::vector<DefaultRoute> routes;
};

struct NetworkRules {
    bool loopbackIsInternet = false;   // for a machine with only a loopback interface
    std::set<std::string> interfaces;  // the links that count; all when empty
    bool captivePortal = false;        // a portal blocks the Internet
};

struct LinkState {
    bool connected = false;
    std::string ipAddress;
    bool operator==(const LinkState&) const = default;
};

// "wifi" is every unmetered link, wired ones included.
struct NetworkState {
    bool internet = false;
    LinkState wifi;
    LinkState wan;
    bool operator==(const NetworkState&) const = default;
};

// `deviceType` is DEVTYPE of the link's uevent, "" when it has none.
LinkKind classifyLink(const std::string& name, bool loopback, bool wireless, const std::string& deviceType);
NetworkState decideNetwork(const NetworkSnapshot& snapshot, const NetworkRules& rules);
std::string networkPayload(const NetworkState& state);
