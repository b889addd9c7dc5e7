// SPDX-License-Identifier: GPL-3.0-only
// Network tracking: what the connection manager's status means for the XMPP connection.
#pragma once

#include <json-c/json.h>

#include <string>

#include "platform/bus/qs.h"

// Callback of the connection manager's status subscription.
bool connectionStatusV2(QSHandle* handle, QSMessage* message, void* context);
// Internet is there: connects, or moves the connection to the better link. `status` is borrowed.
void connectOrSwitchConnections(json_object* status);
// Whether the state of `link` ("wifi" or "wan") is told at all; `isConnected` says what it is.
bool checkConnection(const char* link, json_object* status, bool& isConnected);
// The local address of `link`, "" when it is not told.
std::string getIPAddress(const char* link, json_object* status);
