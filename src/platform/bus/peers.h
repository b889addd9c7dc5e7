// SPDX-License-Identifier: GPL-3.0-only
// The clients of a connection: one entry each, from the first request to the death of the client. The entry
// owns the watch for its death and its application id, both asked for asynchronously with the first request.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/bus/connection.h"
#include "platform/bus/unread.h"

inline constexpr unsigned kUnknownUser = static_cast<unsigned>(-1);

struct Peer {
    enum class State { Asking, Known, Gone };

    QSHandle* handle;     // borrowed; not used once the state is Gone
    std::string name;     // unique name, never given twice by one daemon
    uint64_t number = 0;  // counts the entries of the handle
    State state = State::Asking;
    std::string applicationId;  // "ID PID", "" without an id
    unsigned user = kUnknownUser;
    bool identified = false;     // the daemon has told, or refused to tell, who it is
    bool watchAnswered = false;  // the daemon has said whether it reports its death
    bool watched = false;        // the daemon reports its death

    // Requests that wait for the identity, or for word that the client reads; one reference each.
    std::vector<QSMessage*> held;
    std::vector<QSMessage*> subscribed;  // requests on some list, oldest first; the lists own them
    size_t subscriptions = 0;            // memberships of its requests
    size_t unanswered = 0;               // its requests that wait for an answer
    size_t requests = 0;                 // its requests that still exist
    size_t kept = 0;                     // bytes of those
    Unread unread;

    Slot watch;
    Slot identity;
};

// The entry of a caller, made on its first request; null when the connection fails.
std::shared_ptr<Peer> busPeer(QSHandle* handle, const char* name);
// The daemon no longer knows the client. The caller holds a reference: the entry goes here.
void busClientDied(const std::shared_ptr<Peer>& peer);
// The entry that is still in one of the tables; null when it has left.
std::shared_ptr<Peer> busKnownPeer(Peer* peer);
// The client reads, or it does not: held requests go to their handlers, or are dropped without an answer.
void busHandOnHeld(Peer& peer);
// Cancels the subscription that the call with this serial opened; false when there is none.
bool busCancelSerial(QSHandle* handle, const char* sender, uint32_t serial);
// A request of the entry ends. An entry whose client's death nobody would report goes with its last request.
void busForgetRequest(QSMessage* request);
// At the end of the connection: held requests are closed, entries are left to the messages that
// still need them.
void busDropAllPeers(QSHandle* handle);
