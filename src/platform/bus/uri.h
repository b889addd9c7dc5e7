// SPDX-License-Identifier: GPL-3.0-only
// The address of a bus method as callers write it, and its parts on D-Bus.
#pragma once

#include <string>

#include "platform/bus/qs.h"

struct BusAddress {
    std::string service;  // destination and interface
    std::string path;     // object path, "/" when the address names no category
    std::string method;   // member
};

// Reads zelt://SERVICE/CATEGORY.../METHOD or quor://...; false, with the reason in `error`, when it is not
// such an address or one of its parts is not valid on D-Bus.
bool busParseUri(const char* uri, BusAddress& address, QSError* error);
