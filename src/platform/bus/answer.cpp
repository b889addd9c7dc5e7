// SPDX-License-Identifier: GPL-3.0-only
// Several answers to one request: the first is the method return, later ones are signals to the caller that
// carry the serial of the call. An answer that could not be sent does not count. No state.
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/bus/error.h"
#include "platform/bus/message.h"
#include "platform/bus/peers.h"
#include "platform/bus/presence.h"
#include "platform/bus/text.h"

namespace {

int sendSignal(QSMessage* request, const char* member, const char* text) {
    sd_bus* bus = request->handle->bus;
    Wire signal;
    int result =
        sd_bus_message_new_signal(bus, Receive(signal), request->category, kSubscriptionInterface, member);
    if (result >= 0)
        result = sd_bus_message_append(signal.get(), "us", request->serial, text);
    if (result >= 0)
        result = sd_bus_message_set_destination(signal.get(), request->peer->name.c_str());
    return result < 0 ? result : sd_bus_send(bus, signal.get(), nullptr);
}

bool canBeReached(const QSMessage* request) {
    return request->handle->bus && request->peer->state != Peer::State::Gone;
}

void countAnswered(QSMessage* request) {
    if (request->unanswered)
        request->peer->unanswered--;
    request->unanswered = false;
}

}  // namespace

bool busAnswer(QSMessage* message, const char* payload, QSError* error) {
    if (!message || !message->peer)
        return busFail(error, -EINVAL, "Only a request that a client has sent can be answered");
    if (!message->handle->bus)
        return busFail(error, -ENOTCONN, "The bus connection is closed");
    if (message->peer->state == Peer::State::Gone)
        return busFail(error, -ENOTCONN, "The client " + message->peer->name + " is gone");
    // The method return is sent even after a cancel; without it the caller's call would stay pending.
    if (message->cancelled && !message->unanswered)
        return busFail(error, -ECANCELED,
                       "The client " + message->peer->name + " has cancelled the subscription");
    std::string escaped;
    const char* text = busWireText(payload, escaped, error);
    if (!text)
        return false;
    const size_t size = kMessageOverhead + std::strlen(text);
    if (!busMaySend(*message->peer, size)) {
        busAskWhatWasRead(*message->peer);
        return busFail(error, -ENOBUFS,
                       "The client " + message->peer->name + " does not read: " +
                           std::to_string(message->peer->unread.bytes()) + " bytes wait for it");
    }
    const int result = message->unanswered ? sd_bus_reply_method_return(message->wire.get(), "s", text)
                                           : sendSignal(message, "Answer", text);
    if (result < 0)
        return busFailErrno(error, result,
                            "Sending an answer to the client " + message->peer->name + " failed");
    // No method return is sent, and nothing is counted, when the caller expects none.
    if (!message->unanswered || message->wantsReply)
        busCountSent(*message->peer, size);
    countAnswered(message);
    busForgetWire(message);
    return true;
}

bool busDeliver(QSMessage* message, const char* payload, QSError* error) {
    if (message && message->peer && canBeReached(message) && !busIsThere(*message->peer))
        return busFail(error, -ENOTCONN, "The client " + message->peer->name + " is gone");
    return busAnswer(message, payload, error);
}

void busCloseRequest(QSMessage* request) {
    if (canBeReached(request) && busMaySend(*request->peer, kMessageOverhead)) {
        const bool owed = request->unanswered && request->wantsReply;
        if (owed)
            sd_bus_reply_method_errorf(request->wire.get(), kErrorNoAnswer, "%s gives no answer",
                                       request->method);
        else if (request->subscribed)
            sendSignal(request, "Ended", request->cancelled ? "cancelled" : "released");
        if (owed || request->subscribed)
            busCountSent(*request->peer, kMessageOverhead);
    }
    countAnswered(request);
    busForgetRequest(request);
}

bool QSMessageReply(QSHandle*, QSMessage* message, const char* payload, QSError* error) {
    // The message knows its own connection; the handle is only part of the interface.
    return busAnswer(message, payload, error);
}

bool QSMessageRespond(QSMessage* message, const char* payload, QSError* error) {
    // Items are later answers, and count as delivered once they are sent.
    return message && !message->unanswered ? busDeliver(message, payload, error)
                                           : busAnswer(message, payload, error);
}
