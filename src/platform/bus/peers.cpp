// SPDX-License-Identifier: GPL-3.0-only
// The clients of a connection: their identity and their disconnection. The match rule is requested before the
// credentials, so a disconnection is either signalled or shown by an error in place of the credentials. A
// Peer is removed when its client disconnects; nothing survives the connection.
#include "platform/bus/peers.h"

#include <algorithm>
#include <utility>

#include "platform/bus/category.h"
#include "platform/bus/daemon.h"
#include "platform/bus/identity.h"
#include "platform/bus/message.h"
#include "platform/bus/presence.h"
#include "util/log.h"

namespace {

std::shared_ptr<Peer> entryOf(Peer* peer) {
    auto found = peer->handle->peers.find(peer->name);
    return found == peer->handle->peers.end() ? nullptr : found->second;
}

void dropHeld(Peer& peer) {
    for (QSMessage* request : std::exchange(peer.held, {}))
        QSMessageUnref(request);
}

void markGone(Peer& peer) {
    peer.state = Peer::State::Gone;
    busForgetUnread(peer);
    peer.watch.reset();
    peer.identity.reset();
}

// Thousands of callers may disconnect right after their call, so at most one line a second is logged; it
// counts the calls since the previous one.
void logRefused(const Peer& peer, const QSMessage& request) {
    static gint64 nextLine = 0;
    static unsigned suppressed = 0;
    const gint64 now = g_get_monotonic_time();
    if (now < nextLine) {
        suppressed++;
        return;
    }
    nextLine = now + G_USEC_PER_SEC;
    const std::string more =
        suppressed ? "; so were " + std::to_string(suppressed) + " calls since the last such line" : "";
    suppressed = 0;
    PrvPrintErr({}, "%s of the client %s is refused: it left before the bus told who it is%s", request.method,
                peer.name.c_str(), more.c_str());
}

// The client has disconnected. Its waiting requests are handled in the order of arrival, except those that
// need an identity which was never received; these are refused.
void finishHeld(Peer& peer) {
    QSHandle* handle = peer.handle;
    busReference(handle);
    for (QSMessage* request : std::exchange(peer.held, {})) {
        // A handler may have closed the connection and freed the method tables.
        if (handle->bus && (peer.identified || !request->target->needsIdentity)) {
            busDispatch(request);
            continue;
        }
        if (handle->bus)
            logRefused(peer, *request);
        QSMessageUnref(request);
    }
    busRelease(handle);
}

void setUser(Peer& peer, unsigned user) {
    busMoveUnread(peer, user);
    peer.handle->kept.take(peer.user, peer.kept);
    peer.handle->kept.add(user, peer.kept);
    peer.user = user;
}

int onOwnerChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
    OwnerChange change;
    if (busReadOwnerChange(signal, change) && !*change.after)
        busClientDisconnected(entryOf(static_cast<Peer*>(data)));
    return 0;
}

// A match rule for each client delivers signals about the service's own clients only. The daemon limits the
// rules of a connection (by default to 512), so with many clients one rule for all unique names of the bus
// replaces them; when few clients are left, each gets its own rule again.
constexpr size_t kMostOwnRules = 64;
constexpr size_t kClientsForOwnRules = 16;

bool shareWatch(QSHandle* handle);
bool watch(Peer& peer);
bool identify(Peer& peer);

// The call to the daemon has timed out. The daemon drops its replies while its outgoing queue for
// this connection is full.
bool wasLost(sd_bus_message* reply) {
    return sd_bus_message_is_method_error(reply, SD_BUS_ERROR_NO_REPLY) > 0;
}

// Dispatches the waiting requests once the client's identity is known and the daemon has answered the request
// for the match rule.
void becomeKnown(Peer& peer) {
    if (peer.state != Peer::State::Asking || !peer.identified || !peer.watchAnswered)
        return;
    peer.state = Peer::State::Known;
    busDispatchHeld(peer);
}

int onAnyOwnerChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto* handle = static_cast<QSHandle*>(data);
    OwnerChange change;
    if (!busReadOwnerChange(signal, change) || *change.after)
        return 0;
    auto found = handle->peers.find(change.name);
    if (found != handle->peers.end())
        busClientDisconnected(std::shared_ptr<Peer>(found->second));
    return 0;
}

// From here on the shared rule reports every disconnection; if the daemon has refused it, none is reported.
int onSharedWatchInstalled(sd_bus_message* reply, void* data, sd_bus_error*) {
    auto* handle = static_cast<QSHandle*>(data);
    if (wasLost(reply) && shareWatch(handle))
        return 0;
    const bool watched = !sd_bus_message_is_method_error(reply, nullptr);
    handle->sharedWatch.state = watched ? SharedWatch::State::Installed : SharedWatch::State::Refused;
    if (!watched)
        PrvPrintErr({}, "Watching the clients of the %s bus failed: %s", busSideName(handle),
                    sd_bus_message_get_error(reply)->message);
    std::vector<std::shared_ptr<Peer>> peers;
    for (const auto& [name, peer] : handle->peers)
        peers.push_back(peer);
    for (const std::shared_ptr<Peer>& peer : peers) {
        peer->watch.reset();
        peer->watchAnswered = true;
        peer->watched = watched;
        becomeKnown(*peer);
    }
    // Disconnections before the shared rule was installed may not have been reported.
    if (handle->bus)
        busNoteMissedSignals(handle);
    return 0;
}

bool shareWatch(QSHandle* handle) {
    static constexpr char kRule[] =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0namespace=':1'";
    handle->sharedWatch.state = SharedWatch::State::Asked;
    return sd_bus_add_match_async(handle->bus, Receive(handle->sharedWatch.rule), kRule, onAnyOwnerChanged,
                                  onSharedWatchInstalled, handle) >= 0;
}

// The rules for single clients are requested before the shared rule is removed, so that no disconnection
// is missed between them.
void endSharedWatch(QSHandle* handle) {
    if (handle->sharedWatch.state != SharedWatch::State::Installed || handle->sharedWatch.permanent ||
        handle->peers.size() > kClientsForOwnRules)
        return;
    handle->sharedWatch.state = SharedWatch::State::None;
    for (const auto& [name, peer] : handle->peers)
        watch(*peer);
    handle->sharedWatch.rule.reset();
    // Signals of the shared rule that have not been read yet reach no callback any more.
    busNoteMissedSignals(handle);
}

// sic: without an install callback sd-bus closes the whole connection when the daemon refuses one match.
int onWatchInstalled(sd_bus_message* reply, void* data, sd_bus_error*) {
    const std::shared_ptr<Peer> peer = entryOf(static_cast<Peer*>(data));
    if (!peer)
        return 0;
    if (wasLost(reply) && watch(*peer))
        return 0;
    if (sd_bus_message_is_method_error(reply, nullptr)) {
        // The daemon's limit of match rules is reached: one rule for all clients replaces
        // those for single clients.
        QSHandle* handle = peer->handle;
        if (handle->sharedWatch.state != SharedWatch::State::None)
            return 0;
        handle->sharedWatch.permanent = true;
        for (const auto& [name, other] : handle->peers)
            other->watch.reset();
        shareWatch(handle);
        return 0;
    }
    peer->watchAnswered = true;
    peer->watched = true;
    becomeKnown(*peer);
    return 0;
}

int onCredentials(sd_bus_message* reply, void* data, sd_bus_error*) {
    const std::shared_ptr<Peer> peer = entryOf(static_cast<Peer*>(data));
    if (!peer)
        return 0;
    if (sd_bus_message_is_method_error(reply, SD_BUS_ERROR_NAME_HAS_NO_OWNER)) {
        busClientDisconnected(peer);
        return 0;
    }
    if (wasLost(reply) && identify(*peer))
        return 0;
    if (sd_bus_message_is_method_error(reply, nullptr)) {
        const LogPayer payer(busLogBudget(peer->handle, peer->user));
        PrvPrintErr({}, "The bus does not tell who %s is: %s", peer->name.c_str(),
                    sd_bus_message_get_error(reply)->message);
    } else {
        const BusCredentials who = busReadCredentials(reply);
        peer->applicationId = busApplicationId(who);
        setUser(*peer, who.user);
    }
    peer->identified = true;
    peer->identity.reset();
    becomeKnown(*peer);
    return 0;
}

// Requests a match rule for the client's disconnection. If the reply to an earlier request was lost, that
// rule may be installed, so it is removed first.
bool watch(Peer& peer) {
    QSHandle* handle = peer.handle;
    if (handle->sharedWatch.state == SharedWatch::State::None && handle->peers.size() >= kMostOwnRules &&
        !shareWatch(handle))
        return false;
    if (handle->sharedWatch.state != SharedWatch::State::None) {
        peer.watched = handle->sharedWatch.state == SharedWatch::State::Installed;
        peer.watchAnswered = handle->sharedWatch.state != SharedWatch::State::Asked;
        return true;
    }
    const std::string rule =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
        peer.name + "'";
    sd_bus* bus = peer.handle->bus;
    Wire undo;
    if (peer.watch &&
        sd_bus_message_new_method_call(bus, Receive(undo), kBusDaemon, kBusDaemonPath, kBusDaemon,
                                       "RemoveMatch") >= 0 &&
        sd_bus_message_append(undo.get(), "s", rule.c_str()) >= 0 &&
        sd_bus_message_set_expect_reply(undo.get(), 0) >= 0)
        sd_bus_send(bus, undo.get(), nullptr);
    return sd_bus_add_match_async(bus, Receive(peer.watch), rule.c_str(), onOwnerChanged, onWatchInstalled,
                                  &peer) >= 0;
}

bool identify(Peer& peer) {
    return sd_bus_call_method_async(peer.handle->bus, Receive(peer.identity), kBusDaemon, kBusDaemonPath,
                                    kBusDaemon, "GetConnectionCredentials", onCredentials, &peer, "s",
                                    peer.name.c_str()) >= 0;
}

// The match rule first, so that a disconnection is either signalled or shown by an error in
// place of the credentials.
bool ask(Peer& peer) {
    return watch(peer) && identify(peer);
}

}  // namespace

void busClientDisconnected(const std::shared_ptr<Peer>& peer) {
    if (!peer || peer->state == Peer::State::Gone)
        return;
    QSHandle* handle = peer->handle;
    busReference(handle);
    handle->peers.erase(peer->name);
    markGone(*peer);
    finishHeld(*peer);
    busCancelAll(*peer);
    if (handle->bus)
        endSharedWatch(handle);
    busRelease(handle);
}

std::shared_ptr<Peer> busPeer(QSHandle* handle, const char* name) {
    auto found = handle->peers.find(name);
    if (found != handle->peers.end())
        return found->second;
    auto caller = handle->otherCallers.extract(name);
    auto peer = caller ? std::move(caller.mapped()) : std::make_shared<Peer>();
    peer->handle = handle;
    peer->name = name;
    peer->number = handle->peerNumber++;
    if (!ask(*peer)) {
        markGone(*peer);
        return nullptr;
    }
    return handle->peers.emplace(peer->name, peer).first->second;
}

std::shared_ptr<Peer> busKnownPeer(Peer* peer) {
    for (const auto* table : {&peer->handle->peers, &peer->handle->otherCallers}) {
        auto found = table->find(peer->name);
        if (found != table->end() && found->second.get() == peer)
            return found->second;
    }
    return nullptr;
}

void busDispatchHeld(Peer& peer) {
    if (peer.state != Peer::State::Known)
        return;
    for (QSMessage* request : std::exchange(peer.held, {})) {
        // A handler may have closed the connection and freed the method tables.
        if (peer.state != Peer::State::Known) {
            QSMessageUnref(request);
        } else if (busMaySend(peer, kMessageOverhead)) {
            busDispatch(request);
        } else if (busAskWhatWasRead(peer)) {
            peer.held.push_back(request);
        } else {
            request->wantsReply = false;
            QSMessageUnref(request);
        }
    }
}

bool busCancelSerial(QSHandle* handle, const char* sender, uint32_t serial) {
    auto found = handle->peers.find(sender);
    if (found == handle->peers.end())
        return false;
    const std::vector<QSMessage*>& requests = found->second->subscribed;
    auto request = std::find_if(requests.begin(), requests.end(),
                                [&](const QSMessage* candidate) { return candidate->serial == serial; });
    if (request == requests.end())
        return false;
    busCancel(*request);
    return true;
}

void busForgetRequest(QSMessage* request) {
    const std::shared_ptr<Peer>& peer = request->peer;
    peer->kept -= request->kept;
    request->handle->kept.take(peer->user, request->kept);
    if (--peer->requests == 0 && !peer->watched && peer->state == Peer::State::Known) {
        peer->handle->peers.erase(peer->name);
        markGone(*peer);
    }
}

void busDropAllPeers(QSHandle* handle) {
    handle->sharedWatch.rule.reset();
    for (auto& [name, peer] : std::exchange(handle->peers, {})) {
        // The waiting requests are closed first, while errors can still be sent to the client.
        dropHeld(*peer);
        markGone(*peer);
    }
    for (auto& [name, caller] : std::exchange(handle->otherCallers, {}))
        markGone(*caller);
}
