// SPDX-License-Identifier: GPL-3.0-only
// Receives items and prints the monotonic time at which each count was reached: item_sink COUNT... (each
// count begins at the one before).
#include <ctime>

#include "bench/busclient.h"

namespace {

long gReceived = 0;

int onItem(sd_bus_message*, void*, sd_bus_error*) {
    ++gReceived;
    return 1;
}

const sd_bus_vtable kTable[] = {SD_BUS_VTABLE_START(0),
                                SD_BUS_METHOD("item", "s", "s", onItem, SD_BUS_VTABLE_UNPRIVILEGED),
                                SD_BUS_VTABLE_END};

}  // namespace

int main(int argc, char** argv) {
    sd_bus* bus = bench::connect("com.zelt.bench.sink");
    bench::check(sd_bus_add_object_vtable(bus, nullptr, "/", "com.zelt.bench.sink", kTable, nullptr),
                 "table");
    // Any answer of the service shows that it has seen this name appear, because the bus keeps that order.
    bench::check(sd_bus_call_method(bus, "com.zelt.pubsubservice", "/", "com.zelt.pubsubservice",
                                    "getJabberId", nullptr, nullptr, "s", "{}"),
                 "asking the service");
    std::puts("ready");
    std::fflush(stdout);
    for (int i = 1; i < argc; ++i) {
        const long goal = gReceived + std::atol(argv[i]);
        while (gReceived < goal) {
            const int result = sd_bus_process(bus, nullptr);
            bench::check(result, "processing");
            if (result == 0)
                bench::check(sd_bus_wait(bus, UINT64_MAX), "waiting");
        }
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        std::printf("%lld.%09ld\n", static_cast<long long>(now.tv_sec), now.tv_nsec);
        std::fflush(stdout);
    }
}
