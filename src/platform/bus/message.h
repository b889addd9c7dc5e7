// SPDX-License-Identifier: GPL-3.0-only
// A message of the QS calls. A request keeps the D-Bus message in which it arrived, and its texts point into
// that; messages that the layer creates (replies that are errors, server status) keep their own texts.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/bus/connection.h"

struct Method;

inline constexpr char kSubscriptionInterface[] = "com.zelt.Subscription1";

struct QSMessage {
    QSHandle* handle;  // one reference
    Wire wire;         // null if the layer made the message; may be null once the method return is sent
    int references = 1;

    const char* payload = "";
    const char* method = "";
    const char* category = "";
    std::string ownPayload;  // storage of these three when `wire` does not hold them
    std::string ownMethod;
    std::string ownCategory;
    std::string errorName;  // not empty for a reply that is a bus error

    // Only in requests:
    std::shared_ptr<Peer> peer;            // the caller
    const Method* target = nullptr;        // valid until the handler is called
    uint32_t serial = 0;                   // D-Bus serial of the call
    size_t kept = 0;                       // bytes counted in the caller's total
    bool wantsReply = false;               // the caller expects a method return
    bool handling = false;                 // its handler runs and may use its texts
    bool unanswered = false;               // counts among the caller's unanswered requests
    bool subscribed = false;               // has been on a subscription list
    bool cancelled = false;                // the caller has cancelled it or disconnected
    std::vector<SubscriptionList*> lists;  // lists that it is on, one reference each
};

QSMessage* busNewRequest(QSHandle* handle, sd_bus_message* wire, const char* payload,
                         const std::shared_ptr<Peer>& peer, const Method* target);
// Calls the handler of a request, then releases the reference.
void busDispatch(QSMessage* request);
// Releases the D-Bus message of a request whose method return was sent, and keeps copies of its texts.
void busForgetWire(QSMessage* request);
// A message for a callback of this process: `wire` may be null, and then `payload` is copied.
QSMessage* busNewReply(QSHandle* handle, sd_bus_message* wire, const char* payload,
                       const std::string& category, const std::string& method);
// Approximate bytes that a request with this payload takes.
size_t busRequestSize(const char* payload);

// Sends one answer: the first as the method return, later ones as signals.
bool busAnswer(QSMessage* message, const char* payload, QSError* error);
// The same for an answer that counts as delivered once it is sent: sent only if the client is
// known to be connected.
bool busDeliver(QSMessage* message, const char* payload, QSError* error);
// Closes a request whose last reference is released, and tells the caller that no answer follows.
void busCloseRequest(QSMessage* request);
