// SPDX-License-Identifier: GPL-3.0-only
// `zelt-host account set|show|clear`: the account from the command line, the token from standard input.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "platform/host/config.h"

extern const char kAccountUsage[];

// `arguments` is what follows "account". Returns the exit code: 0, 1 when it failed, 2 for a
// wrong command line.
int runAccountCommand(const std::vector<std::string>& arguments, const HostConfig& config, std::istream& in,
                      std::ostream& out, std::ostream& err);
