// SPDX-License-Identifier: GPL-3.0-only
// Item payloads between JSON and XML: members "#..." are an element's text, members "@..." its attributes,
// every other member is a child element. Elements made here carry no namespace.
#pragma once

#include <json-c/json.h>

#include <string>

namespace gloox {
class Tag;
}

// A new "item" element with the members of `object`, owned by the caller; null for a null object. Names that
// XML cannot carry give an element that no stanza takes.
gloox::Tag* GetXmlFromJSON(json_object* object);
// Adds the members of `object` to `tag`, in their order; nothing when it is no object.
void RecurseJsonTag(gloox::Tag* tag, json_object* object);
// A new "item" element whose child "payload" holds `text`, owned by the caller. A text that XML cannot carry
// is left out of it.
gloox::Tag* getItemTag(std::string text);

// A new object with one member for each child of `tag`, and "@" for its attributes; null for a null element.
json_object* GetJSONFromXml(const gloox::Tag* tag);
// Adds one member for `tag` to `parent`: its attributes and its text, not its children.
void GetJSONFromXmlTag(const gloox::Tag* tag, json_object* parent);

// {"item", "endpoint": the last segment of `node`, "returnValue": true}, owned by the caller.
json_object* getAppResponseJsonObj(const std::string& node, const std::string& item);
