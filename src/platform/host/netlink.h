// SPDX-License-Identifier: GPL-3.0-only
// The kernel's view of the network, over rtnetlink: a reading of the complete state, and a descriptor that
// tells when to read again. The caller owns the descriptor.
#pragma once

#include <cstddef>

#include "platform/host/networkstate.h"

// Reads links, addresses and default routes; false, logged, when the kernel cannot be asked.
bool readNetwork(NetworkSnapshot& snapshot);
// A descriptor that becomes readable when a link, an address or a route changes; -1, logged, on failure.
int openNetworkChanges();
// Discards the pending notices: only that there were some matters.
void drainNetworkChanges(int descriptor);

// Adds one dump message (an nlmsghdr and what follows it) to the snapshot. For `readNetwork` and its tests.
void addNetlinkMessage(const void* message, NetworkSnapshot& snapshot);
