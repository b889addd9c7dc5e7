// SPDX-License-Identifier: GPL-3.0-only
// The identity of a client: from the credentials of its connection to its application id.
#pragma once

#include <systemd/sd-bus.h>

#include <string>

// The credentials of a connection. What the daemon does not tell keeps its initial value.
struct BusCredentials {
    unsigned pid = 0;
    unsigned user = static_cast<unsigned>(-1);
    std::string label;
};

// Reads the reply to GetConnectionCredentials.
BusCredentials busReadCredentials(sd_bus_message* reply);
// Distinguishes a process from a later one with the same id: its start time and user. "" when there is no
// such process, or when it has ended.
std::string busProcessMark(unsigned pid);
// "ID PID" by the rules of the installation (docs/bus.md lists its environment variables), "" without an id.
std::string busApplicationId(const BusCredentials& credentials);
// Warns, once per process, when clients may choose their own application id.
void busWarnOfTrustedEnvironment();
