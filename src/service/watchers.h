// SPDX-License-Identifier: GPL-3.0-only
// Watches on the platform services that this service depends on. Each function returns true when the bus
// accepted the call.
#pragma once

#include "platform/bus/qs.h"

bool registerConnectionManagerStatus(QSHandle* handle);
bool registerAppInstallerStatus(QSHandle* handle);
bool registerAccountSrvcStatus(QSHandle* handle);
bool registerSystemMgrStatus(QSHandle* handle);

// Callbacks of the four watches, and of the installer's change notices.
bool connectionManagerUp(QSHandle* handle, QSMessage* message, void* context);
bool appInstallerUp(QSHandle* handle, QSMessage* message, void* context);
bool accountServicesUp(QSHandle* handle, QSMessage* message, void* context);
bool systemMgrUp(QSHandle* handle, QSMessage* message, void* context);
bool appInstallChange(QSHandle* handle, QSMessage* message, void* context);
