// SPDX-License-Identifier: GPL-3.0-only
// Publishing over HTTP: one request and the interpretation of its answer. Keeps no state.
#pragma once

#include <string>
#include <vector>

#include "tools/reply.h"

struct HttpAnswer {
    long status = 0;
    std::string body;
    std::string retryAfter;  // the header as received; "" when there was none
};

// The URL to publish to. `target` is a key or a full URL, `base` the URL before a key. False with the reason.
bool publishUrl(const std::string& target, const std::string& base, std::string& url, std::string& problem);
// The reply for an answer; its text never contains the key.
Reply judgeHttp(const HttpAnswer& answer);
// Posts the text and judges the answer. `fields` are further header fields, "Name: value".
Reply postItem(const std::string& url, const std::string& text, unsigned timeoutSeconds,
               const std::vector<std::string>& fields = {});
