// SPDX-License-Identifier: GPL-3.0-only
// rtnetlink. The kernel produces a dump within the receive call, so reading one never waits.
#include "platform/host/netlink.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

#include "platform/host/log.h"

namespace {

class Descriptor {
  public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0)
            close(m_fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }

  private:
    int m_fd;
};

template <typename Visit>
void eachAttribute(const rtattr* attribute, size_t length, Visit visit) {
    auto left = static_cast<int>(length);
    for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left))
        visit(attribute->rta_type & NLA_TYPE_MASK, attribute);
}

// An attribute that is too short for its type reads as 0.
uint32_t numberIn(const rtattr* attribute) {
    uint32_t value = 0;
    if (RTA_PAYLOAD(attribute) >= sizeof value)
        memcpy(&value, RTA_DATA(attribute), sizeof value);
    return value;
}

std::string addressIn(const rtattr* attribute, int family) {
    char text[INET6_ADDRSTRLEN] = "";
    const size_t needed = family == AF_INET ? 4 : 16;
    if (RTA_PAYLOAD(attribute) >= needed)
        inet_ntop(family, RTA_DATA(attribute), text, sizeof text);
    return text;
}

std::string deviceType(const std::string& name) {
    std::ifstream file("/sys/class/net/" + name + "/uevent");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("DEVTYPE="))
            return line.substr(8);
    }
    return "";
}

bool isWireless(const std::string& name) {
    struct stat status;
    const std::string folder = "/sys/class/net/" + name;
    return stat((folder + "/wireless").c_str(), &status) == 0 ||
           stat((folder + "/phy80211").c_str(), &status) == 0;
}

void addLink(const nlmsghdr* header, NetworkSnapshot& snapshot) {
    auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(header));
    Link link;
    link.index = info->ifi_index;
    eachAttribute(IFLA_RTA(info), IFLA_PAYLOAD(header), [&](int type, const rtattr* attribute) {
        if (type == IFLA_IFNAME)
            link.name =
                std::string(static_cast<const char*>(RTA_DATA(attribute)),
                            strnlen(static_cast<const char*>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute)));
    });
    link.up = (info->ifi_flags & IFF_UP) && (info->ifi_flags & IFF_RUNNING);
    link.kind =
        classifyLink(link.name, info->ifi_flags & IFF_LOOPBACK, isWireless(link.name), deviceType(link.name));
    snapshot.links.push_back(link);
}

void addAddress(const nlmsghdr* header, NetworkSnapshot& snapshot) {
    auto* info = static_cast<const ifaddrmsg*>(NLMSG_DATA(header));
    if (info->ifa_family != AF_INET && info->ifa_family != AF_INET6)
        return;
    Address address;
    address.link = static_cast<int>(info->ifa_index);
    address.family = info->ifa_family;
    uint32_t flags = info->ifa_flags;
    std::string local;
    eachAttribute(IFA_RTA(info), IFA_PAYLOAD(header), [&](int type, const rtattr* attribute) {
        if (type == IFA_ADDRESS)
            address.text = addressIn(attribute, address.family);
        else if (type == IFA_LOCAL)
            local = addressIn(attribute, address.family);
        else if (type == IFA_FLAGS)
            flags = numberIn(attribute);
    });
    // On a point-to-point link IFA_ADDRESS is the peer.
    if (!local.empty())
        address.text = local;
    const bool pending = (flags & IFA_F_TENTATIVE) && !(flags & IFA_F_OPTIMISTIC);
    const bool leaving = flags & (IFA_F_DADFAILED | IFA_F_DEPRECATED);
    address.usable = info->ifa_scope == RT_SCOPE_UNIVERSE && !pending && !leaving;
    snapshot.addresses.push_back(address);
}

// The links of a route: one, or one for each hop of a multipath route.
std::vector<int> routeLinks(const rtmsg* route, size_t length) {
    std::vector<int> links;
    eachAttribute(RTM_RTA(route), length, [&](int type, const rtattr* attribute) {
        if (type == RTA_OIF)
            links.push_back(static_cast<int>(numberIn(attribute)));
        if (type != RTA_MULTIPATH)
            return;
        auto* hop = static_cast<const rtnexthop*>(RTA_DATA(attribute));
        auto left = static_cast<int>(RTA_PAYLOAD(attribute));
        for (; RTNH_OK(hop, left); left -= RTNH_ALIGN(hop->rtnh_len), hop = RTNH_NEXT(hop)) {
            if (!(hop->rtnh_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)))
                links.push_back(hop->rtnh_ifindex);
        }
    });
    return links;
}

bool isLiveDefault(const rtmsg* route) {
    const bool family = route->rtm_family == AF_INET || route->rtm_family == AF_INET6;
    const bool table = route->rtm_table == RT_TABLE_MAIN || route->rtm_table == RT_TABLE_DEFAULT;
    const bool live = !(route->rtm_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN | RTM_F_CLONED));
    return family && table && live && route->rtm_dst_len == 0 && route->rtm_type == RTN_UNICAST;
}

void addRoute(const nlmsghdr* header, NetworkSnapshot& snapshot) {
    auto* info = static_cast<const rtmsg*>(NLMSG_DATA(header));
    if (!isLiveDefault(info))
        return;
    DefaultRoute route;
    route.family = info->rtm_family;
    eachAttribute(RTM_RTA(info), RTM_PAYLOAD(header), [&](int type, const rtattr* attribute) {
        if (type == RTA_PRIORITY)
            route.metric = numberIn(attribute);
        else if (type == RTA_PREFSRC)
            route.source = addressIn(attribute, route.family);
    });
    for (const int link : routeLinks(info, RTM_PAYLOAD(header))) {
        route.link = link;
        snapshot.routes.push_back(route);
    }
}

enum class Dump { More, Done, Failed };

Dump readDump(int descriptor, NetworkSnapshot& snapshot) {
    alignas(nlmsghdr) static char buffer[32768];
    const ssize_t received = recv(descriptor, buffer, sizeof buffer, 0);
    if (received < 0)
        return errno == EINTR ? Dump::More : Dump::Failed;
    auto left = static_cast<unsigned>(received);
    for (auto* header = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(header, left);
         header = NLMSG_NEXT(header, left)) {
        if (header->nlmsg_type == NLMSG_DONE)
            return Dump::Done;
        if (header->nlmsg_type == NLMSG_ERROR)
            return Dump::Failed;
        addNetlinkMessage(header, snapshot);
    }
    return Dump::More;
}

bool dump(int descriptor, uint16_t type, NetworkSnapshot& snapshot) {
    struct {
        nlmsghdr header;
        rtgenmsg general;
    } request = {};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.general);
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.general.rtgen_family = AF_UNSPEC;
    if (send(descriptor, &request, request.header.nlmsg_len, 0) < 0)
        return false;
    Dump state = Dump::More;
    while (state == Dump::More)
        state = readDump(descriptor, snapshot);
    return state == Dump::Done;
}

}  // namespace

void addNetlinkMessage(const void* message, NetworkSnapshot& snapshot) {
    auto* header = static_cast<const nlmsghdr*>(message);
    if (header->nlmsg_type == RTM_NEWLINK && header->nlmsg_len >= NLMSG_LENGTH(sizeof(ifinfomsg)))
        addLink(header, snapshot);
    else if (header->nlmsg_type == RTM_NEWADDR && header->nlmsg_len >= NLMSG_LENGTH(sizeof(ifaddrmsg)))
        addAddress(header, snapshot);
    else if (header->nlmsg_type == RTM_NEWROUTE && header->nlmsg_len >= NLMSG_LENGTH(sizeof(rtmsg)))
        addRoute(header, snapshot);
}

bool readNetwork(NetworkSnapshot& snapshot) {
    snapshot = {};
    const Descriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    for (const uint16_t type : {RTM_GETLINK, RTM_GETADDR, RTM_GETROUTE}) {
        if (socket.get() < 0 || !dump(socket.get(), type, snapshot)) {
            logLine("cannot read the network state from the kernel: %s", strerror(errno));
            return false;
        }
    }
    return true;
}

int openNetworkChanges() {
    Descriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups =
        RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    if (socket.get() < 0 || bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
        logLine("cannot watch the network: %s; changes will not be detected", strerror(errno));
        return -1;
    }
    return socket.release();
}

void drainNetworkChanges(int descriptor) {
    char buffer[8192];
    // ENOBUFS means that changes were lost, which is a change too.
    while (recv(descriptor, buffer, sizeof buffer, MSG_DONTWAIT) >= 0 || errno == EINTR || errno == ENOBUFS) {
    }
}
