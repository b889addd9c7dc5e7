// SPDX-License-Identifier: GPL-3.0-only
// The state of the caller of a kept request, for code that handles the request much later.
#pragma once

#include "platform/bus/qs.h"

// True for a request whose caller is known to have disconnected, so that nobody waits for its answer.
bool QSMessageIsCallerGone(QSMessage* message);
