// SPDX-License-Identifier: GPL-3.0-only
#include "platform/host/systembus.h"

#include <cstring>

#include "platform/host/log.h"

bool SystemBus::open() {
    if (sd_bus_open_system(&m_bus) < 0) {
        m_bus = nullptr;
        return false;
    }
    m_source = std::make_unique<SdBusSource>(m_bus, [this](int error) {
        logLine(
            "the system bus connection is lost: %s; suspend, captive portals and the boot status are not "
            "detected",
            strerror(error));
        close();
    });
    return true;
}

void SystemBus::close() {
    m_source.reset();
    m_bus = sd_bus_close_unref(m_bus);
}

SystemBus::~SystemBus() {
    close();
}
