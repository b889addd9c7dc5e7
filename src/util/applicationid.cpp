// SPDX-License-Identifier: GPL-3.0-only
// The rule for application ids. No state, and no locale: the same text is an id in every process.
#include "util/applicationid.h"

namespace {

constexpr char kCharacters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";

}  // namespace

bool isApplicationId(std::string_view id, size_t longest) {
    return !id.empty() && id.size() <= longest && id.front() != '.' &&
           id.find_first_not_of(kCharacters) == std::string_view::npos;
}
