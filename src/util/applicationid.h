// SPDX-License-Identifier: GPL-3.0-only
// The rule for application ids, which stand in node names, bus messages and file names.
#pragma once

#include <cstddef>
#include <string_view>

inline constexpr size_t kLongestApplicationId = 255;

// Letters, digits, ".", "_" and "-", not begun by ".", 1 to `longest` bytes.
bool isApplicationId(std::string_view id, size_t longest = kLongestApplicationId);
