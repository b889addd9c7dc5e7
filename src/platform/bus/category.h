// SPDX-License-Identifier: GPL-3.0-only
// A category of a service: a D-Bus object whose interface is the service's name and whose
// methods come from tables.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "platform/bus/connection.h"

// One method; sd-bus passes it to the request callback, so that no further look-up is needed.
struct Method {
    Category* category;
    std::string name;
    QSFilter handler;
    bool needsIdentity;  // a call is refused when its caller disconnects before it is identified
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
    // Last, so that they are destroyed before the tables, which sd-bus still reads when a registration ends.
    Slot object;
    Slot subscriptionObject;
};

// Of two methods with the same name in `tables` the first one is used.
bool busAddCategory(QSHandle* handle, const char* path, std::initializer_list<MethodTable> tables,
                    void* context, QSError* error);
