// SPDX-License-Identifier: GPL-3.0-only
// Whether clients are still connected when signals of the daemon may have been lost. The state is the
// handle's `doubt`. The second connection is open only while there is doubt; it has no match rules, so the
// daemon's outgoing queue for it stays short.
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

bool isInDoubt(const QSHandle* handle) {
    return handle->doubt.raised != handle->doubt.settled;
}

// Considers only clients that were known when the query was sent; later ones may be missing in the reply.
void judge(QSHandle* handle, const std::set<std::string>& there, uint64_t before) {
    std::vector<std::shared_ptr<Peer>> gone;
    for (const auto& [name, peer] : handle->peers) {
        if (peer->number < before && !there.contains(name))
            gone.push_back(peer);
    }
    for (const std::shared_ptr<Peer>& peer : gone) {
        if (handle->bus)
            busClientDied(peer);
    }
}

int onNames(sd_bus_message* reply, void* data, sd_bus_error*) {
    auto* handle = static_cast<QSHandle*>(data);
    Doubt& doubt = handle->doubt;
    doubt.query.reset();
    // If the reply was lost, the query is repeated at the end of this dispatch.
    if (sd_bus_message_get_error(reply) || sd_bus_message_enter_container(reply, 'a', "s") <= 0)
        return 0;
    doubt.settled = doubt.asked;
    std::set<std::string> there;
    const char* name = nullptr;
    while (sd_bus_message_read(reply, "s", &name) > 0)
        there.insert(name);
    judge(handle, there, doubt.askedPeers);
    return 0;
}

bool openAsker(QSHandle* handle) {
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
    handle->doubt.asker = bus;
    return bus != nullptr;
}

void closeAsker(QSHandle* handle) {
    handle->doubt.asker = sd_bus_close_unref(handle->doubt.asker);
}

// 1 or 0; negative when the daemon gives no reply.
int askIsThere(QSHandle* handle, const std::string& name) {
    if (!handle->doubt.asker && !openAsker(handle))
        return -1;
    Wire question, answer;
    int there = -1;
    int result = sd_bus_message_new_method_call(handle->doubt.asker, Receive(question), kBusDaemon,
                                                kBusDaemonPath, kBusDaemon, "NameHasOwner");
    if (result >= 0)
        result = sd_bus_message_append(question.get(), "s", name.c_str());
    if (result >= 0)
        result = sd_bus_call(handle->doubt.asker, question.get(), kAnswerDeadline, nullptr, Receive(answer));
    if (result >= 0)
        result = sd_bus_message_read(answer.get(), "b", &there);
    // Discards messages that other clients send to this connection.
    for (int i = 0; result >= 0 && i < kMostDiscarded; i++) {
        if (sd_bus_process(handle->doubt.asker, nullptr) <= 0)
            break;
    }
    if (result < 0)
        closeAsker(handle);
    return result < 0 ? -1 : there;
}

}  // namespace

void busNoteBacklog(QSHandle* handle) {
    if (unreadBytes(handle) >= kBacklog)
        handle->doubt.raised++;
}

void busNoteUnread(QSHandle* handle) {
    handle->doubt.raised++;
}

void busSettleDoubt(QSHandle* handle) {
    Doubt& doubt = handle->doubt;
    if (handle->peers.empty())
        doubt.settled = doubt.raised;
    if (!isInDoubt(handle)) {
        closeAsker(handle);
        return;
    }
    if (doubt.query || unreadBytes(handle) > 0)
        return;
    doubt.asked = doubt.raised;
    doubt.askedPeers = handle->peerNumber;
    Wire question;
    if (sd_bus_message_new_method_call(handle->bus, Receive(question), kBusDaemon, kBusDaemonPath, kBusDaemon,
                                       "ListNames") >= 0)
        sd_bus_call_async(handle->bus, Receive(doubt.query), question.get(), onNames, handle,
                          kAnswerDeadline);
}

bool busIsThere(const Peer& peer) {
    if (peer.state == Peer::State::Gone)
        return false;
    QSHandle* handle = peer.handle;
    busNoteBacklog(handle);
    if (!isInDoubt(handle) && !isNamedInUnread(peer))
        return true;
    int there = askIsThere(handle, peer.name);
    // The second connection may have been lost since its last use, so the query is repeated once
    // on a new one.
    if (there < 0)
        there = askIsThere(handle, peer.name);
    if (there < 0) {
        const LogPayer payer(busLogBudget(handle, peer.user));
        PrvPrintErr({}, "The %s bus does not tell whether the client %s is there", busSideName(handle),
                    peer.name.c_str());
    }
    return there > 0;
}

void busEndDoubt(QSHandle* handle) {
    closeAsker(handle);
    handle->doubt.query.reset();
}
