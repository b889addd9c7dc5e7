// SPDX-License-Identifier: GPL-3.0-only
// subscribe and unsubscribe: an application waits for the next item of its endpoint, or stops waiting.
//
// The subscriber is in PubSubSession::subMap and in the subscription list of the bus library. A subscribe
// request without a connection waits for its first answer in m_deferredSubscribes until the next connect
// activates its node. Nothing survives a restart.
#include <vector>

#include "endpoints/methods.h"
#include "platform/bus/qsraii.h"
#include "request/request.h"
#include "request/requestframe.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "xmpp/manager.h"

namespace {

constexpr char kSubscribeFailed[] = "Sending response to subscribe failed id %s Error %s ";
constexpr char kUnsubscribeFailed[] = "Sending response to unsubscribe failed id %s Error %s ";

bool canActivate(const PubSubSession& session) {
    return session.m_connected && !session.m_spare3;
}

bool isSubscribed(PubSubSession& session, const std::string& node) {
    bool found = false;
    std::string ignored;
    QSHandle* handle = nullptr;
    session.checkSubMap(node, found, ignored, handle, ignored, ignored);
    return found;
}

// Answers with the cached item. The file is deleted only after the item was sent. When the first answer
// cannot be sent, the item would become the first answer, so it is not sent either.
void replyWithItem(const Request& request, json_object* item, CallSite site = {}) {
    const KeptMessage message(request.message);
    if (!endpointReply(true, request.endpoint).respond(message.get(), "", kSubscribeFailed, site))
        return;
    BusError error;
    if (QSMessageRespond(message.get(), json_object_to_json_string(item), error))
        PubSubSession::deleteItemFromCache(request.node);
    else
        PrvPrintErr(site, "Warning: Sending item failed, no subscriber for Node?  Bus error %s ",
                    error.message());
}

bool addToList(Request& request, CallSite site = {}) {
    BusError error;
    if (QSSubscriptionAdd(request.handle, request.node.c_str(), request.message, error))
        return true;
    PrvPrintErr(site, "Adding subscribe callback failed %s\n", error.message());
    return request.fail("libErr", "Adding subscription callback failed");
}

// Removes only this request from the list, so that its end cannot be mistaken for that of another subscriber.
void removeFromList(const Request& request) {
    QSSubscriptionIter* subscribers = nullptr;
    BusError error;
    if (!QSSubscriptionAcquire(request.handle, request.node.c_str(), &subscribers, error))
        return;
    while (QSSubscriptionHasNext(subscribers))
        if (QSSubscriptionNext(subscribers) == request.message)
            QSSubscriptionRemove(subscribers);
    QSSubscriptionRelease(subscribers);
}

// Success is answered at once; the result of the activation, if one was requested, is the second answer.
bool activateFor(PubSubSession& session, Request& request, CallSite site = {}) {
    std::string id;
    const bool asked = session.activateNode(request.node, id);
    if (asked && !request.wasSent(id, kLibraryNotInitialized))
        return false;
    endpointReply(true, request.endpoint).respond(request.message, id, kSubscribeFailed, site);
    return !asked || request.waitForEndpoint(id);
}

}  // namespace

bool subscribe(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kEndpointRefusal);
    if (!request.isReady(false) || !request.requireEndpoint() || !request.formNode())
        return request.refuse();
    if (isSubscribed(session, request.node)) {
        Reply reply = endpointReply(true, request.endpoint);
        reply.set("status", "subscribed");
        reply.respond(message, "", kSubscribeFailed);
        return true;
    }
    if (const JsonRef item{PubSubSession::getItemFromCache(request.node)}) {
        replyWithItem(request, item.get());
        return true;
    }
    if (!addToList(request))
        return request.refuse();
    if (!canActivate(session)) {
        session.m_deferredSubscribes[request.node] = {request.endpoint, request.appId, request.node,
                                                      KeptMessage(message)};
    } else if (!activateFor(session, request)) {
        removeFromList(request);
        return request.refuse();
    }
    session.setSubMap(request.node, request.appId, handle);
    return true;
}

bool unsubscribe(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kEndpointRefusal);
    if (!request.isReady(false) || !request.requireEndpoint() || !request.formNode())
        return request.refuse();
    bool onClose = false;
    std::string ignored;
    getJSONboolean(request.json(), "onclose", ignored, onClose);
    if (onClose) {
        const bool writes = session.m_offlineMap.contains(request.node);
        if (const WriteTurn turn = session.takeWriteTurn(request, writes, unsubscribe);
            turn != WriteTurn::Now)
            return turn == WriteTurn::Later || request.refuse("appErr", kTooManyWrites);
        session.removeOfflineMap(request.node);
    }

    Reply reply = endpointReply(true, request.endpoint);
    if (!isSubscribed(session, request.node)) {
        reply.set("status", "not subscribed");
        reply.respond(message, "", kUnsubscribeFailed);
        return true;
    }
    session.activated(request.node, false);
    if (!canActivate(session)) {
        session.removeSubMap(request.node);
        reply.respond(message, "", kUnsubscribeFailed);
        return true;
    }
    // The result handler removes the subscriber.
    const std::string id =
        session.m_pubsub->deActivateNode(gloox::JID(session.m_pubsubService), request.node, &session);
    if (!request.wasSent(id, kLibraryNotInitialized))
        return request.refuse();
    request.waitForEndpoint(id);
    reply.respond(message, id, kUnsubscribeFailed);
    return true;
}

void PubSubSession::activateDeferredSubscribers() {
    std::vector<_endpointStruct> waiting;
    for (const auto& [node, request] : m_deferredSubscribes)
        waiting.push_back(request);
    for (const _endpointStruct& request : waiting) {
        std::string id;
        const bool asked = activateNode(request.node, id);
        if (!asked) {
            settleDeferredSubscriber(request.node);
        } else if (!id.empty()) {
            setEndpointMap(id, request.message.get(), request.endpoint, request.node, request.appId);
        } else {
            const auto subscriber = subMap.find(request.node);
            QSHandle* handle = subscriber == subMap.end() ? nullptr : subscriber->second.handle;
            removeSubMap(request.node);
            PrvPrintErr({}, "Error %s, Incoming %s", kLibraryNotInitialized,
                        QSMessageGetPayload(request.message.get()));
            HandleError(handle, request.message.get(), "libErr", kLibraryNotInitialized,
                        JsonObject().set("endpoint", request.endpoint).release().release());
        }
    }
}

void PubSubSession::settleDeferredSubscriber(const std::string& node) {
    const auto deferred = m_deferredSubscribes.extract(node);
    if (!deferred)
        return;
    const _endpointStruct& request = deferred.mapped();
    // A result that arrives later must not answer it again.
    dropEndpointRequests(request.message.get());
    endpointReply(true, request.endpoint).respond(request.message.get(), "", kSubscribeFailed);
}

void PubSubSession::dropDeferredSubscriber(const std::string& node) {
    m_deferredSubscribes.erase(node);
}

void PubSubSession::firstAnswerGiven(const _endpointStruct& request) {
    const auto deferred = m_deferredSubscribes.find(request.node);
    if (deferred != m_deferredSubscribes.end() && deferred->second.message.get() == request.message.get())
        m_deferredSubscribes.erase(deferred);
}
