// SPDX-License-Identifier: GPL-3.0-only
// The state of one bus connection, shared by the files of this folder; callers see it as QSHandle alone.
// A handle lives as long as its owner or a message of it does; `bus` is null from QSUnregister on.
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

// Whether deaths of clients may have gone unseen; see presence.h.
struct Doubt {
    uint64_t raised = 0;   // how often there was reason
    uint64_t settled = 0;  // up to which of these the daemon was asked
    uint64_t asked = 0;    // `raised` and `peerNumber` when the open question was asked
    uint64_t askedPeers = 0;
    Slot query;
    sd_bus* asker = nullptr;  // a connection for questions that cannot wait; null at rest
};

// The one rule by which the daemon reports the deaths of all clients, when they are many.
struct SharedWatch {
    enum class State { None, Asked, Installed, Refused };
    State state = State::None;
    bool forGood = false;  // the daemon allows too few rules for one each
    Slot rule;
};

// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions): the slots in it cannot be copied
struct QSHandle {
    sd_bus* bus = nullptr;
    QSBus side = QSBus::Private;
    std::string name;  // the service name that the connection owns, "" for a mere client
    QSZeltService* service = nullptr;
    GMainLoop* loop = nullptr;
    GSource* source = nullptr;
    bool processing = false;  // a bus callback of this connection is on the stack
    int references = 1;       // the owner's, and one for each living message

    std::unordered_map<std::string, std::shared_ptr<Peer>> peers;  // callers by unique name
    uint64_t peerNumber = 0;                                       // entries made so far
    Doubt doubt;
    std::unordered_map<std::string, std::shared_ptr<Peer>> passers;  // with something unread, no request yet
    Share unread{8 * 1024 * 1024};  // bytes on their way to clients, as far as is known (public bus)
    Share kept{12 * 1024 * 1024};   // bytes of living requests (public bus)
    bool asksDaemon = true;         // the daemon tells what waits for a client
    bool asksClients = true;        // the daemon lets a Ping pass
    SharedWatch sharedWatch;
    std::unordered_map<unsigned, LogBudget> logBudgets;  // of users, for lines about their requests
    size_t pings = 0;                                    // of clients that have not answered
    Slot callFilter;
    SubscriptionTable byKey;     // free keys
    SubscriptionTable byMethod;  // category and method
    QSFilter cancelFunction = nullptr;
    void* cancelContext = nullptr;
    std::vector<std::unique_ptr<Category>> categories;

    QSToken lastToken = 0;
    std::map<QSToken, std::unique_ptr<Call>> calls;     // placed calls and server-status watches
    std::unordered_map<uint32_t, Call*> answeredCalls;  // those whose later answers are awaited, by serial
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
// Connects, says hello and takes the name when there is one. Null, with the reason in `error`, when it fails.
QSHandle* busOpen(QSBus side, const char* name, QSError* error);
// False, with the reason in `error`, for a null handle and for one that is unregistered.
bool busIsOpen(const QSHandle* handle, QSError* error);
// The log budget of a user of the public bus; nobody's lines are bounded on the private one.
LogBudget& busLogBudget(QSHandle* handle, unsigned user);
void busReference(QSHandle* handle);
void busRelease(QSHandle* handle);

// Handles up to `most` messages without waiting, for a bounded time, and says how many in `handled` and in
// `drained` whether nothing more had come; false when the connection is lost. Does nothing inside a callback.
bool busProcess(QSHandle* handle, int most, int* handled = nullptr, bool* drained = nullptr);
// Logs the loss and ends the main loop.
void busLost(QSHandle* handle);
void busDetach(QSHandle* handle);
