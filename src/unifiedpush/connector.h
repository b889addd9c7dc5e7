// SPDX-License-Identifier: GPL-3.0-only
// The calls that an application gets, in the two versions of the connector's interface, and what its answer
// means.
#pragma once

#include <string>
#include <string_view>

#include "platform/bus/slot.h"
#include "unifiedpush/registration.h"

inline constexpr char kConnectorPath[] = "/org/unifiedpush/Connector";

// Each is null when it could not be made. `to` is the bus name that is called.
Wire newMessageCall(sd_bus* bus, const Registration& registration, const std::string& id,
                    std::string_view bytes);
Wire newEndpointCall(sd_bus* bus, const Registration& registration, const std::string& to);
// `token` is what the application is told; in version 1 an empty one confirms.
Wire newUnregisteredCall(sd_bus* bus, int version, const std::string& to, const std::string& token);

enum class Outcome {
    Taken,        // any method return
    Absent,       // nobody has the name, and the daemon knows no way to start it
    Unstartable,  // the daemon tried to start it, and failed
    NotYet,       // it is starting, silent, has ended, or does not have the object yet
    Refused       // its own answer is an error
};
Outcome outcomeOf(sd_bus_message* answer);
