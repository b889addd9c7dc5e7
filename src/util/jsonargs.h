// SPDX-License-Identifier: GPL-3.0-only
// Reading request members and building the small reply objects that several methods share.
#pragma once

#include <json-c/json.h>

#include <cstdint>
#include <list>
#include <string>

// The value with every backslash and double quote removed; "" when it is missing or empty. The reason is
// written into the last argument alone, which is a copy, so it never reaches the caller (sic: callers that
// need a text use V2).
std::string getJSONString(json_object* object, const char* key, const std::string& errorText,
                          std::string spare = {});
// The strict form: false with a reason in `errorText` when the member is missing or empty.
bool getJSONStringV2(json_object* object, const char* key, std::string& errorText, std::string& value);
bool getJSONboolean(json_object* object, const char* key, std::string& errorText, bool& value);
bool getJSONInt(json_object* object, const char* key, std::string& errorText, int32_t& value);

void removeQuotes(std::string& text);  // every double quote
void cleanSlashes(std::string& text);  // every backslash, then every double quote
// The JSON text of each entry, cleaned so; empty when it is no array.
std::list<std::string> cleanedEntries(json_object* array);
// The object's JSON text without backslashes. sic: it is no valid JSON any more when a string held an escape.
void getStringFromJSONObject(json_object* object, std::string& text);

// {"item", "itemid", "node", "returnValue": true}; the caller owns it.
json_object* getResponseJsonObject(const std::string& node, const std::string& itemId,
                                   const std::string& item);
