// SPDX-License-Identifier: GPL-3.0-only
// publishItem: publishes one item to a node and returns the server's result.
//
// The item carries no id, unless the publisher marks it by the member "trace": the server assigns one, which
// the publisher is not told. The waiting request is in m_msgMap under the manager's request id.
#include <gloox/error.h>
#include <gloox/tag.h>

#include <memory>

#include "nodes/methods.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "util/jsonxml.h"
#include "xmpp/manager.h"
#include "xmpp/xmltext.h"

namespace {

constexpr char kItemParseError[] = "Item parse error";

using ItemTag = std::unique_ptr<gloox::Tag>;

// Converts a JSON object to XML elements. sic: without "item" there is no element, but it is published.
bool itemFromObject(Request& request, ItemTag& item) {
    json_object* value = nullptr;
    if (!json_object_object_get_ex(request.json(), "item", &value))
        return true;
    item.reset(GetXmlFromJSON(value));
    return item || request.fail(kItemParseError);
}

// The text of a string unchanged, unlike getJSONString, which removes characters.
std::string textOf(json_object* value) {
    if (json_object_is_type(value, json_type_string))
        return {json_object_get_string(value), static_cast<std::size_t>(json_object_get_string_len(value))};
    return value ? json_object_get_string(value) : "";
}

bool itemFromText(Request& request, ItemTag& item) {
    const std::string text = textOf(jsonMember(request.json(), "item"));
    if (text.empty())
        return false;
    // Without this check a text with characters outside XML 1.0 could be sent as an empty item.
    if (!xmpp::isXmlText(text))
        return request.fail(kItemParseError);
    item.reset(getItemTag(text));
    return item != nullptr;
}

bool markItem(Request& request, ItemTag& item) {
    json_object* mark = jsonMember(request.json(), "trace");
    if (!mark)
        return true;
    const std::string text = textMember(request.json(), "trace");
    if (!json_object_is_type(mark, json_type_string) || !Traces::isMark(text) || !item)
        return request.fail("trace is not 16 to 32 letters, digits, - and _, or there is no item");
    item->addAttribute("id", Traces::itemId(text));
    return true;
}

}  // namespace

bool publishItemToNode(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kQuotedRefusal);
    ItemTag item;
    if (!request.hasService() || !request.isConnected() || !request.hasJson())
        return request.refuse();
    if (!request.readNode())
        return request.refuse();
    const bool xml = json_object_get_boolean(jsonMember(request.json(), "xml"));
    if (!(xml ? itemFromObject(request, item) : itemFromText(request, item)) || !markItem(request, item))
        return request.refuse();
    return request.waitFor(session.m_pubsub->publishItem(gloox::JID(session.m_pubsubService), request.node,
                                                         item.release(), &session));
}

void PubSubSession::handleItemPublication(const std::string& id, const gloox::JID& service,
                                          const std::string& node, const gloox::PubSub::ItemList&,
                                          const gloox::Error* error) {
    setPingTimer();
    const auto waiting = takeRequest(id);
    if (!waiting)
        return;
    Reply reply(!error);
    if (error)
        reply.addError(serverError(*error, node, service));
    reply.respond(waiting.get(), id, kCreateRespondFailed);
}
