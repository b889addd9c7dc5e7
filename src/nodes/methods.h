// SPDX-License-Identifier: GPL-3.0-only
// Bus handlers of the private node methods. Each answers at once when it refuses; else the result handler of
// the session answers when the server has. All return true: the message was handled.
#pragma once

#include "platform/bus/qs.h"

bool createNode(QSHandle* handle, QSMessage* message, void* context);
bool deleteNode(QSHandle* handle, QSMessage* message, void* context);
bool publishItemToNode(QSHandle* handle, QSMessage* message, void* context);  // bus method publishItem
bool setNodeConfig(QSHandle* handle, QSMessage* message, void* context);
bool getNodeConfig(QSHandle* handle, QSMessage* message, void* context);
bool getPendingAuth(QSHandle* handle, QSMessage* message, void* context);
bool approvePending(QSHandle* handle, QSMessage* message, void* context);
bool subscribeNodeAuth(QSHandle* handle, QSMessage* message, void* context);
