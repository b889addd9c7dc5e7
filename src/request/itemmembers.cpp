// SPDX-License-Identifier: GPL-3.0-only
// The members of an item beyond its text and id. Keeps no state.
#include "request/itemmembers.h"

#include <glib.h>

#include <string>

namespace {

constexpr int kDecimal = 10;

void addNumber(JsonObject& object, const char* key, const std::string& decimal) {
    if (!decimal.empty())
        object.set(key, static_cast<int64_t>(g_ascii_strtoll(decimal.c_str(), nullptr, kDecimal)));
}

}  // namespace

void addItemMembers(JsonObject& object, const _itemStruct& item) {
    if (!item.encoding.empty())
        object.set("encoding", item.encoding);
    addNumber(object, "expires", item.expires);
    addNumber(object, "published", item.published);
    if (!item.urgency.empty())
        object.set("urgency", item.urgency);
}
