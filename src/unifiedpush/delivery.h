// SPDX-License-Identifier: GPL-3.0-only
// What applications are still to be told: the address of a registration, and one message each, which the
// server keeps until the application has answered. In memory only.
//
// Each is called again until it has answered: after 1, 2, 4 ... 60 seconds while it starts, is silent or has
// ended, and as soon as its name appears. An application that is neither there nor can be started is waited
// for. Calls to one application do not wait for those to another; only starting is bounded for all.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>

#include "unifiedpush/connector.h"
#include "unifiedpush/names.h"
#include "unifiedpush/sessionbus.h"
#include "unifiedpush/starts.h"
#include "unifiedpush/statefile.h"
#include "unifiedpush/timer.h"

struct Item {
    std::string id;
    std::string receipt;  // what it is acknowledged with
    std::string bytes;
    int64_t expires = 0;  // Unix seconds; 0: never
};

class Delivery {
  public:
    // The registrations are read when something is sent; they outlive this object.
    Delivery(SessionBus& bus, Names& names, const State& state);

    // The application took the item, or it expired. Called again when the item comes again.
    std::function<void(const std::string& endpoint, const Item& item)> onTaken;
    std::function<void(const std::string& endpoint)> onAnnounced;

    // The item that the device has open. An item that comes again only brings a new receipt.
    void deliver(const std::string& endpoint, Item item);
    // The item is acknowledged; another one may have its id.
    void acknowledged(const std::string& endpoint, const std::string& id);
    // The receipt is void: the item comes again. One that an application has just been called with stays.
    void withdraw(const std::string& endpoint);
    // Tells the application its address; `to` is a connection that is called first, or "".
    void announce(const std::string& endpoint, const std::string& to);
    // The registration is gone.
    void forget(const std::string& endpoint);

    void nameChanged(const std::string& service);
    // Something waits for the application, which is neither there nor can be started.
    bool isBlocked(const std::string& service) const;

    // Seconds; tests shorten them.
    struct Patience {
        unsigned answer = 60;  // for an answer; doubled with each failure, at most `longestAnswer`
        unsigned longestAnswer = 300;
    } patience;

  private:
    // One call that the application has to answer.
    struct Job {
        bool wanted = false;
        unsigned failures = 0;
        unsigned refusals = 0;
        Slot call;
        Timer pause;

        bool isDue() const { return wanted && !call && !pause.isRunning(); }
        void begin();
        void end();
    };
    struct Route {
        std::string endpoint;
        std::string service;
        Job announcement;
        Job message;
        Item item;               // of `message`
        bool withdrawn = false;  // its receipt is void, and it has not come again
        bool replaced = false;   // `next` came while the application was called with it
        Item next;
        std::string taken;  // id of the item that was taken and is not acknowledged yet
        Timer expiry;
    };
    struct Application {
        std::set<std::string> endpoints;
        unsigned calls = 0;
        bool unstartable = false;  // the last attempt to start it failed
    };

    Route& routeOf(const std::string& endpoint);
    const Registration* registrationOf(const std::string& endpoint) const;
    void pump(const std::string& service);
    void pumpRoute(const std::string& endpoint, Application& application);
    bool mayCall(const std::string& service, Application& application);
    void callAnnouncement(const std::string& endpoint, Route& route, const std::string& to);
    void callMessage(const std::string& endpoint, Route& route);
    using Finish = void (Delivery::*)(const std::string& endpoint);
    void place(const std::string& endpoint, Job& job, Wire call, Finish finish);
    void answered(const std::string& endpoint, Job& job, Outcome outcome, Finish finish);
    bool isOver(Job& job, Outcome outcome, const std::string& service) const;
    void finishAnnouncement(const std::string& endpoint);
    void finishMessage(const std::string& endpoint);
    void take(const std::string& endpoint, const Item& item);
    void put(Route& route, Item item);
    void watchExpiry(Route& route);
    bool giveWay(Route& route);
    bool dropExpired(const std::string& endpoint, Route& route);

    SessionBus& m_bus;
    Names& m_names;
    const State& m_state;
    std::map<std::string, Route> m_routes;              // by endpoint
    std::map<std::string, Application> m_applications;  // by service
    Starts m_starts;
};
