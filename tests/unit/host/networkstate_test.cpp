// SPDX-License-Identifier: GPL-3.0-only
// Which links reach the Internet, decided from lists of links, addresses and routes.
#include "platform/host/networkstate.h"

#include <gtest/gtest.h>

namespace {

NetworkSnapshot snapshot() {
    return {{{1, "lo", LinkKind::Loopback, true},
             {2, "eth0", LinkKind::Wired, true},
             {3, "wlan0", LinkKind::Wireless, true},
             {4, "wwan0", LinkKind::Mobile, true}},
            {{1, AF_INET, "127.0.0.1", false},
             {2, AF_INET, "192.0.2.2", true},
             {2, AF_INET6, "2001:db8::2", true},
             {3, AF_INET, "192.0.2.3", true},
             {4, AF_INET, "192.0.2.4", true}},
            {}};
}

std::string decide(const NetworkSnapshot& network, const NetworkRules& rules = {}) {
    return networkPayload(decideNetwork(network, rules));
}

std::string payload(bool internet, const std::string& wifi, const std::string& wan) {
    auto link = [](const std::string& address) {
        return std::string("{\"state\":\"") + (address.empty() ? "disconnected" : "connected") +
               "\",\"ipAddress\":\"" + address + "\"}";
    };
    return std::string("{\"returnValue\":true,\"isInternetConnectionAvailable\":") +
           (internet ? "true" : "false") + ",\"wifi\":" + link(wifi) + ",\"wan\":" + link(wan) + "}";
}

TEST(NetworkState, IsDownWithoutADefaultRoute) {
    EXPECT_EQ(decide(snapshot()), payload(false, "", ""));
    EXPECT_EQ(decide({}), payload(false, "", ""));
}

TEST(NetworkState, CountsWirelessAndWiredLinksAsWifi) {
    for (auto [link, address] : {std::pair{2, "192.0.2.2"}, std::pair{3, "192.0.2.3"}}) {
        NetworkSnapshot network = snapshot();
        network.routes = {{link, AF_INET, 100, ""}};
        EXPECT_EQ(decide(network), payload(true, address, ""));
    }
}

TEST(NetworkState, CountsMobileLinksAsWan) {
    NetworkSnapshot network = snapshot();
    network.routes = {{4, AF_INET, 700, ""}};
    EXPECT_EQ(decide(network), payload(true, "", "192.0.2.4"));
}

TEST(NetworkState, TellsBothWhenBothLeadOut) {
    NetworkSnapshot network = snapshot();
    network.routes = {{4, AF_INET, 50, ""}, {3, AF_INET, 600, ""}};
    EXPECT_EQ(decide(network), payload(true, "192.0.2.3", "192.0.2.4"));
}

TEST(NetworkState, TakesTheCheapestRoute) {
    NetworkSnapshot network = snapshot();
    network.routes = {{3, AF_INET, 600, ""}, {2, AF_INET, 100, ""}};
    EXPECT_EQ(decide(network), payload(true, "192.0.2.2", ""));
    network.routes = {{3, AF_INET, 600, ""}, {2, AF_INET, 601, ""}};
    EXPECT_EQ(decide(network), payload(true, "192.0.2.3", ""));
}

TEST(NetworkState, PrefersIpv4WhateverTheMetricAndTakesIpv6WhenAlone) {
    NetworkSnapshot network = snapshot();
    network.routes = {{2, AF_INET6, 1, ""}, {3, AF_INET, 600, ""}};
    EXPECT_EQ(decide(network), payload(true, "192.0.2.3", ""));
    network.routes = {{2, AF_INET6, 1024, ""}};
    EXPECT_EQ(decide(network), payload(true, "2001:db8::2", ""));
}

TEST(NetworkState, TakesTheRoutesOwnSourceAddressWhenTheLinkHasIt) {
    NetworkSnapshot network = snapshot();
    network.addresses.push_back({2, AF_INET, "192.0.2.22", true});
    network.routes = {{2, AF_INET, 0, "192.0.2.22"}};
    EXPECT_EQ(decide(network), payload(true, "192.0.2.22", ""));
    network.routes = {{2, AF_INET, 0, "198.51.100.9"}};
    EXPECT_EQ(decide(network), payload(true, "192.0.2.2", ""));
}

TEST(NetworkState, PassesOverLinksThatAreDownOrWithoutAUsableAddress) {
    NetworkSnapshot network = snapshot();
    network.routes = {{2, AF_INET, 100, ""}, {3, AF_INET, 600, ""}};
    network.links[1].up = false;
    EXPECT_EQ(decide(network), payload(true, "192.0.2.3", ""));
    network.links[1].up = true;
    network.addresses[1].usable = false;
    EXPECT_EQ(decide(network), payload(true, "192.0.2.3", ""));
}

TEST(NetworkState, LooksOnlyAtTheInterfacesThatTheMachineNames) {
    NetworkSnapshot network = snapshot();
    network.routes = {{2, AF_INET, 100, ""}, {3, AF_INET, 600, ""}};
    EXPECT_EQ(decide(network, {.interfaces = {"wlan0"}}), payload(true, "192.0.2.3", ""));
    EXPECT_EQ(decide(network, {.interfaces = {"usb0"}}), payload(false, "", ""));
}

TEST(NetworkState, CountsLoopbackOnlyWhenToldAndOnlyWhenThereIsNothingElse) {
    NetworkSnapshot network = snapshot();
    NetworkRules rules{.loopbackIsInternet = true};
    EXPECT_EQ(decide(network, rules), payload(true, "127.0.0.1", ""));
    network.routes = {{4, AF_INET, 0, ""}};
    EXPECT_EQ(decide(network, rules), payload(true, "", "192.0.2.4"));
    network.routes = {};
    network.links[0].up = false;
    EXPECT_EQ(decide(network, rules), payload(false, "", ""));
}

TEST(NetworkState, NeverTakesADefaultRouteThroughLoopback) {
    NetworkSnapshot network = snapshot();
    network.routes = {{1, AF_INET, 0, ""}};
    network.addresses[0].usable = true;
    EXPECT_EQ(decide(network), payload(false, "", ""));
}

TEST(NetworkState, HasNoInternetBehindACaptivePortalThoughTheLinkIsUp) {
    NetworkSnapshot network = snapshot();
    network.routes = {{3, AF_INET, 0, ""}};
    EXPECT_EQ(decide(network, {.captivePortal = true}), payload(false, "192.0.2.3", ""));
}

TEST(LinkKinds, FollowTheDeviceTypeAndTheName) {
    EXPECT_EQ(classifyLink("lo", true, false, ""), LinkKind::Loopback);
    EXPECT_EQ(classifyLink("wlan0", false, true, "wlan"), LinkKind::Wireless);
    EXPECT_EQ(classifyLink("wlp2s0", false, false, "wlan"), LinkKind::Wireless);
    EXPECT_EQ(classifyLink("eth0", false, false, ""), LinkKind::Wired);
    EXPECT_EQ(classifyLink("enx0", false, false, "wwan"), LinkKind::Mobile);
    for (const char* name : {"wwan0", "wwp0s20", "ppp0", "rmnet_data0"})
        EXPECT_EQ(classifyLink(name, false, false, std::string(name) == "wwp0s20" ? "wwan" : ""),
                  LinkKind::Mobile)
            << name;
}

}  // namespace
