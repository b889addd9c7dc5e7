// SPDX-License-Identifier: GPL-3.0-only
// Bus handlers of the session: the targets of the power service's alarms.
#pragma once

#include "platform/bus/qs.h"

// session/alarms.cpp
bool keepAliveTimer(QSHandle* handle, QSMessage* message, void* context);
bool reconnectTimer(QSHandle* handle, QSMessage* message, void* context);
