// SPDX-License-Identifier: GPL-3.0-only
// The checks of `doctor`: their findings and what to do about them. Keeps no state.
#pragma once

#include <string>
#include <vector>

struct Finding {
    enum class State { Good, Bad, Unknown };  // unknown: could not be checked
    std::string check;
    State state = State::Unknown;
    std::string detail;
    std::string advice;  // "" when there is nothing to do
};

// Where the service logs in, according to the account service or the credentials file.
struct ServerPlace {
    std::string user;
    std::string domain;
    std::string host;
    std::string port;
};

// Reads the answer of getAccountToken; false when the account is incomplete.
bool placeFromAccount(const std::string& payload, ServerPlace& place);
// Reads the text of a credentials file: JID, password, server and port, one per line.
bool placeFromCredentials(const std::string& text, ServerPlace& place);

// Name resolution, connection and certificate of a server; checks after a failed one are unknown.
std::vector<Finding> checkServer(const ServerPlace& place, const std::string& caFile, unsigned seconds);
// A folder in which the service or its store keeps files. It has to belong to the user, where that is named and exists.
Finding checkFolder(const std::string& check, const std::string& folder, const char* user = nullptr);
// Judges the answer to an operation that only a server with the device extension supports; `backend` is that of
// getPushBackend, "" when it was not asked.
Finding judgeExtension(const std::string& payload, const std::string& backend = {});

std::string findingLine(const Finding& finding, bool json);
