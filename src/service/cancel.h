// SPDX-License-Identifier: GPL-3.0-only
// Cancel functions: what the service removes when a client's subscription ends. `message` is the
// client's own request.
#pragma once

#include "platform/bus/qs.h"

bool cancelFunction(QSHandle* handle, QSMessage* message, void* context);    // private connection
bool publicCancelFunc(QSHandle* handle, QSMessage* message, void* context);  // public connection
