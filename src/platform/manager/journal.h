// SPDX-License-Identifier: GPL-3.0-only
// The journal as the system log: each line with the fields CODE_FUNC, CODE_LINE and, where they apply,
// PUBSUB_NODE, PUBSUB_ITEM and PUBSUB_STATE.
#pragma once

inline constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

// From now on lines go to the journal, if one listens at this socket, instead of to syslog().
void logToJournal(const char* socket = kJournalSocket);
