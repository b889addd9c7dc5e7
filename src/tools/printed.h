// SPDX-License-Identifier: GPL-3.0-only
// What `--print` prints: texts that are made from the table of verbs, for the manual page and for shells. Keeps no
// state.
#pragma once

#include <string>
#include <vector>

#include "tools/arguments.h"

// For one of the words that `--print` takes.
std::string printedText(const std::string& what, const std::vector<Verb>& verbs);

// The sections of the options and of the verbs, in the markup of scdoc.
std::string manualText(const std::vector<Verb>& verbs);
