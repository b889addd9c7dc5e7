// SPDX-License-Identifier: GPL-3.0-only
// The verbs of the command line; each group has its own file. Keeps no state.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/arguments.h"
#include "tools/client.h"
#include "tools/console.h"

const std::vector<Verb>& allVerbs();

// How long to receive; 0 is no limit.
struct Bounds {
    unsigned count = 0;
    unsigned seconds = 0;
};
// Reads -C and -W; false with the reason.
bool readBounds(const Invocation& invocation, Bounds& bounds, std::string& problem);

// A client on a bus, ready to call; null with `failure` filled when the bus cannot be reached.
std::unique_ptr<BusClient> openBus(QSBus bus, Reply& failure);
// Calls a method of the service on the private bus with the invocation's timeout.
Reply callService(const Invocation& invocation, const char* method, const std::string& payload);
// The same on the public bus, for an application.
Reply callPublic(const Invocation& invocation, const char* method, const std::string& payload);
// Where zelt-host tells and is told whether it keeps the connection.
inline constexpr char kHostConnection[] = "zelt://com.zelt.host/connection";
// Tells the host over the private bus whether the connection is wanted. Where there is none, nobody has to be
// told; any other failure is only reported.
void tellHost(BusClient& client, const Invocation& invocation, Console& console, bool keep);
// False with the reason for a text that no bus message can carry; `place` names its source.
bool isSendable(const std::string& text, const std::string& place, std::string& problem);
// Reads all of standard input ("-") or of a file; false with the reason.
bool readWhole(Console& console, const std::string& place, std::string& text, std::string& problem);

// The URL before a key, where items are published over HTTP; "" when nobody has told it.
std::string publishBase(const Invocation& invocation);

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
Exit runEndpointList(const Invocation& invocation, Console& console);
// `subscribe` without --newest.
Exit runReceive(const Invocation& invocation, Console& console);
Exit runSetup(const Invocation& invocation, Console& console);
Exit runTrace(const Invocation& invocation, Console& console);
Exit runPushList(const Invocation& invocation, Console& console);
Exit runPushRemove(const Invocation& invocation, Console& console);
Exit runPushTest(const Invocation& invocation, Console& console);
Exit runHandler(const Invocation& invocation, Console& console);
Exit runNodeList(const Invocation& invocation, Console& console);
// `--complete`
Exit runComplete(const Invocation& invocation, Console& console);
Exit runCall(const Invocation& invocation, Console& console);

// Parts that are tested alone.

// Follows a login by the connection status: the current status, the loss of an existing connection, then the
// new connection or another loss.
struct LoginProgress {
    bool first = true;
    bool up = false;
    int lossesExpected = 0;
    bool take(bool connected);  // false once the login is over; `up` is the result
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
// The same of an item that waits for its acknowledgement; under --json with "itemid", "encoding", "expires"
// and "published" where they are given.
std::string receivedItem(const std::string& payload, bool json);
// The nodes that the device knows, one a line.
std::string nodeLines(const std::string& payload);
// What is known of an application's endpoints, one a line.
std::string endpointLines(const std::string& payload);
// Of an answer to getTrace {"itemid","acknowledged","stations"}, in the order of time, with the stations of the
// sender: when it published and when that was answered, in microseconds since 1970.
std::string traceReport(const std::string& answer, int64_t asked, int64_t answered);
// The stations of a report, one a line, with the time since the first.
std::string traceTable(const std::string& report);
// What is missing to the acknowledgement of an item for this node or key, "" when it was acknowledged.
std::string traceGap(const std::string& answer, const std::string& target);
// What the applications of the session have registered, one a line.
std::string pushLines(const std::string& payload);
// A request for approval: "NODE  id: ...", or its four members under --json.
std::string pendingLine(const std::string& payload, bool json);
// A notice for a closed application: that it waits again, or that there is an item for it.
std::string noticeLine(const std::string& payload, bool json);
