// SPDX-License-Identifier: GPL-3.0-only
// The verbs of the command line; each group has a file of its own. Keeps no state.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/arguments.h"
#include "tools/client.h"
#include "tools/console.h"

const std::vector<Verb>& allVerbs();

// How long to receive: 0 sets no bound.
struct Bounds {
    unsigned count = 0;
    unsigned seconds = 0;
};
// -C and -W; false with what is wrong.
bool readBounds(const Invocation& invocation, Bounds& bounds, std::string& problem);

// A client on a bus, ready to call; null with `failure` filled when the bus cannot be reached.
std::unique_ptr<BusClient> openBus(QSBus bus, Reply& failure);
// Calls a method of the service on the private bus with the invocation's timeout.
Reply callService(const Invocation& invocation, const char* method, const std::string& payload);
// The same on the public bus, in the name of an application.
Reply callPublic(const Invocation& invocation, const char* method, const std::string& payload);
// False, with the reason, for a text that no bus message can carry; `place` says where it came from.
bool mayTravel(const std::string& text, const std::string& place, std::string& problem);
// Standard input ("-") or a file, whole; false with a reason.
bool readWhole(Console& console, const std::string& place, std::string& text, std::string& problem);

// The text to publish: the second argument, --file or standard input.
bool itemText(const Invocation& invocation, Console& console, std::string& text, std::string& problem);

Exit runStatus(const Invocation& invocation, Console& console);
Exit runSessionLogin(const Invocation& invocation, Console& console);
Exit runSessionDisconnect(const Invocation& invocation, Console& console);
Exit runSessionJid(const Invocation& invocation, Console& console);
Exit runDoctor(const Invocation& invocation, Console& console);
Exit runNodeCreate(const Invocation& invocation, Console& console);
Exit runNodeDelete(const Invocation& invocation, Console& console);
Exit runNodePublish(const Invocation& invocation, Console& console);
Exit runNodeSubscribe(const Invocation& invocation, Console& console);
Exit runNodeUnsubscribe(const Invocation& invocation, Console& console);
Exit runNodeConfig(const Invocation& invocation, Console& console);
Exit runEndpointCreate(const Invocation& invocation, Console& console);
Exit runEndpointDelete(const Invocation& invocation, Console& console);
Exit runEndpointKey(const Invocation& invocation, Console& console);
Exit runSubscribe(const Invocation& invocation, Console& console);
Exit runUnsubscribe(const Invocation& invocation, Console& console);
Exit runPublish(const Invocation& invocation, Console& console);
Exit runPendingList(const Invocation& invocation, Console& console);
Exit runPendingApprove(const Invocation& invocation, Console& console);
Exit runPendingDeny(const Invocation& invocation, Console& console);
Exit runOnCloseListen(const Invocation& invocation, Console& console);
Exit runOnCloseAdd(const Invocation& invocation, Console& console);
Exit runOnCloseRemove(const Invocation& invocation, Console& console);
Exit runHandler(const Invocation& invocation, Console& console);
Exit runCall(const Invocation& invocation, Console& console);

// Parts that the tests look at alone.

// What a login looks like from the connection status: the status now, the loss of a standing connection, then
// the new one or another loss.
struct LoginProgress {
    bool first = true;
    bool up = false;
    int lossesToBear = 0;
    bool take(bool connected);  // false once the login is over; `up` says how
};

std::string statusLine(const std::string& payload);
bool createPayload(const Invocation& invocation, std::string& payload, std::string& problem);
bool publishPayload(const Invocation& invocation, Console& console, std::string& payload,
                    std::string& problem);
bool subscribePayload(const Invocation& invocation, std::string& payload, std::string& problem);
bool configPayload(const Invocation& invocation, std::string& payload, std::string& problem);
bool callPayload(const Invocation& invocation, Console& console, std::string& payload, std::string& problem);
// One delivered item: its text alone, or {"node","itemid","item"} under --json.
std::string itemLine(const std::string& payload, bool json);
// An item of an endpoint: its text alone, or {"endpoint","item"} under --json.
std::string endpointItem(const std::string& payload, bool json);
// A request for approval: "NODE  id: ...", or its four members under --json.
std::string pendingLine(const std::string& payload, bool json);
// A notice for a closed application: that it waits again, or an item for it.
std::string noticeLine(const std::string& payload, bool json);
