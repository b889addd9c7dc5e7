// SPDX-License-Identifier: GPL-3.0-only
// Lists of subscribed requests under their keys. A list holds one reference on each member and exists while
// it has members; a request may stand on several lists.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "platform/bus/qs.h"

struct Peer;
struct SubscriptionList;
using SubscriptionTable = std::unordered_map<std::string, SubscriptionList>;

struct SubscriptionList {
    SubscriptionTable* table;  // where it stands, under `key`
    std::string key;
    std::vector<QSMessage*> members;  // oldest first
};

// The client has cancelled the call: the request leaves every list, then the cancel function runs.
void busCancel(QSMessage* request);
// The client is gone: all its requests leave their lists, then the cancel function runs for
// each, oldest first.
void busCancelAll(Peer& peer);
// At the end of the connection: the lists are emptied, the cancel function does not run.
void busDropAllSubscriptions(QSHandle* handle);
