// SPDX-License-Identifier: GPL-3.0-only
// The state of one bus connection, shared by the files of this folder and opaque outside it. A handle lives
// as long as its owner or one of its messages; `bus` is null after QSUnregister.
#pragma once

#include <systemd/sd-bus.h>

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/bus/knownnames.h"
#include "platform/bus/qs.h"
#include "platform/bus/share.h"
#include "platform/bus/slot.h"
#include "platform/bus/subscriptions.h"
#include "util/logbudget.h"

struct Call;
struct Category;
struct Peer;

// Whether disconnections of clients may have been missed; see presence.h.
struct PresenceCheck {
    uint64_t needed = 0;   // events so far after which a check is needed
    uint64_t done = 0;     // of these, those that a finished check covers
    uint64_t queried = 0;  // `needed` and `peerNumber` when the pending query was sent
    uint64_t queriedPeers = 0;
    Slot query;
    sd_bus* queryConnection = nullptr;  // second connection, for blocking queries; null when unused
};

// One match rule for the disconnections of all clients, used when there are many.
struct SharedWatch {
    enum class State { None, Asked, Installed, Refused };
    State state = State::None;
    bool permanent = false;  // stays, because the daemon has refused a rule for a single client
    Slot rule;
};

// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions): the slots in it cannot be copied
struct QSHandle {
    sd_bus* bus = nullptr;
    QSBus side = QSBus::Private;
    std::string name;  // the service name that the connection owns, "" for a client
    QSZeltService* service = nullptr;
    GMainLoop* loop = nullptr;
    GSource* source = nullptr;
    bool processing = false;  // a bus callback of this connection is on the stack
    int references = 1;       // the owner's, and one for each existing message

    std::unordered_map<std::string, std::shared_ptr<Peer>> peers;  // callers by unique name
    uint64_t peerNumber = 0;                                       // Peers created so far
    PresenceCheck presence;
    // Clients with unread bytes that have sent no request for a handler, by unique name.
    std::unordered_map<std::string, std::shared_ptr<Peer>> otherCallers;
    Share unread{8 * 1024 * 1024};  // bytes that clients have not read, as far as is known (public bus)
    Share kept{12 * 1024 * 1024};   // bytes of existing requests (public bus)
    bool asksDaemon = true;         // the daemon may be asked what waits for a client
    bool asksClients = true;        // the daemon delivers a Ping to a client
    SharedWatch sharedWatch;
    std::unordered_map<unsigned, LogBudget> logBudgets;  // of users, for lines about their requests
    size_t pings = 0;                                    // pending Pings to clients
    Slot callFilter;
    SubscriptionTable byKey;     // free keys
    SubscriptionTable byMethod;  // category and method
    QSFilter cancelFunction = nullptr;
    void* cancelContext = nullptr;
    std::vector<std::unique_ptr<Category>> categories;

    QSToken lastToken = 0;
    std::map<QSToken, std::unique_ptr<Call>> calls;     // placed calls and server-status watches
    std::unordered_map<uint32_t, Call*> answeredCalls;  // those that expect later answers, by serial
    Slot answerFilter;
    KnownNames names;

    ~QSHandle();
};

// Both connections of one service; lives until both are unregistered.
struct QSZeltService {
    QSHandle* privateHandle = nullptr;
    QSHandle* publicHandle = nullptr;
    int open = 0;
};

const char* busSideName(const QSHandle* handle);
inline bool busIsPublic(const QSHandle* handle) {
    return handle->side == QSBus::Public;
}
// Connects, and requests the name if there is one. Null, with the reason in `error`, when it fails.
QSHandle* busOpen(QSBus side, const char* name, QSError* error);
// False, with the reason in `error`, for a null handle and for one that was unregistered.
bool busIsOpen(const QSHandle* handle, QSError* error);
// The log budget of a user of the public bus; lines about the private bus are not limited.
LogBudget& busLogBudget(QSHandle* handle, unsigned user);
void busReference(QSHandle* handle);
void busRelease(QSHandle* handle);

// Handles up to `most` messages without waiting, for a bounded time. `handled` receives their number,
// and `drained` whether everything received was handled. False when the connection is lost. Does
// nothing inside a callback.
bool busProcess(QSHandle* handle, int most, int* handled = nullptr, bool* drained = nullptr);
// Detaches a lost connection and quits the main loop.
void busLost(QSHandle* handle);
void busDetach(QSHandle* handle);
