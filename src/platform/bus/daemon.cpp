// SPDX-License-Identifier: GPL-3.0-only
// Tells messages of the bus daemon from those of other connections. No state.
#include "platform/bus/daemon.h"

#include <cstring>

bool busIsFromDaemon(sd_bus_message* message) {
    const char* sender = sd_bus_message_get_sender(message);
    return sender && std::strcmp(sender, kBusDaemon) == 0;
}

bool busReadOwnerChange(sd_bus_message* signal, OwnerChange& change) {
    return busIsFromDaemon(signal) && sd_bus_message_is_signal(signal, kBusDaemon, "NameOwnerChanged") > 0 &&
           sd_bus_message_read(signal, "sss", &change.name, &change.before, &change.after) > 0;
}
