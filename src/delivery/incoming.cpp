// SPDX-License-Identifier: GPL-3.0-only
// Messages from the server: items, subscription changes, and requests to approve a subscriber.
//
// An item of a node with a receiver or confirming handlers becomes its open item (session/openitems.cpp). Any
// other goes to the first of these that takes it: the registered services, the public subscriber, the cache.
// Only then is its number stored, and only after that is it acknowledged, so that a crash repeats the item
// rather than losing it. Items that arrive in one piece of input, which is one read of the socket, share the
// commit of their numbers, since each commit syncs the disk. Keeps PubSubSession::m_handledItems until then.
#include <gloox/message.h>
#include <gloox/tag.h>

#include <cstdio>
#include <utility>

#include "platform/bus/qsraii.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/jsonxml.h"
#include "util/log.h"
#include "util/logsubject.h"
#include "xmpp/client.h"
#include "xmpp/manager.h"

namespace {

constexpr char kEventNamespace[] = "http://jabber.org/protocol/pubsub#event";
constexpr char kFormNamespace[] = "jabber:x:data";

const gloox::Tag* childIn(const gloox::Tag& parent, const std::string& name, const char* xmlns) {
    for (const gloox::Tag* child : parent.children())
        if (child->name() == name && child->xmlns() == xmlns)
            return child;
    return nullptr;
}

// "/U/R/..." of three or more segments belongs to the account whose local part is U. Items of another
// account's node with this device's resource would replace its own in the cache and reach its handlers.
bool isForeign(const std::string& node, const PubSubSession& session) {
    if (!node.starts_with('/'))
        return false;
    const std::size_t user = node.find('/', 1);
    const std::size_t resource = user == std::string::npos ? user : node.find('/', user + 1);
    if (resource == std::string::npos || node.substr(user + 1, resource - user - 1) != session.m_resource)
        return false;
    const std::string owner = node.substr(1, user - 1);
    return owner != session.m_username && owner != session.m_jid.username();
}

// The text of the form field `var`, "" when the form does not have it.
std::string fieldValue(const gloox::Tag& form, const std::string& var) {
    for (const gloox::Tag* field : form.children()) {
        if (field->name() != "field" || field->findAttribute("var") != var)
            continue;
        const gloox::Tag* value = field->findChild("value");
        return value ? value->cdata() : std::string();
    }
    return {};
}

void pushSubscription(QSZeltService* service, const gloox::Tag& subscription, CallSite site = {}) {
    const std::string& node = subscription.findAttribute("node");
    JsonObject change;
    change.set("node", node)
        .set("jid", subscription.findAttribute("jid"))
        .set("subscription", subscription.findAttribute("subscription"));
    BusError error;
    if (!QSSubscriptionRespond(service, node.c_str(), change.text().c_str(), error))
        PrvPrintErr(site, "Warning: Sending item failed, no subscriber for Node? Bus error %s ",
                    error.message());
}

void pushAuthorisation(QSZeltService* service, const gloox::Tag& form, const std::string& messageId,
                       CallSite site = {}) {
    const std::string node = fieldValue(form, "pubsub#node");
    JsonObject approval;
    approval.set("subid", fieldValue(form, "pubsub#subid")).set("node", node);
    // sic: the field name is misspelled in the server's form.
    approval.set("subscriber_jid", fieldValue(form, "pusub#subscriber_jid")).set("id", messageId);
    const std::string payload = approval.text();
    for (const std::string& key : {"handleAuth:" + node, std::string("handleAuth:*")}) {
        BusError error;
        if (!QSSubscriptionRespond(service, key.c_str(), payload.c_str(), error))
            PrvPrintErr(site, "Warning: No one approve message? Quor error %s ", error.message());
    }
}

}  // namespace

void PubSubSession::handleMessage(const gloox::Message& message, gloox::MessageSession*) {
    setPingTimer();
    // xmpp::Client is the only caller.
    const gloox::Tag& element = static_cast<const xmpp::ReceivedMessage&>(message).element();

    if (const gloox::Tag* event = childIn(element, "event", kEventNamespace)) {
        for (const gloox::Tag* child : event->children()) {
            if (child->name() == "items")
                handleIncomingItem(*child);
            else if (child->name() == "subscription")
                pushSubscription(m_serviceHandle, *child);
        }
        return;
    }
    const gloox::Tag* form = childIn(element, "x", kFormNamespace);
    if (!form)
        return;
    if (form->hasAttribute("type", "form"))
        pushAuthorisation(m_serviceHandle, *form, element.findAttribute("id"));
    else
        PrvPrintErr({}, "Warning: We have x-data that is not a form %s", form->xml().c_str());
}

void PubSubSession::handleIncomingItem(const gloox::Tag& items) {
    const std::string& node = items.findAttribute("node");
    const gloox::Tag* item = items.findChild("item");
    const gloox::Tag* payload = item ? item->findChild("payload") : nullptr;
    if (!payload) {
        PrvPrintErr({}, "Malformed items packet? Item will not be delivered");
        return;
    }
    const std::string& seqNo = item->findAttribute("seqNo");
    const std::string& itemId = item->findAttribute("id");
    const LogSubject subject(node, itemId);
    m_traces.append(itemId, "received");
    if (isForeign(node, *this)) {
        PrvPrintErr({}, "Item dropped, its node %s belongs to another account", node.c_str());
        acknowledge(node, itemId);
        return;
    }
    if (keepsOpenItem(node)) {
        acceptItem(node, {seqNo, itemId, payload->cdata(), payload->findAttribute("encoding"),
                          item->findAttribute("expires"), item->findAttribute("published"),
                          item->findAttribute("urgency")});
        return;
    }
    activated(node, false);
    if (isStalePacket(node, seqNo)) {
        m_traces.append(itemId, "known already");
        acknowledge(node, itemId);
        std::string ignored;
        if (subMap.contains(node))
            activateNode(node, ignored);
        return;
    }
    const std::string text = payload->cdata();
    const JsonRef serviceObject(getResponseJsonObject(node, itemId, text));
    const char* taker = "handlers";
    if (!sendMessageToServices(serviceObject.get(), node)) {
        const JsonRef appObject(getAppResponseJsonObj(node, text));
        taker = "subscriber";
        if (!sendMessageToApp(serviceObject.get(), appObject.get(), node)) {
            taker = "cache";
            if (!saveItemInCache(node, appObject.get()))
                return;
        }
    }
    m_traces.append(itemId, "handed on", taker);
    // The number is stored before the ack, so after a crash between them the repeated item is stale.
    persistSeqNo(node, seqNo);
    acknowledge(node, itemId);
}

bool PubSubSession::isHandlingInput() const {
    return m_client && m_client->isHandlingInput();
}

// A stale item waits for the commit too: the number that makes it stale may be in it.
void PubSubSession::acknowledge(const std::string& node, const std::string& itemId,
                                const std::string& seqNo) {
    acknowledgeWhenSettled(node, itemId, seqNo);
    if (!isHandlingInput())
        settleItems();
}

void PubSubSession::acknowledgeWhenSettled(const std::string& node, const std::string& itemId,
                                           const std::string& seqNo) {
    m_handledItems.push_back({node, itemId, seqNo});
}

// A commit that fails is logged by the store. The items are acknowledged all the same: they were delivered.
void PubSubSession::settleItems() {
    commitSeqNos();
    for (const auto& [node, itemId, seqNo] : std::exchange(m_handledItems, {}))
        if (m_pubsub) {
            m_traces.append(itemId, "acknowledged");
            m_pubsub->ackItem(pubsubService(), node, itemId, seqNo);
        }
    finishTaken();
}

bool PubSubSession::sendMessageToServices(json_object* serviceObject, const std::string& node) {
    const auto entry = serviceNodeMap.find(node);
    if (entry == serviceNodeMap.end())
        return false;
    const char* payload = json_object_to_json_string(serviceObject);
    for (const std::string& endpoint : entry->second) {
        BusError error;
        // No callback: the answer is not needed, and the bus daemon limits the replies that a
        // connection waits for.
        if (QSCall(m_privateHandle, endpoint.c_str(), payload, nullptr, nullptr, nullptr, error))
            continue;
        QSErrorPrint(error, stderr);
        // sic: items of a node with a registration are never cached, despite the text.
        PrvPrintErr({}, "QSCall to a registered callback failed. Item sent to cache\n");
    }
    return true;
}

bool PubSubSession::sendMessageToApp(json_object* serviceObject, json_object* appObject,
                                     const std::string& node) {
    bool found = false;
    std::string appId;
    std::string ignored;
    QSHandle* handle = nullptr;
    checkSubMap(node, found, appId, handle, ignored, ignored);
    if (found) {
        if (!handle)
            return false;
        // A subscribe request that still waits for its first answer gets it before the item.
        settleDeferredSubscriber(node);
        BusError error;
        const bool taken = QSSubscriptionRespond(m_serviceHandle, node.c_str(),
                                                 json_object_to_json_string(appObject), error);
        if (taken)
            setPowerOn();
        else
            PrvPrintErr({}, "Warning: Sending item failed, no subscriber for Node?  Bus error %s ",
                        error.message());
        removeSubMap(node);
        return taken;
    }
    const auto offline = m_offlineMap.find(node);
    if (offline == m_offlineMap.end())
        return false;
    if (!m_onCloseRegistered) {
        PrvPrintErr({}, "Sub Map present - No subs, no offlineclose? %s", node.c_str());
        return false;
    }
    JsonObject notice{JsonRef(json_object_get(serviceObject))};
    notice.set("appid", offline->second);
    BusError error;
    if (!QSSubscriptionPost(m_privateHandle, "/", "registerOnClose", notice.text().c_str(), error))
        PrvPrintErr({}, "Sending item to registerOnclose failed. Error %s ", error.message());
    // The item is cached as well, so that the notified application can fetch it.
    return false;
}
