// SPDX-License-Identifier: GPL-3.0-only
// Receives the XMPP library's log; registered only when m_debugLog is set.
#include "session/pubsubsession.h"
#include "util/log.h"

void PubSubSession::handleLog(gloox::LogLevel, gloox::LogArea, const std::string& message) {
    glooxDbg({}, "Gloox dbg: %s", message.c_str());
}
