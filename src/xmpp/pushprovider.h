// SPDX-License-Identifier: GPL-3.0-only
// The XMPP push protocol "http://gultsch.de/xmpp/drafts/unified-push", as a client: a message of a provider, and
// what it is answered. The operations are in xmpp/manager.h.
#pragma once

#include <gloox/tag.h>

#include <optional>
#include <string>

namespace xmpp {

// A message, in an IQ of type `set`. All texts are the provider's.
struct ReceivedPush {
    std::string id;
    std::string from;
    std::string application;
    std::string instance;
    std::string payload;  // in base64
};

struct PushAnswer {
    std::string id;
    std::string to;
    // The type and the condition of a stanza error (RFC 6120, section 8.3); null: the message was taken.
    const char* type = nullptr;
    const char* condition = nullptr;
};

// Nothing for any other stanza.
std::optional<ReceivedPush> readPush(const gloox::Tag& stanza);

}  // namespace xmpp
