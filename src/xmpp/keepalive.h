// SPDX-License-Identifier: GPL-3.0-only
// How the kernel notices that the server is no longer there, without waking this process: probes on an idle
// connection, and a bound for output that the server does not acknowledge. Keeps no state.
#pragma once

namespace xmpp {

// In seconds, but for the number of probes.
struct KeepAlive {
    int idle = 0;  // before the first probe; 0 sends none
    int interval = 0;
    int probes = 0;
    // For a server from which nothing is heard, whether probes or output wait for it: the kernel applies one
    // bound to both.
    int silence = 60;

    // Sets the options of a TCP socket.
    void applyTo(int socket) const;
};

// The keep-alive whose first probe comes after so many seconds; 0 is none.
KeepAlive keepAliveAfter(int idle);
// The one that PUBSUB_TCP_KEEPALIVE asks for, 240 seconds by default. Another text than a whole number from 0
// to 32767 is logged, and the default applies.
KeepAlive configuredKeepAlive();

}  // namespace xmpp
