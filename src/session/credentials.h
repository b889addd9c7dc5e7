// SPDX-License-Identifier: GPL-3.0-only
// The credentials file: session details that hold until the account service answers.
#pragma once

#include <string>

// Reads the lines JID, password, server host, port, pub-sub service, resource. Lines that are not there leave
// their output as it was, and so does a file that cannot be opened, silently.
void ReadCredentials(std::string& jid, std::string& password, std::string& resource, std::string& server,
                     int& port, std::string& service);

// The number a text begins with, base 10; 0 for a text that is no number and for what is no port (0 to
// 65535).
int parsePort(const std::string& text);

// The text after the first at sign, all of it when there is none.
std::string domainOf(const std::string& jid);
