// SPDX-License-Identifier: GPL-3.0-only
// Where the bridge is managed on the session bus: `List` returns a JSON text, `Remove` takes an endpoint.
#pragma once

inline constexpr char kManagement[] = "com.zelt.UnifiedPush1";
inline constexpr char kManagementPath[] = "/com/zelt/UnifiedPush";
