// SPDX-License-Identifier: GPL-3.0-only
// publishItem: one item from the bus to a node, and the server's word on it back.
//
// The item carries no id; the server gives one and the publisher is not told it. The waiting request stands
// in m_msgMap under the id that the manager gave.
#include <gloox/error.h>
#include <gloox/tag.h>

#include <memory>

#include "nodes/methods.h"
#include "request/roads.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonxml.h"
#include "xmpp/manager.h"
#include "xmpp/xmltext.h"

namespace {

using ItemTag = std::unique_ptr<gloox::Tag>;

// An object becomes elements. sic: without "item" there is no element and the publish goes ahead.
bool itemFromObject(json_object* payload, ItemTag& item, FailureWords& words) {
    json_object* value = nullptr;
    if (!json_object_object_get_ex(payload, "item", &value))
        return true;
    item.reset(GetXmlFromJSON(value));
    if (!item)
        words.text = "Item parse error";
    return item != nullptr;
}

// A string is carried as it stands, byte for byte, not through the cleaning getter.
std::string textOf(json_object* value) {
    if (json_object_is_type(value, json_type_string))
        return {json_object_get_string(value), static_cast<std::size_t>(json_object_get_string_len(value))};
    return value ? json_object_get_string(value) : "";
}

bool itemFromText(json_object* payload, ItemTag& item, FailureWords& words) {
    const std::string text = textOf(jsonMember(payload, "item"));
    if (text.empty())
        return false;
    // A text with characters outside XML 1.0 is refused; without this an empty item could go out in its
    // place.
    if (xmpp::isXmlText(text))
        item.reset(getItemTag(text));
    else
        words.text = "Item parse error";
    return item != nullptr;
}

}  // namespace

bool publishItemToNode(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    FailureWords words;
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!checkRequest({}, session, payload.get(), words))
        return refuse(handle, message, words);

    const bool xml = json_object_get_boolean(jsonMember(payload.get(), "xml"));
    const std::string node = getJSONString(payload.get(), "node", words.text);
    if (node.empty())
        return refuse(handle, message, words);
    ItemTag item;
    if (!(xml ? itemFromObject(payload.get(), item, words) : itemFromText(payload.get(), item, words)))
        return refuse(handle, message, words);

    const std::string id =
        session.m_pubsub->publishItem(gloox::JID(session.m_pubsubService), node, item.release(), &session);
    if (!keepRequest(session, id, message, words))
        return refuse(handle, message, words);
    return true;
}

void PubSubSession::handleItemPublication(const std::string& id, const gloox::JID& service,
                                          const std::string& node, const gloox::PubSub::ItemList&,
                                          const gloox::Error* error) {
    setPingTimer();
    const auto waiting = m_msgMap.extract(id);
    if (!waiting)
        return;
    const JsonRef reply = newReply(!error);
    if (error)
        addWords(reply, serverWords({}, node, service, *error));
    respond({}, waiting.mapped().get(), reply, id, kCreateRespondFailed);
}
