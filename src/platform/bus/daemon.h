// SPDX-License-Identifier: GPL-3.0-only
// The bus daemon as a peer: its address, and what counts as its own word.
#pragma once

#include <systemd/sd-bus.h>

inline constexpr char kBusDaemon[] = "org.freedesktop.DBus";
inline constexpr char kBusDaemonPath[] = "/org/freedesktop/DBus";

// A match rule decides what a daemon sends to all. A signal that somebody addresses to this connection alone
// passes it, whatever its sender; the sender is the daemon's own entry and cannot be chosen.
bool busIsFromDaemon(sd_bus_message* message);

struct OwnerChange {
    const char* name = "";  // all three point into the signal
    const char* before = "";
    const char* after = "";
};

// Reads a NameOwnerChanged; false for one that is not the daemon's.
bool busReadOwnerChange(sd_bus_message* signal, OwnerChange& change);
