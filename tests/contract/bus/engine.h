// SPDX-License-Identifier: GPL-3.0-only
// The environment of a service in the bus contract: clients that call it, other services that it calls, and a
// main loop that is iterated until something has happened. The service itself is driven through the QS calls,
// so one suite runs against the layer on real bus daemons and against the fake that the unit tests link.
// Nothing survives a test: every engine starts with empty buses.
#pragma once

#include <glib.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/bus/qs.h"

// The name under which every test of the contract registers its service.
inline constexpr char kServiceName[] = "com.zelt.contract";

// One connection of a client. Destroying it closes the connection, as the end of the client's process does.
class BusClient {
  public:
    virtual ~BusClient() = default;

    // Calls a method of kServiceName without waiting; the functions below take the number of the call.
    virtual size_t call(const std::string& category, const std::string& method,
                        const std::string& payload) = 0;
    // The same with the flag "no reply expected".
    virtual size_t callWithoutReply(const std::string& category, const std::string& method,
                                    const std::string& payload) = 0;
    // Ends the subscription that the call opened; the outcome is among the answers.
    virtual void cancel(size_t call) = 0;
    // Everything received for the call, in order of arrival:
    //   "reply TEXT"       the method return              "error NAME"    a bus error in its place
    //   "answer TEXT"      a later answer                 "ended"         no answer follows
    //   "cancelled true"   Cancel found the subscription  "cancelled false"
    virtual std::vector<std::string> answers(size_t call) const = 0;
};

// A service of another process on the private bus. Destroying it releases the name.
class OtherService {
  public:
    virtual ~OtherService() = default;

    // The calls received so far, in order: "CATEGORY METHOD PAYLOAD", followed by " (no reply)" when the
    // caller expects none. The functions below take their index.
    virtual std::vector<std::string> calls() const = 0;
    virtual void reply(size_t call, const std::string& payload) = 0;
    virtual void refuse(size_t call, const std::string& errorName, const std::string& text) = 0;
    // A later answer to a call that was replied to, and the notice that none follows.
    virtual void answer(size_t call, const std::string& payload) = 0;
    virtual void end(size_t call) = 0;
    // The indexes of the calls whose subscription the caller has cancelled.
    virtual std::vector<size_t> cancelled() const = 0;
};

class BusEngine {
  public:
    virtual ~BusEngine() = default;

    // The loop to which the services of this test are attached. It does not run; `until` iterates it.
    virtual GMainLoop* loop() = 0;
    // A client on one bus. With an id, its messages have the application id "ID PID", otherwise "".
    virtual std::unique_ptr<BusClient> client(QSBus bus, const std::string& applicationId = {}) = 0;
    // A service of another process; it owns the name when this returns.
    virtual std::unique_ptr<OtherService> otherService(const std::string& name) = 0;
    // Iterates the loop until the condition holds; false when it does not within five seconds.
    virtual bool until(const std::function<bool()>& condition) = 0;
    // Iterates the loop until everything sent so far has been handled, the replies included.
    virtual void settle() = 0;
};

std::unique_ptr<BusEngine> makeBusEngine();
