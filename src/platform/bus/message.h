// SPDX-License-Identifier: GPL-3.0-only
// A message of the bus calls. A request keeps the D-Bus message that it came in, and its texts point into it;
// what the layer makes itself (replies that are errors, server status) keeps its own texts.
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
    Wire wire;         // null when the layer made the message, and once the method return is given
    int references = 1;

    const char* payload = "";
    const char* method = "";
    const char* category = "";
    std::string ownPayload;  // what `payload`, `method` and `category` point to when nothing else keeps it
    std::string ownMethod;
    std::string ownCategory;
    std::string errorName;  // not empty for a reply that is a bus error

    // Of requests alone:
    std::shared_ptr<Peer> peer;            // the caller
    const Method* target = nullptr;        // valid until the request was handed to its handler
    uint32_t serial = 0;                   // of the call
    size_t kept = 0;                       // bytes, counted among those of the caller
    bool wantsReply = false;               // the caller awaits a method return
    bool handling = false;                 // its handler runs, and may hold its texts
    bool unanswered = false;               // counts among the caller's unanswered requests
    bool subscribed = false;               // was on a subscription list once
    bool cancelled = false;                // the caller has cancelled it or is gone
    std::vector<SubscriptionList*> lists;  // where it is subscribed now, one reference each
};

QSMessage* busNewRequest(QSHandle* handle, sd_bus_message* wire, const char* payload,
                         const std::shared_ptr<Peer>& peer, const Method* target);
// Hands a request to its handler and gives the reference back.
void busDispatch(QSMessage* request);
// Drops the message that a request came in once its method return was given: what is kept needs
// the texts alone.
void busForgetWire(QSMessage* request);
// A message to a callback of ours: `wire` may be null, and then `payload` is copied.
QSMessage* busNewReply(QSHandle* handle, sd_bus_message* wire, const char* payload,
                       const std::string& category, const std::string& method);
// What one request takes, about, with this payload.
size_t busRequestSize(const char* payload);

// Sends one answer: the method return first, signals from then on.
bool busAnswer(QSMessage* message, const char* payload, QSError* error);
// The same for what counts as taken once it is sent: only to a client that the daemon knows to be there.
bool busHandOver(QSMessage* message, const char* payload, QSError* error);
// Closes a request whose last reference is going: no answer can follow.
void busCloseRequest(QSMessage* request);
