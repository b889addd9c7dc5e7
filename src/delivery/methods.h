// SPDX-License-Identifier: GPL-3.0-only
// Bus handlers of the private methods that subscribe to nodes and register item handlers. All return true:
// the message was handled.
#pragma once

#include "platform/bus/qs.h"

bool subscribeToNode(QSHandle* handle, QSMessage* message, void* context);
bool unsubscribeFromNode(QSHandle* handle, QSMessage* message, void* context);
bool registerItemCallback(QSHandle* handle, QSMessage* message, void* context);
bool registerItemCallbackV2(QSHandle* handle, QSMessage* message, void* context);
bool unRegisterItemCallback(QSHandle* handle, QSMessage* message, void* context);
