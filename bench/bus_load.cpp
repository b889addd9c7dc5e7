// SPDX-License-Identifier: GPL-3.0-only
// Calls one method repeatedly with a fixed number of calls in flight; prints the calls per second and the CPU
// time per call of the called process: bus_load SERVICE METHOD PID IN-FLIGHT CALLS
#include <ctime>
#include <string>

#include "bench/busclient.h"

namespace {

struct Load {
    sd_bus* bus;
    const char* service;
    const char* method;
    long toPlace;
    long toFinish;
};

double monotonicSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// CPU time of another process in seconds.
double cpuSeconds(int pid) {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) {
        std::fprintf(stderr, "the CPU time of process %d cannot be read\n", pid);
        std::exit(1);
    }
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

int onReply(sd_bus_message* reply, void* context, sd_bus_error* error);

void place(Load& load) {
    if (load.toPlace == 0)
        return;
    --load.toPlace;
    bench::check(sd_bus_call_method_async(load.bus, nullptr, load.service, "/", load.service, load.method,
                                          onReply, &load, "s", "{}"),
                 "calling");
}

int onReply(sd_bus_message* reply, void* context, sd_bus_error*) {
    auto& load = *static_cast<Load*>(context);
    if (sd_bus_message_is_method_error(reply, nullptr)) {
        std::fprintf(stderr, "refused: %s\n", sd_bus_message_get_error(reply)->message);
        std::exit(1);
    }
    --load.toFinish;
    place(load);
    return 0;
}

void run(Load& load, long calls, long inFlight) {
    load.toPlace = load.toFinish = calls;
    for (long i = 0; i < inFlight; ++i)
        place(load);
    while (load.toFinish > 0) {
        const int result = sd_bus_process(load.bus, nullptr);
        bench::check(result, "processing");
        if (result == 0)
            bench::check(sd_bus_wait(load.bus, UINT64_MAX), "waiting");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: bench_load SERVICE METHOD PID IN-FLIGHT CALLS\n");
        return 2;
    }
    Load load{bench::connect(nullptr), argv[1], argv[2], 0, 0};
    const int pid = std::atoi(argv[3]);
    const long inFlight = std::atol(argv[4]);
    const long calls = std::atol(argv[5]);
    run(load, calls / 10 + 1, inFlight);  // warm-up
    const double cpu = cpuSeconds(pid);
    const double start = monotonicSeconds();
    run(load, calls, inFlight);
    const double seconds = monotonicSeconds() - start;
    std::printf("%.1f %.3f\n", static_cast<double>(calls) / seconds,
                (cpuSeconds(pid) - cpu) / static_cast<double>(calls) * 1e6);
}
