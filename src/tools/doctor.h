// SPDX-License-Identifier: GPL-3.0-only
// The checks of `doctor`: what each looks at, what it found and what to do about it. Keeps no state.
#pragma once

#include <string>
#include <vector>

struct Finding {
    enum class State { Good, Bad, Unknown };  // unknown: could not be looked at
    std::string check;
    State state = State::Unknown;
    std::string detail;
    std::string advice;  // "" when there is nothing to do
};

// Where the service logs in, as the account service or the credentials file says.
struct ServerPlace {
    std::string user;
    std::string domain;
    std::string host;
    std::string port;
};

// Reads the answer of getAccountToken; false when it names no whole account.
bool placeFromAccount(const std::string& payload, ServerPlace& place);
// Reads the text of a credentials file: JID, password, server and port, a line each.
bool placeFromCredentials(const std::string& text, ServerPlace& place);

// Name resolution, connection and certificate of a server; what follows a failure is unknown.
std::vector<Finding> checkServer(const ServerPlace& place, const std::string& caFile, unsigned seconds);
// A folder in which the service or its store keeps files.
Finding checkFolder(const std::string& check, const std::string& folder);
// Judges the answer to an operation that only a server with the device extension understands.
Finding judgeExtension(const std::string& payload);

std::string findingLine(const Finding& finding, bool json);
