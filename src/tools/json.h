// SPDX-License-Identifier: GPL-3.0-only
// Building request payloads and reading replies, over json-c. Keeps no state.
#pragma once

#include <json-c/json.h>

#include <memory>
#include <string>

struct JsonRelease {
    void operator()(json_object* object) const { json_object_put(object); }
};
using Json = std::unique_ptr<json_object, JsonRelease>;

// A whole JSON text; null when it is none or when anything but blanks follows it.
Json readJson(const std::string& text);
// Tells a JSON text from anything else; `null` is one too.
bool isJson(const std::string& text);
// One line, slashes as they are.
std::string jsonLine(json_object* object);

// Members of a reply; the fallback when the object is none, lacks the member or holds another type.
std::string textMember(json_object* object, const char* key);
bool boolMember(json_object* object, const char* key, bool fallback = false);
bool hasMember(json_object* object, const char* key);

class Payload {
  public:
    Payload() : m_object(json_object_new_object()) {}
    Payload& add(const char* key, const std::string& value);
    Payload& add(const char* key, const char* value) { return add(key, std::string(value)); }
    Payload& add(const char* key, bool value);
    Payload& add(const char* key, int value);
    Payload& add(const char* key, Json value);
    std::string text() const { return jsonLine(m_object.get()); }

  private:
    Json m_object;
};
