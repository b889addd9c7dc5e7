// SPDX-License-Identifier: GPL-3.0-only
// Nodes whose items stay with the server until whoever receives them has taken them: one open item for each.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "platform/bus/qsraii.h"
#include "session/push.h"

class PubSubSession;

// An item as the server sent it. The last four texts are "" when it did not send them.
struct _itemStruct {
    std::string seqNo;
    std::string id;
    std::string text;
    std::string encoding;   // of the text: "base64"
    std::string expires;    // Unix seconds
    std::string published;  // Unix seconds
    std::string urgency;
    std::shared_ptr<PushReply> push = nullptr;  // of a push provider; null: of the pub-sub service
};

constexpr char kLeastUrgency[] = "very-low";

// A request `receive`: one subscription for several endpoints of an application.
struct _receiverStruct {
    std::string appId;
    std::string client;           // unique name on the bus
    KeptMessage message;          // the request, answered with every item
    std::string urgency;          // the least that it wants; "": any
    bool all = false;             // it also receives the endpoints that the application creates later
    std::set<std::string> named;  // endpoints that it asked for by name, also while they do not exist
    // Nodes whose open item could not be written to the client; the first of them is due to be tried again.
    std::set<std::string> unsent;
    unsigned failures = 0;  // to write, since the last success
};

// A call of a confirming handler that has not been answered.
struct _confirmCallStruct {
    PubSubSession* session = nullptr;
    std::string node;
    std::string endpoint;
    QSToken token = 0;
};

// Milliseconds until something is tried again that has failed so many times in a row: 1, 2, 4 ... 60 s.
constexpr int64_t kLongestRetryPause = 60'000;
constexpr int64_t retryPause(unsigned failures) {
    return failures > 6 ? kLongestRetryPause : int64_t{1'000} << (failures - 1);
}

// What the server was told about a node in this connection: nothing, or the last request and whether it has
// been answered. Items that arrive in any state but On are neither handed out nor acknowledged: the server
// sends them again after the next activation, beginning with the oldest.
enum class NodeLink { Off, Closing, Opening, On };

struct _openNodeStruct {
    std::shared_ptr<_receiverStruct> receiver;  // null: its confirming handlers get the items
    std::string endpoint;                       // the node as the receiver knows it
    NodeLink link = NodeLink::Off;
    std::string request;  // id of the request that Closing or Opening waits for
    bool missed = false;  // an item was neither kept nor acknowledged: the server has to send it again
    std::optional<_itemStruct> open;
    std::optional<_itemStruct> next;  // arrived while one was open
    std::deque<_itemStruct> pushed;   // likewise, from a push provider
    bool taken = false;               // the open item's number waits for its commit
    int64_t due = 0;  // monotonic microseconds: something happens with the open item; 0: nothing

    std::string receipt;  // of the open item, while the receiver has it

    bool told = false;                // the handlers that do not confirm have been called
    std::set<std::string> confirmed;  // addresses of the handlers that have confirmed the open item
    std::map<std::string, std::shared_ptr<_confirmCallStruct>> calls;  // by the handler's address
    unsigned failures = 0;                                             // of its handlers, in a row
};

// An item to be acknowledged once its number is on disk. With a number the acknowledgement is for every time
// that the server sent the item; without one, "", for the first.
struct _handledItemStruct {
    std::string node;
    std::string id;
    std::string seqNo;
};

// An item that was taken, until its number is on disk.
struct _takenItemStruct {
    std::string node;
    std::string endpoint;  // as in the request
    KeptMessage message;   // the request that took it; none for an item that its handlers confirmed
};
