// SPDX-License-Identifier: GPL-3.0-only
// The lifetime of a message: created on receipt, kept by references, closed when the last one is released. It
// may outlive its connection (a service keeps requests in tables that are destroyed at process exit); what it
// points to lives as long as it does.
#include "platform/bus/message.h"

#include <cstring>
#include <optional>
#include <utility>

#include "platform/bus/category.h"
#include "platform/bus/guard.h"
#include "platform/bus/peers.h"
#include "platform/bus/qscaller.h"

namespace {

// Approximate bytes of the message itself and of what the layer and the service store about it.
constexpr size_t kRequestOverhead = 2048;

}  // namespace

void busForgetWire(QSMessage* request) {
    if (!request->wire || request->unanswered || request->handling)
        return;
    request->ownPayload = request->payload;
    request->ownMethod = request->method;
    request->ownCategory = request->category;
    request->payload = request->ownPayload.c_str();
    request->method = request->ownMethod.c_str();
    request->category = request->ownCategory.c_str();
    request->wire.reset();
}

size_t busRequestSize(const char* payload) {
    return kRequestOverhead + std::strlen(payload);
}

QSMessage* busNewRequest(QSHandle* handle, sd_bus_message* wire, const char* payload,
                         const std::shared_ptr<Peer>& peer, const Method* target) {
    auto* request = new QSMessage{handle, Wire(sd_bus_message_ref(wire))};
    busReference(handle);
    request->payload = payload;
    request->method = sd_bus_message_get_member(wire);
    request->category = sd_bus_message_get_path(wire);
    request->peer = peer;
    request->target = target;
    request->wantsReply = sd_bus_message_get_expect_reply(wire) > 0;
    request->unanswered = true;
    peer->unanswered++;
    peer->requests++;
    uint64_t cookie = 0;
    sd_bus_message_get_cookie(wire, &cookie);
    request->serial = static_cast<uint32_t>(cookie);
    if (busIsPublic(handle)) {
        request->kept = busRequestSize(payload);
        peer->kept += request->kept;
        handle->kept.add(peer->user, request->kept);
    }
    return request;
}

void busDispatch(QSMessage* request) {
    const Method* target = std::exchange(request->target, nullptr);
    {
        std::optional<LogPayer> payer;
        if (busIsPublic(request->handle))
            payer.emplace(busLogBudget(request->handle, request->peer->user));
        request->handling = true;
        busRunGuarded(request->method,
                      [&] { target->handler(request->handle, request, target->category->context); });
        request->handling = false;
    }
    if (request->references > 1)
        busForgetWire(request);
    QSMessageUnref(request);
}

QSMessage* busNewReply(QSHandle* handle, sd_bus_message* wire, const char* payload,
                       const std::string& category, const std::string& method) {
    auto* reply = new QSMessage{handle, Wire(wire ? sd_bus_message_ref(wire) : nullptr)};
    busReference(handle);
    if (!wire)
        reply->ownPayload = payload;
    reply->ownMethod = method;
    reply->ownCategory = category;
    reply->payload = wire ? payload : reply->ownPayload.c_str();
    reply->method = reply->ownMethod.c_str();
    reply->category = reply->ownCategory.c_str();
    return reply;
}

const char* QSMessageGetPayload(QSMessage* message) {
    return message ? message->payload : "";
}

const char* QSMessageGetMethod(QSMessage* message) {
    return message ? message->method : "";
}

const char* QSMessageGetCategory(QSMessage* message) {
    return message ? message->category : "";
}

const char* QSMessageGetApplicationID(QSMessage* message) {
    return message && message->peer ? message->peer->applicationId.c_str() : "";
}

const char* QSMessageGetSender(QSMessage* message) {
    return message && message->peer ? message->peer->name.c_str() : "";
}

bool QSMessageIsError(QSMessage* message) {
    return message && !message->errorName.empty();
}

const char* QSMessageGetErrorName(QSMessage* message) {
    return message ? message->errorName.c_str() : "";
}

bool QSMessageIsCallerGone(QSMessage* message) {
    return message && message->peer && message->peer->state == Peer::State::Gone;
}

void QSMessageRef(QSMessage* message) {
    if (message)
        message->references++;
}

void QSMessageUnref(QSMessage* message) {
    if (!message || --message->references > 0)
        return;
    QSHandle* handle = message->handle;
    if (message->peer)
        busCloseRequest(message);
    delete message;
    busRelease(handle);
}
