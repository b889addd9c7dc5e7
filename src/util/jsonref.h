// SPDX-License-Identifier: GPL-3.0-only
// Ownership of a json-c object: one reference, given back at the end of the scope.
#pragma once

#include <json-c/json.h>

#include <memory>
#include <string>

struct JsonPut {
    void operator()(json_object* object) const { json_object_put(object); }
};
using JsonRef = std::unique_ptr<json_object, JsonPut>;

// Parses a text; null for a text that is no JSON and for the JSON text `null`.
inline JsonRef parseJson(const char* text) {
    return JsonRef(text ? json_tokener_parse(text) : nullptr);
}

// The member `key` of an object, borrowed. Null when `object` is no object, has no such member, or it is
// null.
inline json_object* jsonMember(json_object* object, const char* key) {
    json_object* value = nullptr;
    if (!json_object_is_type(object, json_type_object))
        return nullptr;
    json_object_object_get_ex(object, key, &value);
    return value;
}
