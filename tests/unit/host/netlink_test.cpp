// SPDX-License-Identifier: GPL-3.0-only
// Reading the state of the kernel: handmade dump messages, and this machine's network.
#include "platform/host/netlink.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/faults/failingreads.h"

namespace {

// One netlink message, built attribute by attribute.
class Message {
  public:
    template <typename Info>
    Message(uint16_t type, const Info& info) {
        auto* header = reinterpret_cast<nlmsghdr*>(m_bytes);
        header->nlmsg_type = type;
        header->nlmsg_len = NLMSG_LENGTH(sizeof info);
        memcpy(NLMSG_DATA(header), &info, sizeof info);
    }
    Message& add(uint16_t type, const void* value, size_t length) {
        auto* header = reinterpret_cast<nlmsghdr*>(m_bytes);
        auto* attribute = reinterpret_cast<rtattr*>(m_bytes + NLMSG_ALIGN(header->nlmsg_len));
        attribute->rta_type = type;
        attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(length));
        memcpy(RTA_DATA(attribute), value, length);
        header->nlmsg_len = NLMSG_ALIGN(header->nlmsg_len) + RTA_ALIGN(attribute->rta_len);
        return *this;
    }
    Message& number(uint16_t type, uint32_t value) { return add(type, &value, sizeof value); }
    Message& address(uint16_t type, int family, const char* text) {
        unsigned char bytes[16];
        inet_pton(family, text, bytes);
        return add(type, bytes, family == AF_INET ? 4 : 16);
    }
    NetworkSnapshot read() const {
        NetworkSnapshot snapshot;
        addNetlinkMessage(m_bytes, snapshot);
        return snapshot;
    }

  private:
    alignas(nlmsghdr) char m_bytes[1024] = {};
};

rtmsg defaultRoute() {
    rtmsg route = {};
    route.rtm_family = AF_INET;
    route.rtm_table = RT_TABLE_MAIN;
    route.rtm_type = RTN_UNICAST;
    return route;
}

ifaddrmsg ipv4Address() {
    ifaddrmsg address = {};
    address.ifa_family = AF_INET;
    address.ifa_index = 3;
    address.ifa_scope = RT_SCOPE_UNIVERSE;
    return address;
}

TEST(Netlink, ReadsADefaultRoute) {
    NetworkSnapshot seen = Message(RTM_NEWROUTE, defaultRoute())
                               .number(RTA_OIF, 3)
                               .number(RTA_PRIORITY, 600)
                               .address(RTA_PREFSRC, AF_INET, "192.0.2.3")
                               .read();
    ASSERT_EQ(seen.routes.size(), 1u);
    EXPECT_EQ(seen.routes[0].link, 3);
    EXPECT_EQ(seen.routes[0].metric, 600u);
    EXPECT_EQ(seen.routes[0].source, "192.0.2.3");
}

TEST(Netlink, ReadsEveryLivingHopOfAMultipathRoute) {
    rtnexthop hops[2] = {};
    for (rtnexthop& hop : hops)
        hop.rtnh_len = sizeof hop;
    hops[0].rtnh_ifindex = 3;
    hops[1].rtnh_ifindex = 4;
    EXPECT_EQ(
        Message(RTM_NEWROUTE, defaultRoute()).add(RTA_MULTIPATH, hops, sizeof hops).read().routes.size(), 2u);
    hops[0].rtnh_flags = RTNH_F_LINKDOWN;
    NetworkSnapshot seen = Message(RTM_NEWROUTE, defaultRoute()).add(RTA_MULTIPATH, hops, sizeof hops).read();
    ASSERT_EQ(seen.routes.size(), 1u);
    EXPECT_EQ(seen.routes[0].link, 4);
}

TEST(Netlink, PassesOverRoutesThatLeadNowhere) {
    rtmsg narrow = defaultRoute();
    narrow.rtm_dst_len = 24;
    rtmsg unreachable = defaultRoute();
    unreachable.rtm_type = RTN_UNREACHABLE;
    rtmsg local = defaultRoute();
    local.rtm_table = RT_TABLE_LOCAL;
    rtmsg dead = defaultRoute();
    dead.rtm_flags = RTNH_F_DEAD;
    for (const rtmsg& route : {narrow, unreachable, local, dead})
        EXPECT_TRUE(Message(RTM_NEWROUTE, route).number(RTA_OIF, 3).read().routes.empty());
}

TEST(Netlink, TakesTheOwnEndOfAPointToPointLink) {
    NetworkSnapshot seen = Message(RTM_NEWADDR, ipv4Address())
                               .address(IFA_ADDRESS, AF_INET, "198.51.100.1")
                               .address(IFA_LOCAL, AF_INET, "192.0.2.4")
                               .read();
    ASSERT_EQ(seen.addresses.size(), 1u);
    EXPECT_EQ(seen.addresses[0].text, "192.0.2.4");
    EXPECT_EQ(seen.addresses[0].link, 3);
    EXPECT_TRUE(seen.addresses[0].usable);
}

TEST(Netlink, CountsAddressesUsableOnceVerifiedAndWhileTheyStay) {
    for (auto [flags, usable] :
         {std::pair{0u, true}, std::pair{unsigned{IFA_F_TENTATIVE}, false},
          std::pair{unsigned{IFA_F_TENTATIVE | IFA_F_OPTIMISTIC}, true},
          std::pair{unsigned{IFA_F_DEPRECATED}, false}, std::pair{unsigned{IFA_F_DADFAILED}, false},
          std::pair{unsigned{IFA_F_PERMANENT}, true}}) {
        NetworkSnapshot seen = Message(RTM_NEWADDR, ipv4Address())
                                   .address(IFA_LOCAL, AF_INET, "192.0.2.4")
                                   .number(IFA_FLAGS, flags)
                                   .read();
        EXPECT_EQ(seen.addresses.at(0).usable, usable) << flags;
    }
    ifaddrmsg linkLocal = ipv4Address();
    linkLocal.ifa_scope = RT_SCOPE_LINK;
    EXPECT_FALSE(Message(RTM_NEWADDR, linkLocal).read().addresses.at(0).usable);
}

TEST(Netlink, ReadsALinkAsUpOnlyWithACarrier) {
    ifinfomsg info = {};
    info.ifi_index = 9;
    info.ifi_flags = IFF_UP;
    EXPECT_FALSE(Message(RTM_NEWLINK, info).add(IFLA_IFNAME, "none0", 6).read().links.at(0).up);
    info.ifi_flags = IFF_UP | IFF_RUNNING;
    Link link = Message(RTM_NEWLINK, info).add(IFLA_IFNAME, "ppp7", 5).read().links.at(0);
    EXPECT_TRUE(link.up);
    EXPECT_EQ(link.name, "ppp7");
    EXPECT_EQ(link.index, 9);
    EXPECT_EQ(link.kind, LinkKind::Mobile);
}

TEST(Netlink, BearsShortMessagesAndAttributes) {
    EXPECT_TRUE(Message(RTM_NEWLINK, uint8_t{0}).read().links.empty());
    EXPECT_TRUE(Message(RTM_NEWADDR, uint8_t{0}).read().addresses.empty());
    EXPECT_TRUE(Message(RTM_NEWROUTE, uint8_t{0}).read().routes.empty());
    uint8_t small = 3;
    NetworkSnapshot seen = Message(RTM_NEWROUTE, defaultRoute()).add(RTA_OIF, &small, 1).read();
    EXPECT_EQ(seen.routes.at(0).link, 0);
    EXPECT_EQ(Message(RTM_NEWADDR, ipv4Address()).add(IFA_LOCAL, &small, 1).read().addresses.at(0).text, "");
}

TEST(Netlink, ReadsThisMachine) {
    NetworkSnapshot seen;
    ASSERT_TRUE(readNetwork(seen));
    bool loopback = false;
    for (const Link& link : seen.links)
        loopback = loopback || link.kind == LinkKind::Loopback;
    EXPECT_TRUE(loopback);
}

TEST(Netlink, BearsALinkThatGoesWhileItsFileIsRead) {
    NetworkSnapshot seen;
    FailingReads reads("/sys/devices/", ENODEV);
    EXPECT_TRUE(readNetwork(seen));
    EXPECT_FALSE(seen.links.empty());
    EXPECT_GT(reads.failures(), 0u);
}

TEST(Netlink, DrainsADescriptorThatHoldsNothing) {
    int changes = openNetworkChanges();
    ASSERT_GE(changes, 0);
    drainNetworkChanges(changes);
    close(changes);
}

}  // namespace
