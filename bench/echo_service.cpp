// SPDX-License-Identifier: GPL-3.0-only
// The smallest sd-bus service: one method, text in, fixed text out. The reference for requests.
#include "bench/busclient.h"

namespace {

int onEcho(sd_bus_message* message, void*, sd_bus_error*) {
    const char* text = nullptr;
    const int result = sd_bus_message_read(message, "s", &text);
    if (result < 0)
        return result;
    return sd_bus_reply_method_return(message, "s", R"({ "returnValue": true, "username": "device" })");
}

const sd_bus_vtable kTable[] = {SD_BUS_VTABLE_START(0),
                                SD_BUS_METHOD("getJabberId", "s", "s", onEcho, SD_BUS_VTABLE_UNPRIVILEGED),
                                SD_BUS_VTABLE_END};

}  // namespace

int main() {
    sd_bus* bus = bench::connect("com.zelt.bench.echo");
    bench::check(sd_bus_add_object_vtable(bus, nullptr, "/", "com.zelt.bench.echo", kTable, nullptr),
                 "table");
    std::puts("ready");
    std::fflush(stdout);
    for (;;) {
        const int result = sd_bus_process(bus, nullptr);
        bench::check(result, "processing");
        if (result == 0)
            bench::check(sd_bus_wait(bus, UINT64_MAX), "waiting");
    }
}
