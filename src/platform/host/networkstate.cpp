// SPDX-License-Identifier: GPL-3.0-only
// A link counts as connected when a default route leaves through it and it has an address of the route's
// family: clients bind to that address, so a link without such a route must not be reported. Of several
// routes the IPv4 one with the lowest metric wins, then the IPv6 one.
#include "platform/host/networkstate.h"

#include <algorithm>

#include "util/jsonref.h"

LinkKind classifyLink(const std::string& name, bool loopback, bool wireless, const std::string& deviceType) {
    if (loopback)
        return LinkKind::Loopback;
    if (deviceType == "wwan" || name.starts_with("wwan") || name.starts_with("ppp") ||
        name.starts_with("rmnet"))
        return LinkKind::Mobile;
    return wireless || deviceType == "wlan" ? LinkKind::Wireless : LinkKind::Wired;
}

namespace {

const Link* findLink(const NetworkSnapshot& snapshot, const NetworkRules& rules, int index) {
    for (const Link& link : snapshot.links) {
        if (link.index == index && (rules.interfaces.empty() || rules.interfaces.contains(link.name)))
            return &link;
    }
    return nullptr;
}

std::string sourceAddress(const NetworkSnapshot& snapshot, const DefaultRoute& route) {
    std::string first;
    for (const Address& address : snapshot.addresses) {
        if (address.link != route.link || address.family != route.family || !address.usable)
            continue;
        if (address.text == route.source)
            return address.text;
        if (first.empty())
            first = address.text;
    }
    return first;
}

LinkState decideLinks(const NetworkSnapshot& snapshot, const NetworkRules& rules, bool mobile) {
    std::vector<DefaultRoute> routes = snapshot.routes;
    std::stable_sort(routes.begin(), routes.end(), [](const DefaultRoute& a, const DefaultRoute& b) {
        return a.family != b.family ? a.family == AF_INET : a.metric < b.metric;
    });
    for (const DefaultRoute& route : routes) {
        const Link* link = findLink(snapshot, rules, route.link);
        if (!link || !link->up || link->kind == LinkKind::Loopback ||
            (link->kind == LinkKind::Mobile) != mobile)
            continue;
        const std::string address = sourceAddress(snapshot, route);
        if (!address.empty())
            return {true, address};
    }
    return {};
}

LinkState decideLoopback(const NetworkSnapshot& snapshot, const NetworkRules& rules) {
    for (const Address& address : snapshot.addresses) {
        const Link* link = findLink(snapshot, rules, address.link);
        if (link && link->up && link->kind == LinkKind::Loopback && address.family == AF_INET)
            return {true, address.text};
    }
    return {};
}

JsonRef linkObject(const LinkState& state) {
    return JsonObject()
        .set("state", state.connected ? "connected" : "disconnected")
        .set("ipAddress", state.ipAddress)
        .release();
}

}  // namespace

NetworkState decideNetwork(const NetworkSnapshot& snapshot, const NetworkRules& rules) {
    NetworkState state;
    state.wifi = decideLinks(snapshot, rules, false);
    state.wan = decideLinks(snapshot, rules, true);
    if (rules.loopbackIsInternet && !state.wifi.connected && !state.wan.connected)
        state.wifi = decideLoopback(snapshot, rules);
    state.internet = (state.wifi.connected || state.wan.connected) && !rules.captivePortal;
    return state;
}

std::string networkPayload(const NetworkState& state) {
    return JsonObject()
        .set("returnValue", true)
        .set("isInternetConnectionAvailable", state.internet)
        .set("wifi", linkObject(state.wifi))
        .set("wan", linkObject(state.wan))
        .line();
}
