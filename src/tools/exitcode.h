// SPDX-License-Identifier: GPL-3.0-only
// How a command ends. Scripts rely on the numbers.
#pragma once

enum class Exit {
    Ok = 0,
    CommandFailed = 1,  // a command that was run for an item failed
    Usage = 2,          // the command line was wrong; nothing was sent
    Refused = 3,        // the service refused
    NotConnected = 4,   // no bus, no service, or the service is not connected to its server
    TimedOut = 5,
};
