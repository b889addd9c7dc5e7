// SPDX-License-Identifier: GPL-3.0-only
// A category of a service: an object of the bus whose interface is the service's name and whose methods
// are a table.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "platform/bus/connection.h"

// One method; sd-bus hands it to the request callback, so that dispatch is one look-up.
struct Method {
    Category* category;
    std::string name;
    QSFilter handler;
    bool needsIdentity;  // a call whose caller left before it was identified is refused
};

struct MethodTable {
    const QSMethod* methods;  // null is an empty table
    bool needsIdentity;
};

struct Category {
    QSHandle* handle;
    std::string path;
    void* context;
    std::vector<Method> methods;
    std::vector<sd_bus_vtable> table;
    // Last, so that the registrations end before the tables that sd-bus reads at their end.
    Slot object;
    Slot subscriptionObject;
};

// Of two methods with the same name in `tables` the first one is used.
bool busAddCategory(QSHandle* handle, const char* path, std::initializer_list<MethodTable> tables,
                    void* context, QSError* error);
