// SPDX-License-Identifier: GPL-3.0-only
// Endpoints of web push on a server without the device extension, for the handlers of the public methods.
#pragma once

#include <string>

#include "session/endpointrequest.h"

namespace gloox {
class Error;
}
class PubSubSession;
class Request;

// pushbackend.cpp
// The server lacks the extension, as far as is known in this connection.
bool lacksExtension(const PubSubSession& session);
// Whether a refusal of the pub-sub service may have this reason.
bool mayLackExtension(const PubSubSession& session, const gloox::Error& error);
// Finds out, and goes on with backendFound().
void waitForBackend(PubSubSession& session, const std::string& id, _endpointStruct request,
                    const std::string& refusal);
void forgetBackend(PubSubSession& session);

// pushendpoint.cpp
// Asks a provider for the endpoint's address, or answers with the refusal of a server that has the extension.
void backendFound(PubSubSession& session, _endpointStruct request, const std::string& refusal);
void createAtProvider(PubSubSession& session, _endpointStruct request);
bool deletePushEndpoint(PubSubSession& session, Request& request);
