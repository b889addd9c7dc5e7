// SPDX-License-Identifier: GPL-3.0-only
// Placed calls that a callback waits for. A call leaves the table with its reply; one that subscribed stays
// until its service ends it or is gone, and a server-status watch until it is cancelled.
#pragma once

#include <memory>
#include <string>

#include "platform/bus/connection.h"
#include "platform/bus/namewatch.h"
#include "platform/bus/uri.h"

// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions): an aggregate; its slot cannot be copied
struct Call {
    QSHandle* handle;  // borrowed: it owns the call
    QSToken token;
    QSFilter callback;
    void* context;
    BusAddress address;
    bool subscribes = false;
    uint32_t serial = 0;
    Slot reply;                        // pending until the first answer
    std::string server;                // who gave the first answer, when later ones are awaited
    std::shared_ptr<NameWatch> watch;  // of that server, or of the watched service
    QSFilter ended = nullptr;          // told when no answer follows; may be null
    void* endedContext = nullptr;

    ~Call();
};

// Puts a new call into its handle's table.
Call* busNewCall(QSHandle* handle, QSFilter callback, void* context, const BusAddress& address);
void busEndCall(QSHandle* handle, QSToken token);
// Hands `payload` to the callback; the call may be gone afterwards. `wire` may be null.
void busTell(const Call& call, sd_bus_message* wire, const char* payload, const char* errorName);

// The address that the layer serves itself: up and down reports of a service.
bool busIsServerStatus(const BusAddress& address);
bool busWatchServer(QSHandle* handle, const BusAddress& address, const char* payload, QSFilter callback,
                    void* context, QSToken* token, QSError* error);
