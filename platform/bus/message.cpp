// SPDX-License-Identifier: GPL-3.0-only
// The life of a message: made when it comes in, kept by references, closed with the last one. It may outlive
// its connection (a service keeps requests in tables that die at process exit); what it points to lives as
// long as it.
#include "platform/bus/message.h"

#include <utility>

#include "platform/bus/category.h"
#include "platform/bus/guard.h"
#include "platform/bus/peers.h"

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
    return request;
}

void busDispatch(QSMessage* request) {
    const Method* target = std::exchange(request->target, nullptr);
    busRunGuarded(request->method,
                  [&] { target->handler(request->handle, request, target->category->context); });
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

uint32_t busSerial(const QSMessage* request) {
    uint64_t cookie = 0;
    sd_bus_message_get_cookie(request->wire.get(), &cookie);
    return static_cast<uint32_t>(cookie);
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

bool QSMessageIsError(QSMessage* message) {
    return message && !message->errorName.empty();
}

const char* QSMessageGetErrorName(QSMessage* message) {
    return message ? message->errorName.c_str() : "";
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
