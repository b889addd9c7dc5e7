// SPDX-License-Identifier: GPL-3.0-only
// The operations: each writes its whole stanza and sends it with sendRequest(), sendMessage() or bulk().
//
// gloox's own manager has no client, so that it registers and sends nothing.
#include "xmpp/manager.h"

#include <glib.h>
#include <gloox/gloox.h>

#include <algorithm>
#include <utility>

#include "util/log.h"
#include "xmpp/client.h"
#include "xmpp/forms.h"
#include "xmpp/xmltext.h"

namespace xmpp {
namespace {

// The limit of the server, which counts every byte of a stanza and ends the stream beyond it.
constexpr std::size_t kStanzaLimit = 262'144;
constexpr std::size_t kMaxHeld = 1'000;

const std::string& idPrefix() {
    static const std::string prefix = [] {
        char* uuid = g_uuid_string_random();
        std::string text = "ps-" + std::string(uuid) + "-";
        g_free(uuid);
        return text;
    }();
    return prefix;
}

StanzaWriter& openForm(StanzaWriter& stanza, const char* formType) {
    stanza.open("x", gloox::XMLNS_X_DATA).attribute("type", "submit");
    return stanza.field("FORM_TYPE", formType, true);
}

const char* accessModelName(gloox::PubSub::AccessModel access) {
    switch (access) {
        case gloox::PubSub::AccessOpen:
            return "open";
        case gloox::PubSub::AccessPresence:
            return "presence";
        case gloox::PubSub::AccessRoster:
            return "roster";
        case gloox::PubSub::AccessAuthorize:
            return "authorize";
        case gloox::PubSub::AccessWhitelist:
            return "whitelist";
        default:
            return nullptr;
    }
}

void writeNodeConfig(StanzaWriter& stanza, gloox::PubSub::NodeType type, const std::string& title,
                     const std::string& parent, gloox::PubSub::AccessModel access, const StringMap* config) {
    openForm(stanza, kNodeConfigForm);
    if (type == gloox::PubSub::NodeLeaf || type == gloox::PubSub::NodeCollection)
        stanza.field("pubsub#node_type", type == gloox::PubSub::NodeLeaf ? "leaf" : "collection");
    if (!title.empty())
        stanza.field("pubsub#title", title);
    if (!parent.empty())
        stanza.field("pubsub#collection", parent);
    if (const char* model = accessModelName(access))
        stanza.field("pubsub#access_model", model);
    if (config)
        for (const auto& [name, value] : *config)
            stanza.field(name, value);
    stanza.close();
}

// gloox drops values that XML cannot carry, and empty names, so it would send a different form.
bool isWritable(const gloox::DataForm& form) {
    const auto& fields = form.fields();
    return std::all_of(fields.begin(), fields.end(), [](const gloox::DataFormField* field) {
        const gloox::StringList& values = field->values();
        return !field->name().empty() && isXmlAttribute(field->name()) &&
               std::all_of(values.begin(), values.end(), isXmlText);
    });
}

StanzaWriter& openPendingCommand(StanzaWriter& stanza) {
    return stanza.open("command", kCommandsXmlns)
        .attribute("node", kGetPending)
        .attribute("action", "execute");
}

}  // namespace

Manager::Manager(Client* client) : gloox::PubSub::Manager(nullptr), m_client(client) {
    if (!m_client)
        return;
    if (m_client->m_manager)
        m_client->m_manager->detach();
    m_client->m_manager = this;
    m_streamUp = m_client->m_streamUp;
    m_account = m_client->jid().bare();
}

Manager::~Manager() {
    detach();
}

void Manager::detach() {
    if (m_client)
        m_client->m_manager = nullptr;
    m_client = nullptr;
    m_streamUp = false;
    std::unordered_map<std::string, Request> held;
    for (const Held& each : m_held)
        if (auto request = m_requests.extract(each.id))
            held.insert(std::move(request));
    m_requests = std::move(held);
}

void Manager::takeOver(Manager& former) {
    if (&former == this || former.m_account != m_account)
        return;
    for (auto held = former.m_held.rbegin(); held != former.m_held.rend(); ++held) {
        auto request = former.m_requests.extract(held->id);
        if (request && request.mapped().bulk)
            continue;
        if (request)
            m_requests.insert(std::move(request));
        m_held.push_front(std::move(*held));
    }
    former.m_held.clear();
}

std::string Manager::createNode(gloox::PubSub::NodeType type, const gloox::JID& service,
                                const std::string& node, ResultHandler* handler, const std::string& title,
                                const std::string& parent, gloox::PubSub::AccessModel access,
                                const StringMap* config) {
    const std::string id = nextId();
    StanzaWriter stanza = beginIq("set", service, id);
    stanza.open("pubsub", gloox::XMLNS_PUBSUB)
        .open("create")
        .attribute("node", node)
        .close()
        .open("configure");
    writeNodeConfig(stanza, type, title, parent, access, config);
    return sendRequest(
        {.operation = Operation::CreateNode, .handler = handler, .service = service, .node = node}, id,
        stanza);
}

std::string Manager::createKeyNode(gloox::PubSub::NodeType type, const gloox::JID& service,
                                   const std::string& node, ResultHandler* handler, const std::string& title,
                                   const std::string& parent, gloox::PubSub::AccessModel access,
                                   const StringMap* config, const WebPush& webPush) {
    const std::string id = nextId();
    StanzaWriter stanza = beginIq("set", service, id);
    stanza.open("create-key-node", kDeviceXmlns).attribute("node", node);
    if (webPush.wanted)
        stanza.attribute("web-push", "true");
    if (!webPush.vapid.empty())
        stanza.attribute("vapid", webPush.vapid);
    writeNodeConfig(stanza, type, title, parent, access, config);
    return sendRequest(
        {.operation = Operation::CreateKeyNode, .handler = handler, .service = service, .node = node}, id,
        stanza);
}

std::string Manager::deleteNode(const gloox::JID& service, const std::string& node, ResultHandler* handler) {
    const std::string id = nextId();
    StanzaWriter stanza = beginIq("set", service, id);
    stanza.open("pubsub", gloox::XMLNS_PUBSUB_OWNER).open("delete").attribute("node", node);
    return sendRequest(
        {.operation = Operation::DeleteNode, .handler = handler, .service = service, .node = node}, id,
        stanza);
}

std::string Manager::publishItem(const gloox::JID& service, const std::string& node, gloox::Tag* item,
                                 ResultHandler* handler) {
    const std::unique_ptr<gloox::Tag> owned(item);
    const std::string id = nextId();
    StanzaWriter stanza = beginIq("set", service, id);
    stanza.open("pubsub", gloox::XMLNS_PUBSUB).open("publish").attribute("node", node);
    if (owned)
        stanza.element(*owned);
    return sendRequest(
        {.operation = Operation::PublishItem, .handler = handler, .service = service, .node = node}, id,
        stanza);
}

std::string Manager::nodeConfig(const gloox::JID& service, const std::string& node, gloox::DataForm* form,
                                ResultHandler* handler) {
    const std::unique_ptr<gloox::DataForm> owned(form);
    const std::string id = nextId();
    StanzaWriter stanza = beginIq(form ? "set" : "get", service, id);
    stanza.open("pubsub", gloox::XMLNS_PUBSUB_OWNER).open("configure").attribute("node", node);
    if (!owned)
        return sendRequest(
            {.operation = Operation::GetConfig, .handler = handler, .service = service, .node = node}, id,
            stanza);
    const std::unique_ptr<gloox::Tag> element(owned->tag());
    if (element && isWritable(*owned))
        stanza.element(*element);
    else
        stanza.invalidate();
    return sendRequest(
        {.operation = Operation::SetConfig, .handler = handler, .service = service, .node = node}, id,
        stanza);
}

std::string Manager::subscribe(const gloox::JID& service, const std::string& node, ResultHandler* handler,
                               const gloox::JID& subscriber, gloox::PubSub::SubscriptionObject object,
                               int depth) {
    const std::string id = nextId();
    StanzaWriter stanza = beginIq("set", service, id);
    stanza.open("pubsub", gloox::XMLNS_PUBSUB);
    stanza.open("subscribe").attribute("node", node).attribute("jid", subscriber.full()).close();
    if (depth != 1 || object != gloox::PubSub::SubscriptionNodes) {
        openForm(stanza.open("options"), kSubscribeOptionsForm);
        if (object == gloox::PubSub::SubscriptionItems)
            stanza.field("pubsub#subscription_type", "items");
        // The server has no depth 0.
        if (depth != 1)
            stanza.field("pubsub#subscription_depth", depth == 0 ? "all" : std::to_string(depth));
    }
    return sendRequest({.operation = Operation::Subscribe,
                        .handler = handler,
                        .service = service,
                        .node = node,
                        .subscriber = subscriber},
                       id, stanza);
}

std::string Manager::unsubscribe(const gloox::JID& service, const std::string& node, ResultHandler* handler,
                                 const std::string& subid, const gloox::JID& subscriber) {
    const std::string id = nextId();
    StanzaWriter stanza = beginIq("set", service, id);
    stanza.open("pubsub", gloox::XMLNS_PUBSUB);
    stanza.open("unsubscribe").attribute("node", node).attribute("jid", subscriber.full());
    if (!subid.empty())
        stanza.attribute("subid", subid);
    return sendRequest({.operation = Operation::Unsubscribe,
                        .handler = handler,
                        .service = service,
                        .node = node,
                        .subid = subid,
                        .subscriber = subscriber},
                       id, stanza);
}

std::string Manager::getKey(const gloox::JID& service, const std::string& node, ResultHandler* handler) {
    return deviceRequest(Operation::GetKey, "get", "key", service, node, {}, handler);
}

std::string Manager::activateNode(const gloox::JID& service, const std::string& node,
                                  const std::string& seqNo, ResultHandler* handler, bool limit,
                                  const std::string& urgency) {
    return deviceRequest(Operation::ActivateNode, "set", "activate", service, node, seqNo, handler,
                         {.oneItem = limit, .urgency = urgency});
}

std::string Manager::deActivateNode(const gloox::JID& service, const std::string& node,
                                    ResultHandler* handler) {
    return deviceRequest(Operation::DeActivateNode, "set", "deactivate", service, node, {}, handler);
}

void ActivationLimit::writeTo(StanzaWriter& element) const {
    if (!oneItem)
        return;
    element.attribute("limit", "1");
    if (!urgency.empty())
        element.attribute("urgency", urgency);
}

std::string Manager::deviceRequest(Operation operation, const char* type, const char* element,
                                   const gloox::JID& service, const std::string& node,
                                   const std::string& seqNo, ResultHandler* handler,
                                   const ActivationLimit& limit) {
    const std::string id = nextId();
    StanzaWriter stanza = beginIq(type, service, id);
    stanza.open(element, kDeviceXmlns).attribute("node", node);
    if (!seqNo.empty())
        stanza.foreignAttribute("seqNo", seqNo);
    limit.writeTo(stanza);
    return sendRequest({.operation = operation, .handler = handler, .service = service, .node = node}, id,
                       stanza);
}

std::string Manager::getPendingRequest(const gloox::JID& service, ResultHandler* handler) {
    const std::string id = nextId();
    StanzaWriter stanza = beginIq("set", service, id);
    openPendingCommand(stanza);
    return sendRequest({.operation = Operation::PendingRequest, .handler = handler, .service = service}, id,
                       stanza);
}

std::string Manager::getPendingNodeRequest(const gloox::JID& service, const std::string& node,
                                           const std::string& session, ResultHandler* handler) {
    const std::string id = nextId();
    StanzaWriter stanza = beginIq("set", service, id);
    openPendingCommand(stanza).attribute("sessionid", session);
    stanza.open("x", gloox::XMLNS_X_DATA).attribute("type", "submit").field("pubsub#node", node);
    return sendRequest(
        {.operation = Operation::PendingNodeRequest, .handler = handler, .service = service, .node = node},
        id, stanza);
}

std::string Manager::approvePending(const gloox::JID& service, const std::string& node, const std::string& id,
                                    const std::string& subid, const std::string& approve,
                                    const std::string& subscriber) {
    const std::string messageId = id.empty() ? nextId() : id;
    StanzaWriter stanza;
    stanza.open("message").attribute("to", service.full()).attribute("id", messageId);
    openForm(stanza, kAuthorizationForm);
    stanza.field("pubsub#subid", subid).field("pubsub#node", node);
    stanza.field("pubsub#subscriber_jid", subscriber).field("pubsub#allow", approve);
    return sendMessage(service, messageId, stanza);
}

std::string Manager::ackItem(const gloox::JID& service, const std::string& node, const std::string& item,
                             const std::string& seqNo) {
    const std::string id = nextId();
    StanzaWriter stanza;
    stanza.open("message").attribute("to", service.full()).attribute("id", id);
    stanza.open("ack", kDeviceXmlns).foreignAttribute("node", node).foreignAttribute("id", item);
    if (!seqNo.empty())
        stanza.foreignAttribute("seqNo", seqNo);
    return sendMessage(service, id, stanza);
}

std::string Manager::trace(const gloox::JID& service, const std::string& itemId, ResultHandler* handler) {
    const std::string id = nextId();
    StanzaWriter stanza = beginIq("get", service, id);
    stanza.open("trace", kDeviceXmlns).attribute("id", itemId);
    return sendRequest(
        {.operation = Operation::Trace, .handler = handler, .service = service, .node = itemId}, id, stanza);
}

bool Manager::isOurs(const std::string& id) {
    return id.starts_with(idPrefix());
}

std::string Manager::nextId() {
    static unsigned long count = 0;
    return idPrefix() + std::to_string(++count);
}

StanzaWriter Manager::beginIq(const char* type, const gloox::JID& service, const std::string& id) {
    StanzaWriter stanza;
    stanza.open("iq").attribute("to", service.full()).attribute("id", id).attribute("type", type);
    return stanza;
}

bool Manager::isUsable(const Request& request) const {
    if (!m_client || !request.service || !request.handler)
        return false;
    if (request.operation == Operation::Subscribe || request.operation == Operation::Unsubscribe)
        return !request.node.empty() && request.subscriber;
    const bool ofNode =
        request.operation != Operation::PendingRequest && request.operation < Operation::Features;
    return !ofNode || !request.node.empty();
}

std::string Manager::sendRequest(Request request, const std::string& id, StanzaWriter& stanza) {
    if (!isUsable(request))
        return {};
    std::string text = stanza.finish();
    if (!mayPass(text, "A request", request.node))
        return {};
    m_requests.emplace(id, std::move(request));
    sendOrHold(id, std::move(text));
    return id;
}

std::string Manager::sendMessage(const gloox::JID& service, const std::string& id, StanzaWriter& stanza) {
    if (!m_client || !service)
        return {};
    std::string text = stanza.finish();
    if (!mayPass(text, "A message", id))
        return {};
    sendOrHold(id, std::move(text));
    return id;
}

bool Manager::mayPass(const std::string& stanza, const char* what, const std::string& node) {
    if (stanza.empty()) {
        PrvPrintErr(
            {},
            "%s (%s) was not sent: it holds a control character, a line break in a name, a bad or missing "
            "name or text that is not UTF-8",
            what, printable(node).c_str());
        return false;
    }
    if (stanza.size() >= kStanzaLimit) {
        PrvPrintErr({}, "%s (%s) was not sent: its %zu bytes are more than the server takes (%zu)", what,
                    printable(node).c_str(), stanza.size(), kStanzaLimit);
        return false;
    }
    if (!mayHold(1)) {
        PrvPrintErr({}, "%s (%s) was not sent: %zu others wait for the connection already", what,
                    printable(node).c_str(), m_held.size());
        return false;
    }
    return true;
}

bool Manager::mayHold(std::size_t count) {
    if (m_streamUp || m_held.size() + count <= kMaxHeld)
        return true;
    dropUnawaited();
    return m_held.size() + count <= kMaxHeld;
}

void Manager::sendOrHold(const std::string& id, std::string stanza) {
    if (m_streamUp)
        m_client->sendStanza(stanza);
    else
        m_held.push_back({id, std::move(stanza)});
}

// Messages and bulk operations have no caller, nor have requests for pending subscribers,
// which listeners get.
void Manager::dropUnawaited() {
    if (!m_awaited)
        return;
    std::erase_if(m_held, [this](const Held& held) {
        const auto found = m_requests.find(held.id);
        if (found == m_requests.end() || found->second.bulk)
            return false;
        const Operation operation = found->second.operation;
        if (operation == Operation::PendingRequest || operation == Operation::PendingNodeRequest ||
            m_awaited(held.id))
            return false;
        m_requests.erase(found);
        return true;
    });
}

void Manager::release() {
    dropUnawaited();
    while (m_streamUp && !m_held.empty()) {
        const Held held = std::move(m_held.front());
        m_held.pop_front();
        m_client->sendStanza(held.stanza);
    }
}

}  // namespace xmpp
