// SPDX-License-Identifier: GPL-3.0-only
// Publishing over HTTP: one request, and what its answer means to a person. Keeps no state.
#pragma once

#include <string>

#include "tools/reply.h"

struct HttpAnswer {
    long status = 0;
    std::string body;
    std::string retryAfter;  // the header as it came; "" when there was none
};

// Where a key publishes. `target` is a key or a whole address, `base` the address before a key. False with
// what is wrong.
bool publishUrl(const std::string& target, const std::string& base, std::string& url, std::string& problem);
// What an answer means; the words never name the key.
Reply judgeHttp(const HttpAnswer& answer);
// Posts the text; the result is judged.
Reply postItem(const std::string& url, const std::string& text, unsigned timeoutSeconds);
