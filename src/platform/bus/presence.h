// SPDX-License-Identifier: GPL-3.0-only
// Whether known clients are still connected. The daemon signals each disconnection, but drops signals and
// replies alike while its outgoing queue for this connection is full. When that may have happened, the
// daemon is asked for the list of names. Until it has replied, a caller that must be certain queries the
// daemon on a second connection.
#pragma once

#include "platform/bus/connection.h"

struct Peer;

// Before each read: records when the socket holds so much that the daemon may have dropped messages.
void busNoteBacklog(QSHandle* handle);
// Records that disconnections may be unknown, for example because a bounded read has left messages unread.
void busNoteMissedSignals(QSHandle* handle);
// After each dispatch: if disconnections may have been missed and everything received has been read, requests
// the list of names.
void busCheckPresence(QSHandle* handle);
// True when the client is connected now. Waits for the daemon's reply when a disconnection may
// be unread or lost.
bool busIsThere(const Peer& peer);
// At the end of the connection: closes the second connection and ends the pending query.
void busEndPresenceCheck(QSHandle* handle);
