// SPDX-License-Identifier: GPL-3.0-only
// Pending calls with a callback. A call leaves the table with its reply; one that subscribed stays until its
// service ends it or disconnects, and a server-status watch until it is cancelled.
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
    std::string server;                // sender of the first answer, while later ones are expected
    std::shared_ptr<NameWatch> watch;  // of that server, or of the watched service
    QSFilter ended = nullptr;          // called when no answer follows; may be null
    void* endedContext = nullptr;

    ~Call();
};

// Adds a new call to the handle's table.
Call* busNewCall(QSHandle* handle, QSFilter callback, void* context, const BusAddress& address);
void busEndCall(QSHandle* handle, QSToken token);
// Calls the callback with `payload`; the call may be deleted afterwards. `wire` may be null.
void busTell(const Call& call, sd_bus_message* wire, const char* payload, const char* errorName);

// Whether this is the address that the layer serves itself: it reports whether a service is running.
bool busIsServerStatus(const BusAddress& address);
bool busWatchServer(QSHandle* handle, const BusAddress& address, const char* payload, QSFilter callback,
                    void* context, QSToken* token, QSError* error);
