// SPDX-License-Identifier: GPL-3.0-only
// Reading request members: json-c's own conversions, one level of lookup, and the texts for what is missing.
//
// A member that is null counts as missing. Keeps no state.
#include "util/jsonargs.h"

#include "util/jsonref.h"

namespace {

std::string missing(const char* key) {
    return std::string("No ") + key + " provided";
}
std::string empty(const char* key) {
    return std::string("Empty ") + key + " provided";
}

void removeAll(std::string& text, char character) {
    std::erase(text, character);
}

}  // namespace

std::string getJSONString(json_object* object, const char* key, const std::string&, std::string spare) {
    std::string value;
    getJSONStringV2(object, key, spare, value);
    return value;
}

bool getJSONStringV2(json_object* object, const char* key, std::string& errorText, std::string& value) {
    json_object* member = jsonMember(object, key);
    if (!member) {
        errorText = missing(key);
        return false;
    }
    std::string text = json_object_get_string(member);
    if (text.empty()) {
        errorText = empty(key);
        return false;
    }
    cleanSlashes(text);
    value = std::move(text);
    return true;
}

bool getJSONboolean(json_object* object, const char* key, std::string& errorText, bool& value) {
    json_object* member = jsonMember(object, key);
    if (!member) {
        errorText = missing(key);
        return false;
    }
    value = json_object_get_boolean(member);
    return true;
}

bool getJSONInt(json_object* object, const char* key, std::string& errorText, int32_t& value) {
    json_object* member = jsonMember(object, key);
    if (!member) {
        errorText = missing(key);
        return false;
    }
    value = json_object_get_int(member);
    return true;
}

void removeQuotes(std::string& text) {
    removeAll(text, '"');
}

void cleanSlashes(std::string& text) {
    removeAll(text, '\\');
    removeQuotes(text);
}

std::list<std::string> cleanedEntries(json_object* array) {
    std::list<std::string> entries;
    const std::size_t count =
        json_object_is_type(array, json_type_array) ? json_object_array_length(array) : 0;
    for (std::size_t i = 0; i < count; ++i) {
        std::string entry = json_object_to_json_string(json_object_array_get_idx(array, i));
        cleanSlashes(entry);
        entries.push_back(std::move(entry));
    }
    return entries;
}

void getStringFromJSONObject(json_object* object, std::string& text) {
    text = json_object_to_json_string(object);
    removeAll(text, '\\');
}

json_object* getResponseJsonObject(const std::string& node, const std::string& itemId,
                                   const std::string& item) {
    return JsonObject()
        .set("item", item.c_str())
        .set("itemid", itemId.c_str())
        .set("node", node.c_str())
        .set("returnValue", true)
        .release()
        .release();
}
