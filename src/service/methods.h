// SPDX-License-Identifier: GPL-3.0-only
// The two method tables, which are the whole bus interface of the service, and its own handlers: account and status.
#pragma once

#include "platform/bus/qs.h"

extern const QSMethod pubMethods[];  // any application, over the public bus
extern const QSMethod methods[];     // platform services, over the private bus

// service/account.cpp
bool initializeAccount(QSHandle* handle, QSMessage* message, void* context);
bool getJabberId(QSHandle* handle, QSMessage* message, void* context);
bool getResource(QSHandle* handle, QSMessage* message, void* context);
bool createSession(QSHandle* handle, QSMessage* message, void* context);  // in neither method table
bool disconnect(QSHandle* handle, QSMessage* message, void* context);

// service/status.cpp
bool connectStatus(QSHandle* handle, QSMessage* message, void* context);
bool subscribeConnStatus(QSHandle* handle, QSMessage* message, void* context);
