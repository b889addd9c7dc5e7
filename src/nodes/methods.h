// SPDX-License-Identifier: GPL-3.0-only
// Bus handlers of the private node methods. A refusal is answered at once, any other request when the
// server's result arrives. All return true: the message was handled.
#pragma once

#include "platform/bus/qs.h"

bool createNode(QSHandle* handle, QSMessage* message, void* context);
bool deleteNode(QSHandle* handle, QSMessage* message, void* context);
bool listNodes(QSHandle* handle, QSMessage* message, void* context);
bool publishItemToNode(QSHandle* handle, QSMessage* message, void* context);  // bus method publishItem
bool setNodeConfig(QSHandle* handle, QSMessage* message, void* context);
bool getNodeConfig(QSHandle* handle, QSMessage* message, void* context);
bool getPendingAuth(QSHandle* handle, QSMessage* message, void* context);
bool approvePending(QSHandle* handle, QSMessage* message, void* context);
bool subscribeNodeAuth(QSHandle* handle, QSMessage* message, void* context);
