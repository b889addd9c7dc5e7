// SPDX-License-Identifier: GPL-3.0-only
// Reading and building JSON over json-c. Keeps no state.
#include "util/jsonref.h"

#include <algorithm>
#include <climits>

namespace {

bool parseWhole(const std::string& text, JsonRef& object) {
    if (text.size() >= INT_MAX)
        return false;
    const std::unique_ptr<json_tokener, decltype(&json_tokener_free)> tokener(json_tokener_new(),
                                                                              json_tokener_free);
    // The closing NUL is part of it: a bare number is complete only once its end is seen.
    object.reset(json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size() + 1)));
    if (json_tokener_get_error(tokener.get()) != json_tokener_success)
        return false;
    const size_t end = std::min(json_tokener_get_parse_end(tokener.get()), text.size());
    return std::string_view(text).substr(end).find_first_not_of(" \t\r\n") == std::string_view::npos;
}

JsonRef newText(std::string_view text) {
    return JsonRef(json_object_new_string_len(text.data(), static_cast<int>(text.size())));
}

}  // namespace

JsonRef parseWholeJson(const std::string& text) {
    JsonRef object;
    return parseWhole(text, object) ? std::move(object) : nullptr;
}

bool isJson(const std::string& text) {
    JsonRef object;
    return parseWhole(text, object);
}

std::string jsonText(json_object* object) {
    return json_object_to_json_string(object);
}

std::string jsonLine(json_object* object) {
    return json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

void appendJsonString(std::string& text, std::string_view value) {
    constexpr std::string_view kEscaped = "\b\n\r\t\f\"\\/";
    constexpr std::string_view kLetters = "bnrtf\"\\/";
    constexpr char kHex[] = "0123456789abcdef";
    text += '"';
    for (const char c : value) {
        // Most characters are none of these, and a search for each takes most of the time.
        const bool isPlain = static_cast<unsigned char>(c) >= ' ' && c != '"' && c != '\\' && c != '/';
        const std::size_t at = isPlain ? std::string_view::npos : kEscaped.find(c);
        if (at != std::string_view::npos) {
            text += '\\';
            text += kLetters[at];
        } else if (static_cast<unsigned char>(c) < ' ') {
            text += "\\u00";
            text += kHex[c >> 4];
            text += kHex[c & 0xf];
        } else {
            text += c;
        }
    }
    text += '"';
}

std::string textMember(json_object* object, const char* key) {
    json_object* const value = jsonMember(object, key);
    if (!json_object_is_type(value, json_type_string))
        return value ? jsonLine(value) : "";
    return {json_object_get_string(value), static_cast<size_t>(json_object_get_string_len(value))};
}

bool boolMember(json_object* object, const char* key, bool fallback) {
    json_object* const value = jsonMember(object, key);
    return json_object_is_type(value, json_type_boolean) ? json_object_get_boolean(value) : fallback;
}

JsonObject& JsonObject::set(const char* key, std::string_view value) {
    return set(key, newText(value));
}

JsonObject& JsonObject::set(const char* key, bool value) {
    return set(key, JsonRef(json_object_new_boolean(value)));
}

JsonObject& JsonObject::set(const char* key, int64_t value) {
    return set(key, JsonRef(json_object_new_int64(value)));
}

JsonObject& JsonObject::set(const char* key, JsonRef value) {
    if (json_object_is_type(m_object.get(), json_type_object))
        json_object_object_add(m_object.get(), key, value.release());
    return *this;
}

JsonArray& JsonArray::add(std::string_view value) {
    return add(newText(value));
}

JsonArray& JsonArray::add(JsonRef value) {
    json_object_array_add(m_array.get(), value.release());
    return *this;
}
