// SPDX-License-Identifier: GPL-3.0-only
// The clients of a connection: one Peer each, from its first request until it disconnects. The Peer
// owns the match rule for the disconnection and the application id; both are requested asynchronously
// with the first request.
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
    std::string name;     // unique name; a daemon assigns each only once
    uint64_t number = 0;  // consecutive number within the handle
    State state = State::Asking;
    std::string applicationId;  // "ID PID", "" without an id
    unsigned user = kUnknownUser;
    bool identified = false;     // the credentials have arrived or were refused
    bool watchAnswered = false;  // the request for the match rule was answered
    bool watched = false;        // the daemon reports its disconnection

    // Requests that wait for the identity, or until the client is known to read; one reference each.
    std::vector<QSMessage*> held;
    std::vector<QSMessage*> subscribed;  // requests on any list, oldest first; owned by the lists
    size_t subscriptions = 0;            // list memberships of its requests
    size_t unanswered = 0;               // its requests that wait for an answer
    size_t requests = 0;                 // its requests that still exist
    size_t kept = 0;                     // bytes of those
    Unread unread;

    Slot watch;
    Slot identity;
};

// The Peer of a caller, created on its first request; null when the connection fails.
std::shared_ptr<Peer> busPeer(QSHandle* handle, const char* name);
// The client has disconnected: removes its Peer. The caller must hold a reference.
void busClientDisconnected(const std::shared_ptr<Peer>& peer);
// The Peer if it is still in one of the handle's tables, else null.
std::shared_ptr<Peer> busKnownPeer(Peer* peer);
// Dispatches the waiting requests while answers may be sent to the client. The rest keeps waiting while a
// query about what the client has read is pending, and is dropped without an answer otherwise.
void busDispatchHeld(Peer& peer);
// Cancels the subscription that the call with this serial opened; false when there is none.
bool busCancelSerial(QSHandle* handle, const char* sender, uint32_t serial);
// Called when a request is destroyed. A Peer whose disconnection would not be reported is removed
// with its last request.
void busForgetRequest(QSMessage* request);
// At the end of the connection: closes the waiting requests and removes every Peer. Messages may still refer
// to a removed Peer.
void busDropAllPeers(QSHandle* handle);
