// SPDX-License-Identifier: GPL-3.0-only
// The state of the fake bus, for its own sources only: connections, method tables and subscriptions.
#pragma once

#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/fakes/fakebus.h"

using SubscriberList = std::list<QSMessage*>;

struct QSHandle {
    std::string name;
    bool isPublic = false;
    bool closed = false;
    GMainLoop* loop = nullptr;
    std::map<std::string, std::map<std::string, std::pair<QSFilter, void*>>> categories;
    // Free keys are separate from those of methods, since a node can have any name.
    std::map<std::string, SubscriberList> byKey;
    std::map<std::pair<std::string, std::string>, SubscriberList> byMethod;
    QSFilter cancel = nullptr;
    void* cancelContext = nullptr;
};

struct QSZeltService {
    std::string name;
    QSHandle* privateHandle = nullptr;
    QSHandle* publicHandle = nullptr;
    bool taken = false;  // registered by the service itself, not created for a test
};

struct QSSubscriptionIter {
    QSHandle* handle = nullptr;
    std::string key;
    std::vector<QSMessage*> messages;  // one reference each
    std::size_t next = 0;
};

struct FakeBusState {
    struct Fault {
        int code;
        std::string text;
        int times;
        int after;
    };

    std::vector<std::unique_ptr<QSMessage>> messages;
    std::vector<std::unique_ptr<QSHandle>> handles;
    std::vector<std::unique_ptr<QSZeltService>> services;
    std::vector<PlacedCall> calls;
    std::map<std::string, Fault> faults;
    std::set<std::string> missing;
    std::set<std::string> present;  // services that are running
    bool knowsServices = false;     // calls to a watched service that is not present are refused
    std::deque<std::function<void()>> received;
    int callbackDepth = 0;
    std::vector<QSMessage*> subscribed;  // oldest first
    QSToken nextToken = 1;
    unsigned nextClient = 1;

    QSMessage* makeMessage(QSHandle* handle);
    QSHandle* makeHandle(const std::string& name, bool isPublic);
};

// Runs a handler, a callback or a cancel function.
void runFilter(QSFilter filter, QSHandle* handle, QSMessage* message, void* context);

struct BusAddress {
    std::string service;
    std::string path;
    std::string method;
};
bool parseBusAddress(const std::string& uri, BusAddress& address);
bool isServerStatus(const BusAddress& address);
// The member "serviceName" of a server status request; "" when it is no service name.
std::string watchedService(const std::string& payload);
// Replaces characters that D-Bus strings cannot carry by JSON escapes.
std::string withoutNonCharacters(const std::string& text);

// Fills the error record; returns false so that a failing call can return it.
bool failWith(QSError* error, int code, const std::string& text);
// Takes one injected fault of `operation`, if there is one, into the error record.
bool faultInjected(const std::string& operation, QSError* error);
// Reports the use of a message that has been released already.
bool usable(QSMessage* message, const char* operation);
// Whether the payload's member "subscribe" is true.
bool asksToSubscribe(const std::string& payload);
// Delivers one answer to the caller.
bool answerMessage(QSMessage* message, const char* payload, QSError* error);
// Removes messages from every list and then, unless silent, runs the cancel function for those that were in
// one, oldest first. False when none was.
bool cancelSubscriptions(const std::vector<QSMessage*>& messages, bool silent);
std::string busName(const QSHandle* handle);
