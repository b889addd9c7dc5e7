// SPDX-License-Identifier: GPL-3.0-only
// Bus handlers of the session: account, status, alarm targets and the connection itself.
#pragma once

#include "platform/bus/qs.h"

// session/account.cpp
bool initializeAccount(QSHandle* handle, QSMessage* message, void* context);
bool getJabberId(QSHandle* handle, QSMessage* message, void* context);
bool getResource(QSHandle* handle, QSMessage* message, void* context);
bool createSession(QSHandle* handle, QSMessage* message, void* context);  // in neither method table
bool disconnect(QSHandle* handle, QSMessage* message, void* context);

// session/status.cpp
bool connectStatus(QSHandle* handle, QSMessage* message, void* context);
bool subscribeConnStatus(QSHandle* handle, QSMessage* message, void* context);

// session/alarms.cpp: targets of the power service's alarms
bool keepAliveTimer(QSHandle* handle, QSMessage* message, void* context);
bool reconnectTimer(QSHandle* handle, QSMessage* message, void* context);
