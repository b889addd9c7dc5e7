// SPDX-License-Identifier: GPL-3.0-only
// Power supplies in sysfs, and the kernel's notices about devices.
#include "platform/host/powersupply.h"

#include <glib-unix.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "platform/host/log.h"

namespace {

constexpr unsigned kKernelNotices = 1;  // the multicast group
constexpr std::string_view kOfASupply = "SUBSYSTEM=power_supply";

std::string attribute(const std::filesystem::path& supply, const char* name) {
    std::ifstream file(supply / name);
    std::string text;
    std::getline(file, text);
    return text;
}

bool drain(int descriptor) {
    bool aboutASupply = false;
    char notice[8192];
    ssize_t length = 0;
    while ((length = recv(descriptor, notice, sizeof notice, 0)) > 0)
        aboutASupply =
            aboutASupply ||
            std::string_view(notice, static_cast<size_t>(length)).find(kOfASupply) != std::string_view::npos;
    return aboutASupply || (length < 0 && errno == ENOBUFS);
}

}  // namespace

int openDeviceNotices() {
    const int descriptor =
        socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = kKernelNotices;
    if (descriptor >= 0 && bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        return descriptor;
    logLine("changes of the power supply cannot be watched: %s", strerror(errno));
    if (descriptor >= 0)
        close(descriptor);
    return -1;
}

// A supply of a peripheral (a mouse's battery) says nothing about the machine. A charger that is plugged in
// counts whatever the battery reports, and a battery that discharges counts where no charger is listed.
bool PowerSupply::onMains() const {
    bool unplugged = false;
    std::error_code absent;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder, absent)) {
        const std::filesystem::path& supply = entry.path();
        if (attribute(supply, "scope") == "Device")
            continue;
        const std::string type = attribute(supply, "type");
        if (type == "Battery" || type == "UPS") {
            unplugged = unplugged || attribute(supply, "status") == "Discharging";
        } else if (type == "Mains" || type == "BrickID" || type == "Wireless" || type.starts_with("USB")) {
            const std::string online = attribute(supply, "online");
            if (!online.empty() && online != "0")
                return true;
            unplugged = unplugged || type == "Mains";
        }
    }
    return !unplugged;
}

void PowerSupply::watch(std::function<void()> onChange) {
    m_onChange = std::move(onChange);
    if (m_source)
        return;
    m_notices = m_open();
    if (m_notices >= 0)
        m_source = g_unix_fd_add(m_notices, G_IO_IN, onNotice, this);
}

void PowerSupply::unwatch() {
    if (m_source)
        g_source_remove(m_source);
    m_source = 0;
    if (m_notices >= 0)
        close(m_notices);
    m_notices = -1;
    m_onChange = nullptr;
}

gboolean PowerSupply::onNotice(gint descriptor, GIOCondition, gpointer data) {
    auto* self = static_cast<PowerSupply*>(data);
    if (!drain(descriptor))
        return G_SOURCE_CONTINUE;
    // A copy, because the callback may end the watch.
    const std::function<void()> onChange = self->m_onChange;
    onChange();
    return G_SOURCE_CONTINUE;
}
