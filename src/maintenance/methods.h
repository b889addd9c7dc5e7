// SPDX-License-Identifier: GPL-3.0-only
// Bus handlers of node maintenance.
#pragma once

#include "platform/bus/qs.h"

// maintenance/activation.cpp
bool activateNode(QSHandle* handle, QSMessage* message, void* context);

// maintenance/trace.cpp
bool getTrace(QSHandle* handle, QSMessage* message, void* context);
