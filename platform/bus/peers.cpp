// SPDX-License-Identifier: GPL-3.0-only
// The clients of a connection: who they are and when they die. The watch is asked for before the credentials,
// so a death is either reported by the watch or shown by the credentials' failure. An entry goes with its
// client; nothing survives the connection.
#include "platform/bus/peers.h"

#include <algorithm>
#include <utility>

#include "platform/bus/daemon.h"
#include "platform/bus/identity.h"
#include "platform/bus/message.h"
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

void leave(Peer& peer) {
    peer.state = Peer::State::Gone;
    peer.watch.reset();
    peer.identity.reset();
}

// `peer` is on the stack of its caller: the entry goes here.
void clientDied(const std::shared_ptr<Peer>& peer) {
    if (!peer || peer->state == Peer::State::Gone)
        return;
    peer->handle->peers.erase(peer->name);
    leave(*peer);
    dropHeld(*peer);
    busCancelAll(*peer);
}

int onOwnerChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
    OwnerChange change;
    if (busReadOwnerChange(signal, change) && !*change.after)
        clientDied(entryOf(static_cast<Peer*>(data)));
    return 0;
}

// sic: without an install callback sd-bus closes the whole connection when the daemon refuses one match.
int onWatchInstalled(sd_bus_message* reply, void* data, sd_bus_error*) {
    auto* peer = static_cast<Peer*>(data);
    peer->watched = !sd_bus_message_is_method_error(reply, nullptr);
    if (!peer->watched)
        PrvPrintErr(__func__, __LINE__, "Watching the client %s failed: %s", peer->name.c_str(),
                    sd_bus_message_get_error(reply)->message);
    return 0;
}

int onCredentials(sd_bus_message* reply, void* data, sd_bus_error*) {
    std::shared_ptr<Peer> peer = entryOf(static_cast<Peer*>(data));
    if (!peer)
        return 0;
    if (sd_bus_message_is_method_error(reply, SD_BUS_ERROR_NAME_HAS_NO_OWNER)) {
        clientDied(peer);
        return 0;
    }
    if (sd_bus_message_is_method_error(reply, nullptr))
        PrvPrintErr(__func__, __LINE__, "The bus does not tell who %s is: %s", peer->name.c_str(),
                    sd_bus_message_get_error(reply)->message);
    else
        peer->applicationId = busApplicationId(busReadCredentials(reply));
    peer->state = Peer::State::Known;
    peer->identity.reset();
    for (QSMessage* request : std::exchange(peer->held, {})) {
        // A handler may have ended the connection, and the tables with it.
        if (peer->state == Peer::State::Known)
            busDispatch(request);
        else
            QSMessageUnref(request);
    }
    return 0;
}

bool ask(Peer& peer) {
    std::string rule =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
        peer.name + "'";
    sd_bus* bus = peer.handle->bus;
    if (sd_bus_add_match_async(bus, Receive(peer.watch), rule.c_str(), onOwnerChanged, onWatchInstalled,
                               &peer) < 0)
        return false;
    return sd_bus_call_method_async(bus, Receive(peer.identity), kBusDaemon, kBusDaemonPath, kBusDaemon,
                                    "GetConnectionCredentials", onCredentials, &peer, "s",
                                    peer.name.c_str()) >= 0;
}

}  // namespace

std::shared_ptr<Peer> busPeer(QSHandle* handle, const char* name) {
    auto found = handle->peers.find(name);
    if (found != handle->peers.end())
        return found->second;
    auto peer = std::make_shared<Peer>();
    peer->handle = handle;
    peer->name = name;
    if (!ask(*peer))
        return nullptr;
    return handle->peers.emplace(peer->name, peer).first->second;
}

bool busCancelSerial(QSHandle* handle, const char* sender, uint32_t serial) {
    auto found = handle->peers.find(sender);
    if (found == handle->peers.end())
        return false;
    const std::vector<QSMessage*>& requests = found->second->subscribed;
    auto request = std::find_if(requests.begin(), requests.end(),
                                [&](const QSMessage* candidate) { return busSerial(candidate) == serial; });
    if (request == requests.end())
        return false;
    busCancel(*request);
    return true;
}

void busForgetRequest(QSMessage* request) {
    const std::shared_ptr<Peer>& peer = request->peer;
    if (--peer->requests == 0 && !peer->watched && peer->state == Peer::State::Known) {
        peer->handle->peers.erase(peer->name);
        leave(*peer);
    }
}

void busDropAllPeers(QSHandle* handle) {
    for (auto& [name, peer] : std::exchange(handle->peers, {})) {
        // The held ones are told first, while the entry can still be reached.
        dropHeld(*peer);
        leave(*peer);
    }
}
