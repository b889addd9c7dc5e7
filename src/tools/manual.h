// SPDX-License-Identifier: GPL-3.0-only
// The part of the manual page that the table of verbs has. Keeps no state.
#pragma once

#include <string>
#include <vector>

#include "tools/arguments.h"

// The sections of the options and of the verbs, in the markup of scdoc.
std::string manualText(const std::vector<Verb>& verbs);
