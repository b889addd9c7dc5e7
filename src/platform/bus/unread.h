// SPDX-License-Identifier: GPL-3.0-only
// What the clients of the public bus have not read. A bus daemon counts the bytes that wait for a client
// against their sender, and stops reading from a sender that has too many waiting. Without a limit here,
// clients that do not read would block the service.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>

#include "platform/bus/connection.h"

struct Peer;

// Approximate size of a message apart from its payload.
inline constexpr size_t kMessageOverhead = 256;

// What the client has not read, as far as is known, and the pending queries about it.
struct Unread {
    uint64_t sent = 0;      // bytes in total
    uint64_t read = 0;      // bytes of these that are known to be read
    uint64_t asked = 0;     // `sent` when the daemon was asked
    uint64_t pinged = 0;    // `sent` when the client was asked
    int64_t notBefore = 0;  // the daemon is not asked before this time, monotonic microseconds
    int64_t gap = 0;        // microseconds until then; grows while nothing is read
    Slot question;          // pending query to the daemon
    Slot ping;              // pending Ping to the client

    size_t bytes() const { return static_cast<size_t>(sent - read); }
};

// Whether a message of this size may be sent to the client; always true on the private bus.
bool busMaySend(const Peer& peer, size_t size);
// Counts `size` bytes as sent to the client; queries what it has read when much is unread.
void busCountSent(Peer& peer, size_t size);
// Queries what the client has read, unless that was done just now; true while a query is pending.
bool busAskWhatWasRead(Peer& peer);
// Moves the client's count to another user, when its user becomes known.
void busMoveUnread(Peer& peer, unsigned user);
// Clears the client's count: when a client disconnects, the daemon drops what waits for it.
void busForgetUnread(Peer& peer);
// Filters every incoming call before it is dispatched, so that the replies that sd-bus makes itself
// are limited as well.
int busWatchCalls(QSHandle* handle);
