// SPDX-License-Identifier: GPL-3.0-only
// The JSON-XML convention of item payloads, both ways, and the object that hands an item to an application.
//
// Values go over as JSON text: a string keeps its double quotes, and a receiver expects them. Keeps no state.
#include "util/jsonxml.h"

#include <gloox/tag.h>

#include <memory>

#include "util/jsonref.h"
#include "util/log.h"

namespace {

// Stands for an attribute name that gloox would leave out in silence, the empty one too: no stanza can carry
// it, so the item is refused as one with a bad element name is.
constexpr char kNoName[] = " ";

void addAttributes(gloox::Tag* tag, json_object* attributes) {
    if (!json_object_is_type(attributes, json_type_object))
        return;
    json_object_object_foreach(attributes, name, value) {
        const char* text = json_object_to_json_string(value);
        if (!tag->addAttribute(name, text))
            tag->addAttribute(kNoName, text);
    }
}

JsonRef attributesOf(const gloox::Tag* tag) {
    JsonObject attributes;
    for (const gloox::Tag::Attribute* attribute : tag->attributes())
        attributes.set(attribute->name().c_str(), attribute->value());
    return attributes.release();
}

void addChild(gloox::Tag* tag, const char* name, json_object* value) {
    auto child = std::make_unique<gloox::Tag>(name);
    if (json_object_is_type(value, json_type_object))
        RecurseJsonTag(child.get(), value);
    else
        child->addCData("null");  // sic: plain values are not carried, whatever they are
    tag->addChild(child.release());
}

}  // namespace

gloox::Tag* GetXmlFromJSON(json_object* object) {
    if (!object) {
        PrvPrintErr({}, "Invalid JSON object");
        return nullptr;
    }
    auto item = std::make_unique<gloox::Tag>("item");
    RecurseJsonTag(item.get(), object);
    return item.release();
}

void RecurseJsonTag(gloox::Tag* tag, json_object* object) {
    if (!json_object_is_type(object, json_type_object))
        return;
    json_object_object_foreach(object, key, value) {
        if (key[0] == '#')
            tag->addCData(json_object_to_json_string(value));
        else if (key[0] == '@')
            addAttributes(tag, value);
        else
            addChild(tag, key, value);
    }
}

gloox::Tag* getItemTag(std::string text) {
    auto item = std::make_unique<gloox::Tag>("item");
    auto payload = std::make_unique<gloox::Tag>("payload", text);
    item->addChild(payload.release());
    return item.release();
}

json_object* GetJSONFromXml(const gloox::Tag* tag) {
    if (!tag) {
        PrvPrintErr({}, "Invalid Xml object");
        return nullptr;
    }
    JsonObject result;
    for (const gloox::Tag* child : tag->children())
        GetJSONFromXmlTag(child, result.get());
    if (!tag->attributes().empty())
        result.set("@", attributesOf(tag));
    return result.release().release();
}

void GetJSONFromXmlTag(const gloox::Tag* tag, json_object* parent) {
    JsonObject value;
    if (!tag->attributes().empty())
        value.set("@", attributesOf(tag));
    const std::string text = tag->cdata();
    if (!text.empty())
        value.set("#", text);
    const bool empty = json_object_object_length(value.get()) == 0;
    json_object_object_add(parent, tag->name().c_str(), empty ? nullptr : value.release().release());
}

json_object* getAppResponseJsonObj(const std::string& node, const std::string& item) {
    JsonObject response;
    response.set("item", item);
    // Without a slash rfind gives npos, and npos + 1 is the start: the whole name.
    response.set("endpoint", node.substr(node.rfind('/') + 1)).set("returnValue", true);
    return response.release().release();
}
