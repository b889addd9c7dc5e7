// SPDX-License-Identifier: GPL-3.0-only
// What the tests of the connection share: a session that is about to connect, and expected lines.
#pragma once

#include <string>

#include "tests/fakes/servicefixture.h"

inline constexpr char kReconnectAlarmStart[] =
    "bus.call zelt://com.zelt.power/timeout/set {\"key\":\"reconnectTimer\"";

class Connection : public ServiceTest {
  protected:
    // Begins a connection, with journal and log empty.
    void beginConnecting() {
        setAccountDetails();
        ASSERT_TRUE(session().connectToService());
        ASSERT_TRUE(session().m_connecting);
        takeEvents();
        takeLog();
    }
    std::string attachedLine() {
        return "attachSocketToMainLoop: Attached socket " + std::to_string(session().m_socket) +
               " to mainloop";
    }
    static std::string lostLine(gloox::ConnectionError error) {
        return "onDisconnect: Disconnected from xmpp server " + std::to_string(error);
    }
    bool reconnectArmed() {
        for (const std::string& event : journal().events())
            if (event.starts_with(kReconnectAlarmStart))
                return true;
        return false;
    }
};
