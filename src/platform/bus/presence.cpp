// SPDX-License-Identifier: GPL-3.0-only
// Whether clients are still connected when signals of the daemon may have been lost. The state is the
// handle's `presence`. The second connection is open only while a check is needed; it has no match rules, so
// the daemon's outgoing queue for it stays short.
#include "platform/bus/presence.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>
#include <set>
#include <string>

#include "platform/bus/daemon.h"
#include "platform/bus/peers.h"
#include "util/log.h"

namespace {

// The daemon queues messages, and may then drop some, only while the socket buffer is full. Even with the
// kernel's smallest buffers, a socket that is full of the smallest messages holds more bytes than this.
constexpr int kBacklog = 16 * 1024;
constexpr int kMostDiscarded = 256;
constexpr uint64_t kAnswerDeadline = 2'000'000;  // microseconds

int unreadBytes(QSHandle* handle) {
    int bytes = 0;
    return ioctl(sd_bus_get_fd(handle->bus), FIONREAD, &bytes) == 0 ? bytes : 0;
}

// Whether the unread bytes in the socket contain the client's name, as a signal of its disconnection does.
bool isNamedInUnread(const Peer& peer) {
    char unread[kBacklog];
    const ssize_t length =
        recv(sd_bus_get_fd(peer.handle->bus), unread, sizeof unread, MSG_PEEK | MSG_DONTWAIT);
    return length > 0 &&
           memmem(unread, static_cast<size_t>(length), peer.name.c_str(), peer.name.size() + 1) != nullptr;
}

bool isPresenceUncertain(const QSHandle* handle) {
    return handle->presence.needed != handle->presence.done;
}

// Considers only clients that were known when the query was sent; later ones may be missing in the reply.
void removeMissing(QSHandle* handle, const std::set<std::string>& there, uint64_t before) {
    std::vector<std::shared_ptr<Peer>> gone;
    for (const auto& [name, peer] : handle->peers) {
        if (peer->number < before && !there.contains(name))
            gone.push_back(peer);
    }
    for (const std::shared_ptr<Peer>& peer : gone) {
        if (handle->bus)
            busClientDisconnected(peer);
    }
}

int onNames(sd_bus_message* reply, void* data, sd_bus_error*) {
    auto* handle = static_cast<QSHandle*>(data);
    PresenceCheck& presence = handle->presence;
    presence.query.reset();
    // If the reply was lost, the query is repeated at the end of this dispatch.
    if (sd_bus_message_get_error(reply) || sd_bus_message_enter_container(reply, 'a', "s") <= 0)
        return 0;
    presence.done = presence.queried;
    std::set<std::string> there;
    const char* name = nullptr;
    while (sd_bus_message_read(reply, "s", &name) > 0)
        there.insert(name);
    removeMissing(handle, there, presence.queriedPeers);
    return 0;
}

bool openQueryConnection(QSHandle* handle) {
    const char* address = nullptr;
    sd_bus* bus = nullptr;
    int result = sd_bus_get_address(handle->bus, &address);
    if (result >= 0)
        result = sd_bus_new(&bus);
    if (result >= 0)
        result = sd_bus_set_address(bus, address);
    if (result >= 0)
        result = sd_bus_set_bus_client(bus, 1);
    if (result >= 0)
        result = sd_bus_negotiate_fds(bus, 0);
    if (result >= 0)
        result = sd_bus_start(bus);
    if (result < 0)
        bus = sd_bus_close_unref(bus);
    handle->presence.queryConnection = bus;
    return bus != nullptr;
}

void closeQueryConnection(QSHandle* handle) {
    handle->presence.queryConnection = sd_bus_close_unref(handle->presence.queryConnection);
}

// 1 or 0; negative when the daemon gives no reply.
int queryHasOwner(QSHandle* handle, const std::string& name) {
    if (!handle->presence.queryConnection && !openQueryConnection(handle))
        return -1;
    Wire question, answer;
    int there = -1;
    int result = sd_bus_message_new_method_call(handle->presence.queryConnection, Receive(question),
                                                kBusDaemon, kBusDaemonPath, kBusDaemon, "NameHasOwner");
    if (result >= 0)
        result = sd_bus_message_append(question.get(), "s", name.c_str());
    if (result >= 0)
        result = sd_bus_call(handle->presence.queryConnection, question.get(), kAnswerDeadline, nullptr,
                             Receive(answer));
    if (result >= 0)
        result = sd_bus_message_read(answer.get(), "b", &there);
    // Discards messages that other clients send to this connection.
    for (int i = 0; result >= 0 && i < kMostDiscarded; i++) {
        if (sd_bus_process(handle->presence.queryConnection, nullptr) <= 0)
            break;
    }
    if (result < 0)
        closeQueryConnection(handle);
    return result < 0 ? -1 : there;
}

}  // namespace

void busNoteBacklog(QSHandle* handle) {
    if (unreadBytes(handle) >= kBacklog)
        handle->presence.needed++;
}

void busNoteMissedSignals(QSHandle* handle) {
    handle->presence.needed++;
}

void busCheckPresence(QSHandle* handle) {
    PresenceCheck& presence = handle->presence;
    if (handle->peers.empty())
        presence.done = presence.needed;
    if (!isPresenceUncertain(handle)) {
        closeQueryConnection(handle);
        return;
    }
    if (presence.query || unreadBytes(handle) > 0)
        return;
    presence.queried = presence.needed;
    presence.queriedPeers = handle->peerNumber;
    Wire question;
    if (sd_bus_message_new_method_call(handle->bus, Receive(question), kBusDaemon, kBusDaemonPath, kBusDaemon,
                                       "ListNames") >= 0)
        sd_bus_call_async(handle->bus, Receive(presence.query), question.get(), onNames, handle,
                          kAnswerDeadline);
}

bool busIsThere(const Peer& peer) {
    if (peer.state == Peer::State::Gone)
        return false;
    QSHandle* handle = peer.handle;
    busNoteBacklog(handle);
    if (!isPresenceUncertain(handle) && !isNamedInUnread(peer))
        return true;
    int there = queryHasOwner(handle, peer.name);
    // The second connection may have been lost since its last use, so the query is repeated once
    // on a new one.
    if (there < 0)
        there = queryHasOwner(handle, peer.name);
    if (there < 0) {
        const LogPayer payer(busLogBudget(handle, peer.user));
        PrvPrintErr({}, "The %s bus does not tell whether the client %s is there", busSideName(handle),
                    peer.name.c_str());
    }
    return there > 0;
}

void busEndPresenceCheck(QSHandle* handle) {
    closeQueryConnection(handle);
    handle->presence.query.reset();
}
