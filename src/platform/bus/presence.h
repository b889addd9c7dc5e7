// SPDX-License-Identifier: GPL-3.0-only
// Whether the clients that are known are still there. The daemon reports each death by a signal, but drops
// what it sends to a connection whose inbox is full, signals and answers alike. When that may have
// happened it is asked for the names that exist; until it has answered, whoever must be sure asks by a
// connection of its own.
#pragma once

#include "platform/bus/connection.h"

struct Peer;

// Before each read: notes when so much waits in the socket that the daemon may have had to drop something.
void busNoteBacklog(QSHandle* handle);
// A reader that must not go on leaves something unread: the deaths in it are not known.
void busNoteUnread(QSHandle* handle);
// After each turn: when presence is in doubt and all has been read, asks the daemon who is still there.
void busSettleDoubt(QSHandle* handle);
// True when the daemon knows the client now. Waits for the daemon's answer when deaths may be unread or lost.
bool busIsThere(const Peer& peer);
// At the end of the connection.
void busEndDoubt(QSHandle* handle);
