// SPDX-License-Identifier: GPL-3.0-only
// The two method tables, which are the whole bus interface of the service.
#pragma once

#include "platform/bus/qs.h"

extern const QSMethod pubMethods[];  // any application, over the public bus
extern const QSMethod methods[];     // platform services, over the private bus
