// SPDX-License-Identifier: GPL-3.0-only
// What the bus layer knows of the caller of a kept request, for those who act on it much later.
#pragma once

#include "platform/bus/qs.h"

// True for a request whose caller is known to have left the bus: nobody waits for its answer.
bool QSMessageIsCallerGone(QSMessage* message);
