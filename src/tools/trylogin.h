// SPDX-License-Identifier: GPL-3.0-only
// A login with an account, as the service makes it, that ends at once. Keeps no state.
#pragma once

#include <string>

#include "tools/doctor.h"

// "" when the server takes the account, else what was wrong and what to do about it. The server learns a
// session with a resource of its own, which receives nothing.
std::string tryLogin(const ServerPlace& place, const std::string& token, const std::string& caFile,
                     unsigned seconds);
