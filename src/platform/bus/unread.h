// SPDX-License-Identifier: GPL-3.0-only
// What the clients of the public bus have not read. A bus daemon counts what waits for a client against the
// sender, and stops reading from a sender that has too much waiting: without a bound here clients that do
// not read would silence the service.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>

#include "platform/bus/connection.h"

struct Peer;

// What a message takes beside its payload, about.
inline constexpr size_t kMessageOverhead = 256;

// What the client has not read, as far as is known, and the question about it.
struct Unread {
    uint64_t sent = 0;      // bytes, ever
    uint64_t read = 0;      // of those, shown to be read
    uint64_t asked = 0;     // `sent` when the daemon was asked
    uint64_t pinged = 0;    // `sent` when the client was asked
    int64_t notBefore = 0;  // the daemon is not asked before this time, monotonic microseconds
    int64_t gap = 0;        // microseconds until then; grows while nothing is read
    Slot question;          // to the daemon
    Slot ping;              // to the client

    size_t bytes() const { return static_cast<size_t>(sent - read); }
};

// A message of this size may be sent to the client. Always true on the private bus.
bool busMaySend(const Peer& peer, size_t size);
// `size` bytes go to the client; asks what it has read when much waits.
void busCountSent(Peer& peer, size_t size);
// Asks what the client has read, unless that was asked just now; true while a question is under way.
bool busAskWhatWasRead(Peer& peer);
// Moves what is counted to another user, when the client's user becomes known.
void busMoveUnread(Peer& peer, unsigned user);
// The client is gone, and with it all that waits for it.
void busForgetUnread(Peer& peer);
// Sees every call before it is handed on, so that what sd-bus answers by itself is bounded as well.
int busWatchCalls(QSHandle* handle);
