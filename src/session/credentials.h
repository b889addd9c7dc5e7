// SPDX-License-Identifier: GPL-3.0-only
// The credentials file: session details in use until the account service answers.
#pragma once

#include <string>

// Reads the lines JID, password, server host, port, pub-sub service, resource. A missing line leaves its
// output unchanged; a file that cannot be opened leaves all of them unchanged and is not logged.
void ReadCredentials(std::string& jid, std::string& password, std::string& resource, std::string& server,
                     int& port, std::string& service);

// The decimal number at the start of `text`; 0 when there is none or it is no port (0 to 65535).
int parsePort(const std::string& text);

// The text after the first '@', or all of it when there is none.
std::string domainOf(const std::string& jid);
