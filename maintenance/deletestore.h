// SPDX-License-Identifier: GPL-3.0-only
// The one step of the clean-up that a single deletion shares with it.
#pragma once

#include <string>

class PubSubSession;

// Forgets the number of the node's last item; a node without one is fine.
void removeSeqNo(const std::string& node, PubSubSession& session);
