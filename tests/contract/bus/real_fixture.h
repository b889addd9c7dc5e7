// SPDX-License-Identifier: GPL-3.0-only
// What the tests of the layer on real buses share beyond the contract: plain connections that send and count,
// and access to the tables of the layer.
#pragma once

#include <poll.h>

#include <filesystem>

#include "platform/bus/connection.h"
#include "platform/bus/peers.h"
#include "tests/contract/bus/contractfixture.h"
#include "tests/contract/bus/real_engine.h"

class RealBusTest : public BusContract {
  protected:
    RealEngine& engine() { return static_cast<RealEngine&>(*m_engine); }

    static size_t openDescriptors() {
        size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            (void)entry;
            count++;
        }
        return count;
    }
    // Waits, without iterating the loop, until the connection has something to read.
    static bool hasInput(QSHandle* handle) {
        pollfd wait = {sd_bus_get_fd(handle->bus), POLLIN, 0};
        return poll(&wait, 1, 5000) == 1;
    }
    static void send(sd_bus* bus, const char* method, const std::string& payload) {
        sd_bus_message* wire = nullptr;
        ASSERT_GE(sd_bus_message_new_method_call(bus, &wire, kServiceName, "/", kServiceName, method), 0);
        ASSERT_GE(sd_bus_message_append(wire, "s", payload.c_str()), 0);
        sd_bus_message_set_expect_reply(wire, 0);
        ASSERT_GE(sd_bus_send(bus, wire, nullptr), 0);
        sd_bus_message_unref(wire);
    }
};
