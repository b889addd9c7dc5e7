// SPDX-License-Identifier: GPL-3.0-only
// The small part of json-c that the command line needs. Keeps no state.
#include "tools/json.h"

#include <algorithm>
#include <climits>
#include <string_view>

static bool parseWhole(const std::string& text, Json& object) {
    if (text.size() >= INT_MAX)
        return false;
    std::unique_ptr<json_tokener, decltype(&json_tokener_free)> tokener(json_tokener_new(),
                                                                        json_tokener_free);
    // The closing NUL is part of it: a bare number is complete only once its end is seen.
    object.reset(json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size() + 1)));
    if (json_tokener_get_error(tokener.get()) != json_tokener_success)
        return false;
    size_t end = std::min(json_tokener_get_parse_end(tokener.get()), text.size());
    return std::string_view(text).substr(end).find_first_not_of(" \t\r\n") == std::string_view::npos;
}

bool isJson(const std::string& text) {
    Json object;
    return parseWhole(text, object);
}

Json readJson(const std::string& text) {
    Json object;
    return parseWhole(text, object) ? std::move(object) : nullptr;
}

std::string jsonLine(json_object* object) {
    return json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

static json_object* member(json_object* object, const char* key) {
    json_object* value = nullptr;
    if (json_object_is_type(object, json_type_object))
        json_object_object_get_ex(object, key, &value);
    return value;
}

std::string textMember(json_object* object, const char* key) {
    json_object* value = member(object, key);
    if (!json_object_is_type(value, json_type_string))
        return value ? jsonLine(value) : "";
    return {json_object_get_string(value), static_cast<size_t>(json_object_get_string_len(value))};
}

bool boolMember(json_object* object, const char* key, bool fallback) {
    json_object* value = member(object, key);
    return json_object_is_type(value, json_type_boolean) ? json_object_get_boolean(value) : fallback;
}

bool hasMember(json_object* object, const char* key) {
    return member(object, key) != nullptr;
}

Payload& Payload::add(const char* key, const std::string& value) {
    return add(key, Json(json_object_new_string_len(value.data(), static_cast<int>(value.size()))));
}

Payload& Payload::add(const char* key, bool value) {
    return add(key, Json(json_object_new_boolean(value)));
}

Payload& Payload::add(const char* key, int value) {
    return add(key, Json(json_object_new_int(value)));
}

Payload& Payload::add(const char* key, Json value) {
    json_object_object_add(m_object.get(), key, value.release());
    return *this;
}
