// SPDX-License-Identifier: GPL-3.0-only
// The bus daemon: its address, and which messages it has sent.
#pragma once

#include <systemd/sd-bus.h>

inline constexpr char kBusDaemon[] = "org.freedesktop.DBus";
inline constexpr char kBusDaemonPath[] = "/org/freedesktop/DBus";

// Match rules select broadcast signals only. A signal that a client addresses to this connection arrives
// without one, whatever its content; the daemon sets the sender, which cannot be forged.
bool busIsFromDaemon(sd_bus_message* message);

struct OwnerChange {
    const char* name = "";  // all three point into the signal
    const char* before = "";
    const char* after = "";
};

// Reads a NameOwnerChanged; false for one that the daemon did not send.
bool busReadOwnerChange(sd_bus_message* signal, OwnerChange& change);
