// SPDX-License-Identifier: GPL-3.0-only
// Filling the error record of a bus call, and the names of the D-Bus errors that the layer itself sends.
#pragma once

#include <string>

#include "platform/bus/qs.h"

inline constexpr char kErrorNoAnswer[] = "com.zelt.Error.NoAnswer";
inline constexpr char kErrorLimitExceeded[] = "com.zelt.Error.LimitExceeded";
inline constexpr char kErrorInvalidText[] = "com.zelt.Error.InvalidText";

// Fills the record, which may be null, and replaces what it held; always false. `code` is a negative errno.
bool busFail(QSError* error, int code, const std::string& message);
// The same with the system's text for the code: "WHAT: Connection refused".
bool busFailErrno(QSError* error, int code, const std::string& what);
