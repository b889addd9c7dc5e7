// SPDX-License-Identifier: GPL-3.0-only
// Who a client is: from the credentials of its connection to its application id.
#pragma once

#include <systemd/sd-bus.h>

#include <string>

// What a bus daemon tells about the process behind a connection. A value of 0 means that it told nothing.
struct BusCredentials {
    unsigned pid = 0;
    unsigned user = static_cast<unsigned>(-1);
    std::string label;
};

// Reads the answer to GetConnectionCredentials.
BusCredentials busReadCredentials(sd_bus_message* reply);
// What stays the same as long as a process lives and differs for the next one with its id: the start time and
// the user. "" when there is no such process, or when it has ended.
std::string busProcessMark(unsigned pid);
// "ID PID" by the rules of the installation (docs/bus.md lists its environment variables), "" without an id.
std::string busApplicationId(const BusCredentials& credentials);
// One warning a process when clients may name themselves.
void busWarnOfTrustedEnvironment();
