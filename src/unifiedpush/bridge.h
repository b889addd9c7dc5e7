// SPDX-License-Identifier: GPL-3.0-only
// The bridge: applications of the session on one side, endpoints of the device on the other. Each registration
// of an application is an endpoint; its items are the application's messages.
//
// Keeps the registrations on disk (statefile.h) and nothing else beyond the process: items stay with the server
// until their application has answered. The methods are grouped by the file that defines them.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "unifiedpush/delivery.h"
#include "unifiedpush/device.h"
#include "unifiedpush/distributor.h"
#include "unifiedpush/names.h"
#include "unifiedpush/sessionbus.h"
#include "unifiedpush/statefile.h"
#include "unifiedpush/timer.h"
#include "util/logbudget.h"

class Bridge {
  public:
    static constexpr std::size_t kRegistrationsOfService = 100;
    static constexpr std::size_t kRegistrations =
        900;  // an application of the device may have 1,000 endpoints

    explicit Bridge(std::string folder);
    ~Bridge() = default;
    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    // The session bus is lost: the session has ended.
    std::function<void()> onEnd;
    // Reads the state, takes the name, connects to the device. False, with what to do, when it cannot serve.
    bool start(std::string& problem);

    // Tests shorten these.
    int64_t networkPatience = 20'000;  // milliseconds that a registration waits for the server
    std::function<int64_t()> unixTime;
    Delivery::Patience& patience() { return m_delivery.patience; }

  private:
    struct Waiter {  // a Register call whose answer depends on the server
        std::shared_ptr<RegisterCall> call;
        bool ownerless = false;
        Timer timer;
    };
    using Owned = std::function<void(bool known, const std::string& owner)>;

    // bridge.cpp
    bool takeName(std::string& problem);
    void openDevice();
    void askOwner(const std::string& service, Owned owned);
    void save(std::function<void(bool stored)> then);
    void writeState();
    void remove(const std::string& endpoint);
    void announce(const std::string& endpoint, const std::string& to);
    void announced(const std::string& endpoint);
    void nameChanged(const std::string& service);

    // managing.cpp
    int serveManagement();
    static int onList(sd_bus_message* call, void* data, sd_bus_error*);
    static int onRemove(sd_bus_message* call, void* data, sd_bus_error*);

    // registering.cpp
    using RegisterRef = std::shared_ptr<RegisterCall>;
    using UnregisterRef = std::shared_ptr<UnregisterCall>;
    void takeRegister(const RegisterRef& call);
    void acceptRegister(const RegisterRef& call, bool ownerless);
    const char* enter(const RegisterCall& call, bool& isNew);
    void stored(const RegisterRef& call, bool ownerless, bool isNew, bool ok);
    void waitForServer(const RegisterRef& call, bool ownerless);
    void succeed(const RegisterCall& call, bool ownerless);
    void answerWaiters(const std::string& endpoint, const char* reason);
    void takeUnregister(const UnregisterRef& call, std::vector<std::string> services);
    void finishUnregister(const UnregisterCall& call);

    // endpoints.cpp
    void appeared();
    void connected();
    void attend();
    void confirm(const std::string& endpoint);
    void created(const std::string& endpoint, const DeviceAnswer& answer);
    void takeAnswer(const std::string& endpoint, const DeviceAnswer& answer);
    void attendAgain();
    void addressChanged(const std::string& endpoint, const std::string& url);
    void takeAddress(const std::string& endpoint, Registration& registration, const std::string& url);
    void refused(const std::string& endpoint, const DeviceAnswer& answer, const char* reason);
    void erase(const std::string& endpoint);
    void erased(const std::string& endpoint, const DeviceAnswer& answer);
    void online();
    void offline();
    void takeItem(const std::string& endpoint, json_object* json);
    void taken(const std::string& endpoint, const Item& item);

    // housekeeping.cpp
    void keepHouse();
    void watchAge(const std::string& service);
    bool countAges();
    void countUnclaimed(const DeviceAnswer& answer);

    StateFile m_file;
    State m_state;
    LogBudget m_log;  // for lines that applications cause
    SessionBus m_bus;
    Names m_names;
    Delivery m_delivery;
    Distributor m_distributor;
    Slot m_management;
    Device m_device;
    std::list<Slot> m_asking;                     // questions for the owners of names
    std::map<std::string, unsigned> m_questions;  // how many of them Register calls wait for, by caller
    std::map<std::string, std::list<Waiter>> m_waiters;  // by endpoint
    std::set<std::string> m_confirming;                  // the server is asked for the endpoint
    std::set<std::string> m_confirmed;                   // it has it, as far as is known
    std::set<std::string> m_refused;                     // the server does not want it, for now
    std::set<std::string> m_erasing;                     // the server is asked to delete it
    bool m_online = false;                               // the last answer came from the server
    unsigned m_failures = 0;
    Timer m_attend;
    Timer m_refusedTimer;
    Timer m_housekeeping;
    Timer m_open;
    Timer m_write;
    Timer m_writeAgain;
    std::vector<std::function<void(bool stored)>> m_written;
};
