// SPDX-License-Identifier: GPL-3.0-only
// Lists of subscribed requests by key. A list holds one reference on each member and exists while it has
// members; a request may be on several lists.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "platform/bus/qs.h"

struct Peer;
struct SubscriptionList;
using SubscriptionTable = std::unordered_map<std::string, SubscriptionList>;

struct SubscriptionList {
    SubscriptionTable* table;  // the table that holds it under `key`
    std::string key;
    std::vector<QSMessage*> members;  // oldest first
};

// For a call that the client has cancelled: removes the request from every list, then
// runs the cancel function.
void busCancel(QSMessage* request);
// For a client that has disconnected: removes all its requests from their lists, then runs the cancel
// function for each, oldest first.
void busCancelAll(Peer& peer);
// At the end of the connection: empties the lists without running the cancel function.
void busDropAllSubscriptions(QSHandle* handle);
