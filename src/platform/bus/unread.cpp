// SPDX-License-Identifier: GPL-3.0-only
// Limits for the bytes that wait in the bus daemon for clients. What was sent counts as unread until a query
// shows that it was read; queries are made when much has been sent. First the daemon is asked how many bytes
// wait for the client. If the daemon does not tell, or much is still waiting, the client is sent a Ping,
// whose reply shows that it has read everything sent before. The daemon's numbers cover programs that answer
// no Ping while they wait for a reply; the Ping shows without polling when a slow client has read. In
// memory, with the connection.
#include "platform/bus/unread.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "platform/bus/category.h"
#include "platform/bus/daemon.h"
#include "platform/bus/error.h"
#include "platform/bus/message.h"
#include "platform/bus/peers.h"
#include "util/log.h"

namespace {

constexpr char kStatistics[] = "org.freedesktop.DBus.Debug.Stats";
constexpr char kPeerInterface[] = "org.freedesktop.DBus.Peer";

// The limit of one client: what its user may still add, divided by the number of clients, but between these
// two. A long message, such as an item, may exceed it.
constexpr size_t kLeastLimit = 8 * 1024;
constexpr size_t kMostLimit = 128 * 1024;
constexpr size_t kClientsPerShare = 64;
// With at most this much unread, a client gets a message of at most this size always, and a longer one while
// the limit for all clients allows it.
constexpr size_t kSmallMessage = 1024;
// The limit for all clients together, except for those small messages. The `max_incoming_bytes` of a bus
// daemon bounds it: 127 MiB by default, and at least 16 MiB is required.
constexpr size_t kTotalLimit = 12 * 1024 * 1024;
// A message of at most the first size may exceed the limit of its client; a longer one only up to this part
// of what the user may still add.
constexpr size_t kLongMessage = 32 * 1024;
constexpr size_t kLongMessagesPerShare = 8;
// Microseconds between two queries to the daemon about a client that has reached its limit.
constexpr int64_t kShortestGap = 1000;
constexpr int64_t kLongestGap = 256 * 1000;
// A daemon may limit a connection to 128 pending replies.
constexpr size_t kMostPings = 64;
// Callers that have sent no request for a handler; each is kept while it has something unread.
constexpr size_t kMostOtherCallers = 256;
constexpr size_t kIntrospection = 16 * 1024;
constexpr size_t kLongestPath = 255;
constexpr uint64_t kAnswerDeadline = 2'000'000;  // microseconds
constexpr uint64_t kNoTimeout = std::numeric_limits<uint64_t>::max();

size_t limitOf(const Peer& peer) {
    return std::clamp(peer.handle->unread.available(peer.user) / kClientsPerShare, kLeastLimit, kMostLimit);
}

void endPing(Peer& peer) {
    if (peer.unread.ping)
        peer.handle->pings--;
    peer.unread.ping.reset();
}

int askClient(Peer& peer);

// Records that the first `upTo` bytes that were sent have been read.
void countRead(Peer& peer, uint64_t upTo) {
    Unread& unread = peer.unread;
    const uint64_t read = upTo - std::min(upTo, unread.read);
    unread.read += read;
    peer.handle->unread.take(peer.user, static_cast<size_t>(read));
    unread.gap = read ? 0 : std::clamp(2 * unread.gap, kShortestGap, kLongestGap);
    unread.notBefore = busMaySend(peer, kMessageOverhead) ? 0 : g_get_monotonic_time() + unread.gap;
    if (unread.bytes() > limitOf(peer) / 4 && !unread.ping)
        askClient(peer);
    if (unread.bytes() || !peer.handle->otherCallers.erase(peer.name))
        busDispatchHeld(peer);
}

bool readOutgoing(sd_bus_message* reply, uint32_t& bytes) {
    if (sd_bus_message_enter_container(reply, 'a', "{sv}") <= 0)
        return false;
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
        const char* key = nullptr;
        if (sd_bus_message_read(reply, "s", &key) < 0)
            return false;
        if (std::strcmp(key, "OutgoingBytes") == 0)
            return sd_bus_message_read(reply, "v", "u", &bytes) > 0;
        sd_bus_message_skip(reply, "v");
        sd_bus_message_exit_container(reply);
    }
    return false;
}

bool isGone(sd_bus_message* reply) {
    return sd_bus_message_is_method_error(reply, SD_BUS_ERROR_NAME_HAS_NO_OWNER) ||
           sd_bus_message_is_method_error(reply, SD_BUS_ERROR_SERVICE_UNKNOWN);
}

bool isRefused(sd_bus_message* reply) {
    return sd_bus_message_is_method_error(reply, SD_BUS_ERROR_ACCESS_DENIED) ||
           sd_bus_message_is_method_error(reply, SD_BUS_ERROR_UNKNOWN_METHOD) ||
           sd_bus_message_is_method_error(reply, SD_BUS_ERROR_UNKNOWN_INTERFACE) ||
           sd_bus_message_is_method_error(reply, SD_BUS_ERROR_UNKNOWN_OBJECT);
}

// The match rule reports the disconnection of a client with requests; for other callers nothing else does.
void forgetGone(Peer& peer) {
    busForgetUnread(peer);
    peer.handle->otherCallers.erase(peer.name);
}

int onStatistics(sd_bus_message* reply, void* data, sd_bus_error*) {
    const std::shared_ptr<Peer> peer = busKnownPeer(static_cast<Peer*>(data));
    if (!peer)
        return 0;
    peer->unread.question.reset();
    uint32_t waiting = 0;
    if (busIsFromDaemon(reply) && isGone(reply)) {
        forgetGone(*peer);
    } else if (busIsFromDaemon(reply) && readOutgoing(reply, waiting)) {
        countRead(*peer, peer->unread.asked - std::min<uint64_t>(peer->unread.asked, waiting));
    } else {
        if (busIsFromDaemon(reply) && isRefused(reply))
            peer->handle->asksDaemon = false;
        countRead(*peer, 0);
    }
    return 0;
}

int onPong(sd_bus_message* reply, void* data, sd_bus_error*) {
    const std::shared_ptr<Peer> peer = busKnownPeer(static_cast<Peer*>(data));
    if (!peer)
        return 0;
    endPing(*peer);
    QSHandle* handle = peer->handle;
    const char* sender = sd_bus_message_get_sender(reply);
    // Any reply of the client, an error too, shows that it has read everything sent before the Ping.
    if (sender && peer->name == sender) {
        countRead(*peer, peer->unread.pinged);
    } else if (busIsFromDaemon(reply) && isGone(reply)) {
        forgetGone(*peer);
    } else if (busIsFromDaemon(reply) && sd_bus_message_is_method_error(reply, SD_BUS_ERROR_ACCESS_DENIED)) {
        handle->asksClients = false;
        if (!handle->asksDaemon)
            PrvPrintErr({},
                        "The public bus lets this service ask neither what a client has read nor the client: "
                        "what waits for clients that do not read is not bounded. Install "
                        "com.zelt.pubsubservice.conf");
        busDispatchHeld(*peer);
    }
    return 0;
}

int askDaemon(Peer& peer) {
    peer.unread.asked = peer.unread.sent;
    Wire question;
    int result = sd_bus_message_new_method_call(peer.handle->bus, Receive(question), kBusDaemon,
                                                kBusDaemonPath, kStatistics, "GetConnectionStats");
    if (result >= 0)
        result = sd_bus_message_append(question.get(), "s", peer.name.c_str());
    // Time limit: the daemon drops its reply while its outgoing queue for this connection is full.
    return result < 0 ? result
                      : sd_bus_call_async(peer.handle->bus, Receive(peer.unread.question), question.get(),
                                          onStatistics, &peer, kAnswerDeadline);
}

int askClient(Peer& peer) {
    if (peer.handle->pings >= kMostPings || !peer.handle->asksClients)
        return 0;
    Wire ping;
    int result = sd_bus_message_new_method_call(peer.handle->bus, Receive(ping), peer.name.c_str(), "/",
                                                kPeerInterface, "Ping");
    if (result < 0)
        return result;
    sd_bus_message_set_auto_start(ping.get(), 0);
    // No time limit, and so no timer: a client may begin to read again at any time.
    result =
        sd_bus_call_async(peer.handle->bus, Receive(peer.unread.ping), ping.get(), onPong, &peer, kNoTimeout);
    if (result < 0)
        return result;
    peer.unread.pinged = peer.unread.sent;
    peer.handle->pings++;
    return result;
}

// True when a handler of the service gets the call; its answers are counted where they are sent.
bool isServed(const QSHandle* handle, const char* path, sd_bus_message* wire) {
    const char* interface = sd_bus_message_get_interface(wire);
    const char* member = sd_bus_message_get_member(wire);
    const char* signature = sd_bus_message_get_signature(wire, 1);
    if (!interface || handle->name != interface || !signature || std::strcmp(signature, "s") != 0)
        return false;
    for (const auto& category : handle->categories)
        if (category->path == path)
            return std::any_of(category->methods.begin(), category->methods.end(),
                               [&](const Method& method) { return method.name == member; });
    return false;
}

// An upper bound for the size of a reply that sd-bus makes itself; its error texts repeat parts of the call.
size_t builtInReplySize(const char* path, sd_bus_message* wire) {
    const char* interface = sd_bus_message_get_interface(wire);
    if (interface && std::strcmp(interface, "org.freedesktop.DBus.Introspectable") == 0)
        return kIntrospection;
    const char* signature = sd_bus_message_get_signature(wire, 1);
    return kMessageOverhead + std::strlen(path) + std::strlen(sd_bus_message_get_member(wire)) +
           (interface ? std::strlen(interface) : 0) + (signature ? std::strlen(signature) : 0);
}

// The Peer that counts what a caller has not read, even if it never sends a request for a handler; null when
// there are too many such callers.
Peer* peerOf(QSHandle* handle, const char* sender) {
    auto found = handle->peers.find(sender);
    if (found != handle->peers.end())
        return found->second.get();
    found = handle->otherCallers.find(sender);
    if (found != handle->otherCallers.end())
        return found->second.get();
    if (handle->otherCallers.size() >= kMostOtherCallers / 4)
        busAskWhatWasRead(*handle->otherCallers.begin()->second);
    if (handle->otherCallers.size() >= kMostOtherCallers)
        return nullptr;
    auto caller = std::make_shared<Peer>();
    caller->handle = handle;
    caller->name = sender;
    return handle->otherCallers.emplace(sender, std::move(caller)).first->second.get();
}

int onAnyMessage(sd_bus_message* wire, void* data, sd_bus_error*) {
    auto* handle = static_cast<QSHandle*>(data);
    uint8_t type = 0;
    const char* sender = sd_bus_message_get_sender(wire);
    if (sd_bus_message_get_type(wire, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_CALL || !sender)
        return 0;
    const char* path = sd_bus_message_get_path(wire);
    if (isServed(handle, path, wire))
        return 0;
    Peer* peer = peerOf(handle, sender);
    const bool tooLong = std::strlen(path) > kLongestPath;
    const size_t size = tooLong ? kMessageOverhead : builtInReplySize(path, wire);
    if (!peer || !busMaySend(*peer, size)) {
        if (peer)
            busAskWhatWasRead(*peer);
        return 1;
    }
    if (sd_bus_message_get_expect_reply(wire) > 0)
        busCountSent(*peer, size);
    if (!tooLong)
        return 0;
    sd_bus_reply_method_errorf(wire, SD_BUS_ERROR_UNKNOWN_OBJECT, "No object has a path of this length");
    return 1;
}

}  // namespace

bool busMaySend(const Peer& peer, size_t size) {
    const QSHandle* handle = peer.handle;
    // When neither the daemon nor the clients can be queried, it is unknown what was read,
    // and nothing is limited.
    if (!busIsPublic(handle) || (!handle->asksDaemon && !handle->asksClients))
        return true;
    const size_t unread = peer.unread.bytes();
    if (unread <= kSmallMessage && size <= kSmallMessage)
        return true;
    if (handle->unread.total() + size > kTotalLimit)
        return false;
    if (unread <= kSmallMessage)
        return true;
    const size_t limit = limitOf(peer);
    return (unread < limit && size <= kLongMessage) ||
           unread + size <= std::max(limit, handle->unread.available(peer.user) / kLongMessagesPerShare);
}

void busCountSent(Peer& peer, size_t size) {
    if (!busIsPublic(peer.handle))
        return;
    peer.unread.sent += size;
    peer.handle->unread.add(peer.user, size);
    const size_t unread = peer.unread.bytes();
    if (unread > kLeastLimit / 4 && unread > limitOf(peer) / 4)
        busAskWhatWasRead(peer);
}

bool busAskWhatWasRead(Peer& peer) {
    const Unread& unread = peer.unread;
    QSHandle* handle = peer.handle;
    if (!handle->bus)
        return false;
    if (handle->asksDaemon && !unread.question && g_get_monotonic_time() >= unread.notBefore)
        askDaemon(peer);
    else if (!handle->asksDaemon && !unread.ping)
        askClient(peer);
    return unread.question || unread.ping;
}

void busMoveUnread(Peer& peer, unsigned user) {
    peer.handle->unread.take(peer.user, peer.unread.bytes());
    peer.handle->unread.add(user, peer.unread.bytes());
}

void busForgetUnread(Peer& peer) {
    endPing(peer);
    peer.unread.question.reset();
    peer.handle->unread.take(peer.user, peer.unread.bytes());
    peer.unread.read = peer.unread.sent;
}

int busWatchCalls(QSHandle* handle) {
    return sd_bus_add_filter(handle->bus, Receive(handle->callFilter), onAnyMessage, handle);
}
