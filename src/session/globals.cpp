// SPDX-License-Identifier: GPL-3.0-only
// The process-wide objects, constructed in this order before main and destroyed in the reverse one.
//
// The credential texts are read from the credentials file at start. gPubSub is never used: at start it is
// copied into gCurrentSession, so that the session begins in a freshly constructed state.
#include "session/pubsubsession.h"

std::string gjid;
std::string gpasswd;
std::string gpNode;
std::string gserver;
std::string gresource;
PubSubSession gPubSub;
PubSubSession gCurrentSession;
int32_t gport = 5222;
GMainLoop* gpMainLoop = nullptr;
