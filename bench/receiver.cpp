// SPDX-License-Identifier: GPL-3.0-only
// Receives items that are kept until they are taken, and takes each at once:
//
//   bench_receiver receive SERVICE ENDPOINTS COUNT    an application with so many endpoints, e0, e1 ...
//   bench_receiver confirm NODE COUNT                 a confirming handler; NODE "": it is called without asking
//
// Prints "ready" when it receives, and the monotonic time at which so many items were taken.
#include <ctime>
#include <string>

#include "bench/busclient.h"

namespace {

constexpr char kPushService[] = "com.zelt.pubsubservice";
constexpr char kHandler[] = "com.zelt.bench.confirm";

long gTaken = 0;
std::string gService;

void call(sd_bus* bus, const std::string& service, const char* method, const std::string& payload) {
    sd_bus_message* reply = nullptr;
    sd_bus_error error = {};
    bench::check(sd_bus_call_method(bus, service.c_str(), "/", service.c_str(), method, &error, &reply, "s",
                                    payload.c_str()),
                 method);
    const char* text = "";
    bench::check(sd_bus_message_read(reply, "s", &text), "reading an answer");
    if (!std::strstr(text, "\"returnValue\":true") && !std::strstr(text, "\"returnValue\": true")) {
        std::fprintf(stderr, "%s was refused: %s\n", method, text);
        std::exit(1);
    }
    sd_bus_message_unref(reply);
}

// The text of a member; the answers are known not to hold quotes in texts.
std::string member(const char* json, const char* name) {
    const char* found = std::strstr(json, name);
    if (!found)
        return {};
    const char* begin = std::strchr(found + std::strlen(name) + 1, '"') + 1;
    return {begin, std::strchr(begin, '"')};
}

int onAcknowledged(sd_bus_message* reply, void*, sd_bus_error*) {
    const char* text = "";
    bench::check(sd_bus_message_read(reply, "s", &text), "reading an answer");
    if (!std::strstr(text, "true")) {
        std::fprintf(stderr, "an acknowledgement was refused: %s\n", text);
        std::exit(1);
    }
    ++gTaken;
    return 1;
}

int onSignal(sd_bus_message* message, void*, sd_bus_error*) {
    if (!sd_bus_message_is_signal(message, "com.zelt.Subscription1", "Answer"))
        return 0;
    uint32_t serial = 0;
    const char* text = "";
    bench::check(sd_bus_message_read(message, "us", &serial, &text), "reading an item");
    const std::string taken = R"({"endpoint":")" + member(text, "\"endpoint\"") + R"(","receipt":")" +
                              member(text, "\"receipt\"") + "\"}";
    bench::check(sd_bus_call_method_async(sd_bus_message_get_bus(message), nullptr, gService.c_str(), "/",
                                          gService.c_str(), "acknowledge", onAcknowledged, nullptr, "s",
                                          taken.c_str()),
                 "acknowledging");
    return 1;
}

int onItem(sd_bus_message* message, void*, sd_bus_error*) {
    ++gTaken;
    bench::check(sd_bus_reply_method_return(message, "s", R"({"returnValue":true})"), "confirming");
    return 1;
}

const sd_bus_vtable kTable[] = {SD_BUS_VTABLE_START(0),
                                SD_BUS_METHOD("item", "s", "s", onItem, SD_BUS_VTABLE_UNPRIVILEGED),
                                SD_BUS_VTABLE_END};

sd_bus* receive(const std::string& service, long endpoints) {
    gService = service;
    sd_bus* bus = bench::connect(nullptr, "ZELT_PUBLIC_BUS");
    bench::check(sd_bus_add_filter(bus, nullptr, onSignal, nullptr), "filter");
    std::string names;
    for (long i = 0; i < endpoints; ++i) {
        const std::string name = "\"e" + std::to_string(i) + '"';
        call(bus, service, "createEndpoint", R"({"endpoint":)" + name + "}");
        names += (i == 0 ? "" : ",") + name;
    }
    call(bus, service, "receive", R"({"subscribe":true,"endpoints":[)" + names + "]}");
    return bus;
}

sd_bus* confirm(const std::string& node) {
    sd_bus* bus = bench::connect(kHandler);
    bench::check(sd_bus_add_object_vtable(bus, nullptr, "/", kHandler, kTable, nullptr), "table");
    if (!node.empty())
        call(bus, kPushService, "registerItemCallback",
             R"({"node":")" + node + R"(","endpoint":"zelt://com.zelt.bench.confirm/item","confirm":true})");
    return bus;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string way = argc > 1 ? argv[1] : "";
    if (!(way == "receive" && argc == 5) && !(way == "confirm" && argc == 4)) {
        std::fprintf(stderr, "usage: bench_receiver receive SERVICE ENDPOINTS COUNT | confirm NODE COUNT\n");
        return 2;
    }
    sd_bus* bus = way == "receive" ? receive(argv[2], std::atol(argv[3])) : confirm(argv[2]);
    const long goal = std::atol(argv[argc - 1]);
    std::puts("ready");
    std::fflush(stdout);
    while (gTaken < goal) {
        const int result = sd_bus_process(bus, nullptr);
        bench::check(result, "processing");
        if (result == 0)
            bench::check(sd_bus_wait(bus, UINT64_MAX), "waiting");
    }
    bench::check(sd_bus_flush(bus), "flushing");
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::printf("%lld.%09ld\n", static_cast<long long>(now.tv_sec), now.tv_nsec);
    std::fflush(stdout);
}
