// SPDX-License-Identifier: GPL-3.0-only
// Answers: passes each answer stanza to the result handler of its request.
//
// The request is removed before its handler runs, because the handler may send requests, detach the manager
// or delete it.
#include <glib.h>
#include <gloox/dataform.h>
#include <gloox/gloox.h>
#include <gloox/pubsubitem.h>

#include <algorithm>
#include <list>
#include <optional>
#include <utility>

#include "util/log.h"
#include "xmpp/manager.h"
#include "xmpp/rawerror.h"

namespace xmpp {
namespace {

using gloox::Tag;

// With the type that the standard recommends for the conditions that may be over later.
std::unique_ptr<Tag> stanzaError(const std::string& condition) {
    const bool passes = condition == "resource-constraint" || condition == "internal-server-error";
    auto error = std::make_unique<Tag>("error", "type", passes ? "wait" : "cancel");
    auto* child = new Tag(error.get(), condition);
    child->setXmlns(gloox::XMLNS_XMPP_STANZAS);
    return error;
}

// Null when the answer is not an error. An error answer without an error element counts as an error.
std::unique_ptr<Tag> errorOf(const Tag& iq) {
    if (iq.findAttribute("type") != "error")
        return nullptr;
    if (const Tag* error = iq.findChild("error"))
        return std::unique_ptr<Tag>(error->clone());
    return stanzaError("undefined-condition");
}

const Tag* descend(const Tag& iq, const char* outer, const char* inner) {
    const Tag* child = iq.findChild(outer);
    return child ? child->findChild(inner) : nullptr;
}

std::string attributeOf(const Tag* tag, const char* name) {
    return tag ? tag->findAttribute(name) : std::string();
}

gloox::PubSub::SubscriptionType subscriptionType(const Tag* subscription, const gloox::Error* error) {
    if (error)
        return gloox::PubSub::SubscriptionInvalid;
    const std::string state = attributeOf(subscription, "subscription");
    if (state.empty() || state == "subscribed")
        return gloox::PubSub::SubscriptionSubscribed;
    if (state == "pending")
        return gloox::PubSub::SubscriptionPending;
    if (state == "unconfigured")
        return gloox::PubSub::SubscriptionUnconfigured;
    return state == "none" ? gloox::PubSub::SubscriptionNone : gloox::PubSub::SubscriptionInvalid;
}

void addOnce(gloox::StringList& list, const Tag* value) {
    if (value && std::find(list.begin(), list.end(), value->cdata()) == list.end())
        list.push_back(value->cdata());
}

// The values of the field pubsub#node, each once: the server lists a node for each of
// its pending subscribers.
std::optional<gloox::StringList> pendingNodes(const Tag* command) {
    const Tag* form = command ? command->findChild("x") : nullptr;
    if (!form)
        return std::nullopt;
    for (const Tag* field : form->children()) {
        if (field->findAttribute("var") != "pubsub#node")
            continue;
        gloox::StringList nodes;
        for (const Tag* child : field->children())
            addOnce(nodes, child->name() == "option" ? child->findChild("value") : nullptr);
        return nodes;
    }
    return std::nullopt;
}

void deliverSubscription(ResultHandler& handler, const std::string& id, const gloox::JID& service,
                         const std::string& node, const gloox::JID& asked, const Tag& iq,
                         const gloox::Error* error) {
    const Tag* subscription = descend(iq, "pubsub", "subscription");
    const gloox::JID answered(attributeOf(subscription, "jid"));
    handler.handleSubscriptionResult(id, service, node, attributeOf(subscription, "subid"),
                                     answered ? answered : asked, subscriptionType(subscription, error),
                                     error);
}

void deliverConfig(ResultHandler& handler, const std::string& id, const gloox::JID& service,
                   const std::string& node, const Tag& iq, const gloox::Error* error) {
    const Tag* configure = descend(iq, "pubsub", "configure");
    const Tag* element = configure ? configure->findChild("x", "xmlns", gloox::XMLNS_X_DATA) : nullptr;
    const auto form = element ? std::make_unique<gloox::DataForm>(element) : nullptr;
    handler.handleNodeConfig(id, service, node, form.get(), error);
}

void deliverPending(ResultHandler& handler, const std::string& id, const Tag& iq, const gloox::Error* error) {
    const Tag* command = iq.findChild("command");
    const std::optional<gloox::StringList> nodes = pendingNodes(command);
    handler.handlePendingRequest(id, attributeOf(command, "sessionid"), nodes ? &*nodes : nullptr, error);
}

void deliverBulkActivation(ResultHandler& handler, const std::string& id, const gloox::JID& service,
                           const std::map<std::string, std::unique_ptr<Tag>>& elements,
                           const gloox::Error* first) {
    std::list<RawError> errors;
    NodeErrors failed;
    for (const auto& [node, element] : elements)
        failed[node] = &errors.emplace_back(*element);
    handler.handleBulkActivate(id, service, failed, first);
}

int64_t numberIn(const Tag* tag, const char* name) {
    return g_ascii_strtoll(attributeOf(tag, name).c_str(), nullptr, 10);
}

void deliverTrace(ResultHandler& handler, const std::string& id, const gloox::JID& service,
                  const std::string& itemId, const Tag& iq, const gloox::Error* error) {
    const Tag* element = iq.findChild("trace");
    ServerTrace trace{.now = numberIn(element, "now"), .stations = {}};
    for (const Tag* station : element ? element->findChildren("station") : gloox::TagList())
        trace.stations.push_back(
            {attributeOf(station, "name"), numberIn(station, "at"), attributeOf(station, "resource")});
    handler.handleTrace(id, service, itemId, trace, error);
}

std::unique_ptr<Tag> errorOfNode(const Tag& node) {
    if (const Tag* error = node.findChild("error"))
        return std::unique_ptr<Tag>(error->clone());
    const std::string& condition = node.findAttribute("error");
    return stanzaError(condition.empty() ? "undefined-condition" : condition);
}

}  // namespace

void Manager::handleAnswer(const gloox::Tag& iq) {
    const std::string id = iq.findAttribute("id");
    const auto found = m_requests.find(id);
    if (found == m_requests.end())
        return;
    const std::string& from = iq.findAttribute("from");
    if (from != found->second.service.full() && gloox::JID(from).full() != found->second.service.full()) {
        PrvPrintErr({}, "Ignored an answer from %s to a request that %s was asked", from.c_str(),
                    found->second.service.full().c_str());
        return;
    }
    const Request request = std::move(found->second);
    m_requests.erase(found);
    const std::unique_ptr<Tag> element = errorOf(iq);
    if (request.bulk) {
        handleBulkAnswer(request, iq, element.get());
        return;
    }
    if (!element) {
        deliver(request, id, iq, nullptr);
        return;
    }
    const RawError error(*element);
    deliver(request, id, iq, &error);
}

void Manager::handleBulkAnswer(const Request& request, const gloox::Tag& iq, const gloox::Tag* error) {
    Bulk& bulk = *request.bulk;
    if (request.operation == Operation::Waiting) {
        handleWaitingAnswer(request, iq, error);
        return;
    }
    const bool activates = request.operation == Operation::BulkActivate;
    const auto fail = [&bulk](const Tag& element) {
        ++bulk.failed;
        if (!bulk.error)
            bulk.error.reset(element.clone());
    };
    if (error) {
        fail(*error);
        for (const std::string& node : request.part)
            bulk.errors[node].reset(error->clone());
    }
    const Tag* list = error ? nullptr : iq.findChild(activates ? "activate-nodes" : "delete-nodes");
    for (const Tag* node : list ? list->findChildren("node") : gloox::TagList()) {
        std::unique_ptr<Tag> element = errorOfNode(*node);
        fail(*element);
        if (activates)
            bulk.errors[node->findAttribute("id")] = std::move(element);
    }
    if (--bulk.unanswered > 0)
        return;
    if (bulk.error)
        PrvPrintErr({}, "%s failed for %zu of its nodes, first: %s",
                    activates ? "Bulk activation" : "Bulk deletion", bulk.failed, bulk.error->xml().c_str());
    const std::unique_ptr<RawError> first(bulk.error ? new RawError(*bulk.error) : nullptr);
    if (activates)
        deliverBulkActivation(*request.handler, bulk.id, request.service, bulk.errors, first.get());
    else
        request.handler->handleBulkDelete(bulk.id, request.service, first.get());
}

// The parts that the server answered count, also when it refused others.
void Manager::handleWaitingAnswer(const Request& request, const gloox::Tag& iq, const gloox::Tag* error) {
    Bulk& bulk = *request.bulk;
    if (error && !bulk.error)
        bulk.error.reset(error->clone());
    const Tag* list = error ? nullptr : iq.findChild("waiting");
    for (const Tag* node : list ? list->findChildren("node") : gloox::TagList())
        bulk.counts[node->findAttribute("id")] = node->findAttribute("count");
    if (--bulk.unanswered > 0)
        return;
    const std::unique_ptr<RawError> first(bulk.error ? new RawError(*bulk.error) : nullptr);
    request.handler->handleWaiting(bulk.id, request.service, bulk.counts, first.get());
}

void Manager::deliver(const Request& request, const std::string& id, const gloox::Tag& iq,
                      const gloox::Error* error) {
    ResultHandler& handler = *request.handler;
    const gloox::JID& service = request.service;
    const std::string& node = request.node;
    const gloox::Tag* key = iq.findChild("key");
    const std::string keyText = key ? key->cdata() : std::string();
    switch (request.operation) {
        case Operation::CreateNode:
            return handler.handleNodeCreation(id, service, node, error);
        case Operation::CreateKeyNode:
            return handler.handleCreateKey(id, service, keyText, attributeOf(key, "url"),
                                           attributeOf(key, "status"), error);
        case Operation::DeleteNode:
            return handler.handleNodeDeletation(id, service, node, error);
        case Operation::PublishItem:
            return handler.handleItemPublication(id, service, node, gloox::PubSub::ItemList(), error);
        case Operation::GetConfig:
            return deliverConfig(handler, id, service, node, iq, error);
        case Operation::SetConfig:
            return handler.handleNodeConfigResult(id, service, node, error);
        case Operation::Subscribe:
            return deliverSubscription(handler, id, service, node, request.subscriber, iq, error);
        case Operation::Unsubscribe:
            return handler.handleUnsubscriptionResult(id, service, node, request.subid, request.subscriber,
                                                      error);
        case Operation::GetKey:
            return handler.handleGetKey(id, service, keyText, attributeOf(key, "url"), error);
        case Operation::ActivateNode:
            return handler.handleActivateNode(id, service, node, error);
        case Operation::DeActivateNode:
            return handler.handleDeActivateNode(id, service, node, error);
        case Operation::BulkActivate:  // these three always in parts, see above
        case Operation::BulkDelete:
        case Operation::Waiting:
            return;
        case Operation::Trace:
            return deliverTrace(handler, id, service, node, iq, error);
        case Operation::PendingRequest:
            return deliverPending(handler, id, iq, error);
        case Operation::PendingNodeRequest:
            return handler.handlePendingNodeRequest(id, service, node, error);
        case Operation::Features:
        case Operation::Parts:
        case Operation::RegisterPush:
            return deliverPush(request, id, iq, error);
    }
}

}  // namespace xmpp
