// SPDX-License-Identifier: GPL-3.0-only
// Network tracking: what the connection manager's status means for the XMPP connection.
#pragma once

#include <json-c/json.h>

#include <string>

#include "platform/bus/qs.h"

// Callback of the connection manager's status subscription.
bool connectionStatusV2(QSHandle* handle, QSMessage* message, void* context);
// For a report with Internet: connects, or moves the connection to the better link. `status` is borrowed.
void connectOrSwitchConnections(json_object* status);
// False when the report lacks the state of `link` ("wifi" or "wan"); `isConnected` receives that state.
bool checkConnection(const char* link, json_object* status, bool& isConnected);
// The local address of `link`, "" when the report lacks it.
std::string getIPAddress(const char* link, json_object* status);
