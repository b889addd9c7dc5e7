// SPDX-License-Identifier: GPL-3.0-only
// The sink of the XMPP library's own log; the session registers it only while m_debugLog is set.
#include "session/pubsubsession.h"
#include "util/log.h"

void PubSubSession::handleLog(gloox::LogLevel, gloox::LogArea, const std::string& message) {
    glooxDbg({}, "Gloox dbg: %s", message.c_str());
}
