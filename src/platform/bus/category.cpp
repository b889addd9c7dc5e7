// SPDX-License-Identifier: GPL-3.0-only
// Method tables on the bus, and the steps of an incoming request: read it, check the limits, identify the
// caller, call the handler. The tables live as long as the connection; sd-bus answers a call of any other
// method with an error.
#include "platform/bus/category.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/bus/error.h"
#include "platform/bus/message.h"
#include "platform/bus/peers.h"

namespace {

constexpr size_t kLongestPublicPayload = 4 * 1024;
constexpr size_t kMostWaiting = 128;
// The limit for the bytes of a client's kept requests: what its user may still add, divided by the number of
// clients, but between these two.
constexpr size_t kLeastKept = 16 * 1024;
constexpr size_t kMostKept = 1024 * 1024;
constexpr size_t kClientsPerShare = 16;
// The limit for a client's requests that wait until it is known to read.
constexpr size_t kMostHeld = 8;

// Always returns 1, "handled": a failure to send the error affects only this call.
int refuse(Peer* peer, sd_bus_message* wire, const char* name, const std::string& text) {
    if (peer && !busMaySend(*peer, kMessageOverhead + text.size()))
        return 1;
    if (sd_bus_reply_method_errorf(wire, name, "%s", text.c_str()) >= 0 && peer)
        busCountSent(*peer, kMessageOverhead + text.size());
    return 1;
}

bool mayKeep(const Peer& peer, const char* payload) {
    const size_t limit =
        std::clamp(peer.handle->kept.available(peer.user) / kClientsPerShare, kLeastKept, kMostKept);
    return peer.kept + busRequestSize(payload) <= limit;
}

// Subscribed requests have a separate limit.
size_t waitingOf(const Peer& peer) {
    return peer.requests - peer.subscribed.size();
}

// The error texts address the author of the client. True when the request is refused.
bool refuseOverLimit(sd_bus_message* wire, const char* payload, Peer& peer) {
    const size_t length = std::strlen(payload);
    if (length > kLongestPublicPayload) {
        refuse(&peer, wire, kErrorLimitExceeded,
               "The payload has " + std::to_string(length) + " bytes; the public bus takes at most " +
                   std::to_string(kLongestPublicPayload) + ". Send less in one call");
        return true;
    }
    if (waitingOf(peer) >= kMostWaiting) {
        refuse(&peer, wire, kErrorLimitExceeded,
               std::to_string(waitingOf(peer)) +
                   " requests of this client wait for an answer. Wait for some before sending more");
        return true;
    }
    if (!mayKeep(peer, payload)) {
        refuse(&peer, wire, kErrorLimitExceeded,
               "The requests of this client and its user that wait for an answer take too many bytes. Wait "
               "for some before sending more");
        return true;
    }
    return false;
}

// A client that does not read gets no more answers; a few of its requests wait until it reads again.
bool isDropped(Peer& peer) {
    return !busMaySend(peer, kMessageOverhead) && !(busAskWhatWasRead(peer) && peer.held.size() < kMostHeld);
}

int onRequest(sd_bus_message* wire, void* data, sd_bus_error*) {
    auto* method = static_cast<Method*>(data);
    QSHandle* handle = method->category->handle;
    const char* sender = sd_bus_message_get_sender(wire);
    const std::shared_ptr<Peer> peer = sender ? busPeer(handle, sender) : nullptr;
    if (!peer)
        return refuse(nullptr, wire, SD_BUS_ERROR_FAILED, "The caller could not be identified. Call again");
    if (isDropped(*peer))
        return 1;
    const char* payload = nullptr;
    if (sd_bus_message_read(wire, "s", &payload) < 0)
        return refuse(
            peer.get(), wire, kErrorInvalidText,
            "The payload contains a character that D-Bus strings cannot carry, such as U+FFFE or U+FDD0. "
            "Write it as a JSON \\u escape");
    if (busIsPublic(handle) && refuseOverLimit(wire, payload, *peer))
        return 1;
    QSMessage* request = busNewRequest(handle, wire, payload, peer, method);
    if (peer->state == Peer::State::Known && peer->held.empty() && busMaySend(*peer, kMessageOverhead))
        busDispatch(request);
    else
        peer->held.push_back(request);
    return 1;
}

int onCancel(sd_bus_message* wire, void* data, sd_bus_error*) {
    auto* category = static_cast<Category*>(data);
    uint32_t serial = 0;
    const char* sender = sd_bus_message_get_sender(wire);
    if (sd_bus_message_read(wire, "u", &serial) < 0 || !sender)
        return refuse(nullptr, wire, SD_BUS_ERROR_INVALID_ARGS,
                      "Cancel takes the serial of the call, an unsigned number");
    // The filter for all calls has counted the size of the reply already.
    const bool found = busCancelSerial(category->handle, sender, serial);
    sd_bus_reply_method_return(wire, "b", static_cast<int>(found));
    return 1;
}

const sd_bus_vtable kSubscriptionTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("Cancel", "u", SD_BUS_PARAM(serial), "b", SD_BUS_PARAM(found), onCancel,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("Answer", "us", SD_BUS_PARAM(serial) SD_BUS_PARAM(payload), 0),
    SD_BUS_SIGNAL_WITH_NAMES("Ended", "us", SD_BUS_PARAM(serial) SD_BUS_PARAM(reason), 0),
    SD_BUS_VTABLE_END,
};

void addMethods(Category& category, const MethodTable& table) {
    for (const QSMethod* method = table.methods; method && method->name; method++) {
        auto same = [&](const Method& other) { return other.name == method->name; };
        if (std::none_of(category.methods.begin(), category.methods.end(), same))
            category.methods.push_back({&category, method->name, method->handler, table.needsIdentity});
    }
}

void buildTable(Category& category) {
    category.table.push_back(SD_BUS_VTABLE_START(0));
    for (size_t i = 0; i < category.methods.size(); i++)
        category.table.push_back(SD_BUS_METHOD_WITH_NAMES_OFFSET(
            category.methods[i].name.c_str(), "s", SD_BUS_PARAM(request), "s", SD_BUS_PARAM(reply), onRequest,
            i * sizeof(Method), SD_BUS_VTABLE_UNPRIVILEGED));
    category.table.push_back(SD_BUS_VTABLE_END);
}

int publish(Category& category) {
    sd_bus* bus = category.handle->bus;
    const char* path = category.path.c_str();
    const int result =
        sd_bus_add_object_vtable(bus, Receive(category.object), path, category.handle->name.c_str(),
                                 category.table.data(), category.methods.data());
    if (result < 0)
        return result;
    return sd_bus_add_object_vtable(bus, Receive(category.subscriptionObject), path, kSubscriptionInterface,
                                    kSubscriptionTable, &category);
}

}  // namespace

bool busAddCategory(QSHandle* handle, const char* path, std::initializer_list<MethodTable> tables,
                    void* context, QSError* error) {
    if (!busIsOpen(handle, error))
        return false;
    if (handle->name.empty())
        return busFail(error, -EINVAL, "A connection without a service name has no methods");
    if (!path || sd_bus_object_path_is_valid(path) <= 0)
        return busFail(error, -EINVAL,
                       std::string("\"") + (path ? path : "") + "\" is not a category; write /NAME");
    auto category = std::make_unique<Category>();
    category->handle = handle;
    category->path = path;
    category->context = context;
    for (const MethodTable& table : tables)
        addMethods(*category, table);
    buildTable(*category);
    const int result = publish(*category);
    if (result < 0)
        return busFailErrno(error, result, std::string("Registering the category ") + path + " failed");
    handle->categories.push_back(std::move(category));
    return true;
}

bool QSRegisterCategory(QSHandle* handle, const char* category, const QSMethod* methods, void* context,
                        QSError* error) {
    return busIsOpen(handle, error) &&
           busAddCategory(handle, category, {{methods, busIsPublic(handle)}}, context, error);
}
