// SPDX-License-Identifier: GPL-3.0-only
// What somebody may have meant who typed a verb that there is not. Keeps no state.
#pragma once

#include <string>
#include <vector>

#include "tools/arguments.h"

// How many letters have to be added, left out, replaced or swapped with their neighbour.
size_t editDistance(const std::string& one, const std::string& other);
// `did you mean "status"?` or the like, for the words typed so far; "" when nothing is near.
std::string suggestion(const std::vector<std::string>& words, const std::vector<Verb>& verbs);
