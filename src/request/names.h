// SPDX-License-Identifier: GPL-3.0-only
// Full node names of applications, and the error code and text of a reply for an XMPP error.
#pragma once

#include <string>

#include "util/log.h"

namespace gloox {
class Error;
}
class PubSubSession;

// "/USER/RESOURCE/APPID/NODE", at most 99 bytes. `appId` is cut at its first space, after which the bus
// appends the process id. On failure `errorText` gives the reason and `fullName` is unspecified.
bool getNodeName(std::string node, std::string& fullName, PubSubSession& session, std::string& appId,
                 std::string& errorText);

// The error's type and its condition names (RFC 6120 section 8.3, XEP-0060 errors). Both texts are unchanged
// when there is no error.
void getErrorCode(const gloox::Error* error, std::string& errorCode, std::string& errorText);

// Logs the error's XML and the caller's name; does nothing when there is no error.
void printerror(const gloox::Error* error, CallSite site = {});
