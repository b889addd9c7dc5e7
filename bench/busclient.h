// SPDX-License-Identifier: GPL-3.0-only
// Plain sd-bus that the load generators share, without the library that is measured.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

// Ends the program when a bus call failed.
inline void check(int result, const char* what) {
    if (result >= 0)
        return;
    std::fprintf(stderr, "%s: %s\n", what, std::strerror(-result));
    std::exit(1);
}

// A client of the bus whose address the variable holds; `name` (null: none) is requested on it.
inline sd_bus* connect(const char* name, const char* variable = "ZELT_PRIVATE_BUS") {
    const char* address = std::getenv(variable);
    if (!address) {
        std::fprintf(stderr, "%s is not set\n", variable);
        std::exit(2);
    }
    sd_bus* bus = nullptr;
    check(sd_bus_new(&bus), "sd_bus_new");
    check(sd_bus_set_address(bus, address), "address");
    check(sd_bus_set_bus_client(bus, 1), "bus client");
    check(sd_bus_start(bus), "connecting");
    if (name)
        check(sd_bus_request_name(bus, name, 0), "requesting the name");
    return bus;
}

}  // namespace bench
