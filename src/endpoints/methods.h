// SPDX-License-Identifier: GPL-3.0-only
// Bus handlers of the public endpoint API, and the private listener for on-close notices.
#pragma once

#include "platform/bus/qs.h"

// endpoints/publishkeys.cpp
bool createEndpoint(QSHandle* handle, QSMessage* message, void* context);
bool deleteEndpoint(QSHandle* handle, QSMessage* message, void* context);
bool getPublishKey(QSHandle* handle, QSMessage* message, void* context);

// endpoints/pushbackend.cpp, pushendpoint.cpp; the second is the target of an alarm
bool getPushBackend(QSHandle* handle, QSMessage* message, void* context);
bool pushRenewalTimer(QSHandle* handle, QSMessage* message, void* context);

// endpoints/publicsubscribe.cpp
bool subscribe(QSHandle* handle, QSMessage* message, void* context);
bool unsubscribe(QSHandle* handle, QSMessage* message, void* context);

// endpoints/receive.cpp, acknowledge.cpp, listendpoints.cpp
bool receive(QSHandle* handle, QSMessage* message, void* context);
bool acknowledge(QSHandle* handle, QSMessage* message, void* context);
bool listEndpoints(QSHandle* handle, QSMessage* message, void* context);

// endpoints/onclose.cpp
bool registerOnClose(QSHandle* handle, QSMessage* message, void* context);
bool subscribeOnClose(QSHandle* handle, QSMessage* message, void* context);
bool unsubscribeOnClose(QSHandle* handle, QSMessage* message, void* context);
