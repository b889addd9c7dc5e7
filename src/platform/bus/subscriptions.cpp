// SPDX-License-Identifier: GPL-3.0-only
// Subscriptions: requests that are kept for later answers. Free keys and pairs of category and method have
// separate tables, so that no node name can collide with a method. In memory, with the connection.
#include "platform/bus/subscriptions.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "platform/bus/connection.h"
#include "platform/bus/error.h"
#include "platform/bus/guard.h"
#include "platform/bus/message.h"
#include "platform/bus/peers.h"
#include "platform/bus/text.h"

struct QSSubscriptionIter {
    SubscriptionTable* table;
    std::string key;
    std::vector<QSMessage*> members;  // as they were when acquired, one reference each
    size_t next = 0;
};

namespace {

constexpr size_t kMostPublicSubscriptions = 64;

// Neither part can contain a blank on D-Bus, so different pairs have different keys.
std::string methodKey(const std::string& category, const std::string& method) {
    return category + " " + method;
}

// Removes the request from the list, and a list that became empty from its table; does
// not release the reference.
void takeOut(SubscriptionList& list, QSMessage* request) {
    std::erase(list.members, request);
    if (list.members.empty())
        list.table->erase(std::string(list.key));
}

void forgetMembership(QSMessage* request) {
    request->peer->subscriptions--;
    if (request->lists.empty())
        std::erase(request->peer->subscribed, request);
}

// Releases the references of the lists; the caller must hold one of its own.
void leaveEveryList(QSMessage* request) {
    for (SubscriptionList* list : std::exchange(request->lists, {})) {
        takeOut(*list, request);
        forgetMembership(request);
        QSMessageUnref(request);
    }
}

void runCancelFunction(QSMessage* request) {
    QSHandle* handle = request->handle;
    std::optional<LogPayer> payer;
    if (busIsPublic(handle))
        payer.emplace(busLogBudget(handle, request->peer->user));
    if (handle->cancelFunction)
        busRunGuarded(request->method,
                      [&] { handle->cancelFunction(handle, request, handle->cancelContext); });
}

bool isOf(const QSHandle* handle, const QSMessage* request, QSError* error) {
    if (!request || !request->peer)
        return busFail(error, -EINVAL, "Only a request that a client has sent can be subscribed");
    if (request->handle != handle)
        return busFail(error, -EINVAL, "The request came in by another connection");
    return true;
}

bool mayAdd(const QSMessage* request, QSError* error) {
    const Peer& peer = *request->peer;
    if (peer.state == Peer::State::Gone)
        return busFail(error, -ENOTCONN, "The client " + peer.name + " is gone");
    if (request->cancelled)
        return busFail(error, -ECANCELED, "The client " + peer.name + " has cancelled the request");
    if (!peer.watched)
        return busFail(error, -EAGAIN,
                       "The bus daemon would not report the death of the client " + peer.name +
                           "; raise its max_match_rules_per_connection");
    if (busIsPublic(request->handle) && peer.subscriptions >= kMostPublicSubscriptions)
        return busFail(error, -EDQUOT,
                       "The client " + peer.name + " has " + std::to_string(peer.subscriptions) +
                           " subscriptions; it must cancel some before it opens more");
    return true;
}

bool add(SubscriptionTable& table, const std::string& key, QSMessage* request, QSError* error) {
    auto found = table.find(key);
    if (found != table.end() &&
        std::count(found->second.members.begin(), found->second.members.end(), request))
        return true;
    if (!mayAdd(request, error))
        return false;
    SubscriptionList& list = table.try_emplace(key, SubscriptionList{&table, key, {}}).first->second;
    if (request->lists.empty())
        request->peer->subscribed.push_back(request);
    QSMessageRef(request);
    list.members.push_back(request);
    request->lists.push_back(&list);
    request->peer->subscriptions++;
    request->subscribed = true;
    return true;
}

std::vector<QSMessage*> referencedMembers(const SubscriptionTable& table, const std::string& key) {
    auto found = table.find(key);
    if (found == table.end())
        return {};
    for (QSMessage* request : found->second.members)
        QSMessageRef(request);
    return found->second.members;
}

struct Sent {
    size_t subscribers = 0;
    size_t reached = 0;
};

using Answer = bool (*)(QSMessage* request, const char* payload, QSError* error);

void answerAll(const SubscriptionTable& table, const std::string& key, const char* payload, Answer answer,
               Sent& sent, QSError* error) {
    for (QSMessage* request : referencedMembers(table, key)) {
        sent.subscribers++;
        if (answer(request, payload, error))
            sent.reached++;
        QSMessageUnref(request);
    }
}

}  // namespace

bool QSSubscriptionProcess(QSHandle* handle, QSMessage* message, bool* subscribed, QSError* error) {
    if (subscribed)
        *subscribed = false;
    if (!busIsOpen(handle, error))
        return false;
    if (!busAsksToSubscribe(QSMessageGetPayload(message)))
        return true;
    if (!isOf(handle, message, error) ||
        !add(handle->byMethod, methodKey(message->category, message->method), message, error))
        return false;
    if (subscribed)
        *subscribed = true;
    return true;
}

bool QSSubscriptionAdd(QSHandle* handle, const char* key, QSMessage* message, QSError* error) {
    if (!busIsOpen(handle, error))
        return false;
    if (!key)
        return busFail(error, -EINVAL, "There is no key to subscribe under");
    return isOf(handle, message, error) && add(handle->byKey, key, message, error);
}

bool QSSubscriptionSetCancelFunction(QSHandle* handle, QSFilter cancel, void* context, QSError* error) {
    if (!busIsOpen(handle, error))
        return false;
    handle->cancelFunction = cancel;
    handle->cancelContext = context;
    return true;
}

bool QSSubscriptionAcquire(QSHandle* handle, const char* key, QSSubscriptionIter** iter, QSError* error) {
    if (!handle || !key || !iter)
        return busFail(error, -EINVAL, "A subscription list needs a handle, a key and a place for the list");
    *iter = new QSSubscriptionIter{&handle->byKey, key, referencedMembers(handle->byKey, key)};
    return true;
}

bool QSSubscriptionHasNext(QSSubscriptionIter* iter) {
    return iter && iter->next < iter->members.size();
}

QSMessage* QSSubscriptionNext(QSSubscriptionIter* iter) {
    return QSSubscriptionHasNext(iter) ? iter->members[iter->next++] : nullptr;
}

void QSSubscriptionRemove(QSSubscriptionIter* iter) {
    if (!iter || iter->next == 0)
        return;
    QSMessage* request = iter->members[iter->next - 1];
    // Looked up by key, because a list that has become empty is deleted.
    auto found = iter->table->find(iter->key);
    if (found == iter->table->end() || !std::erase(request->lists, &found->second))
        return;
    takeOut(found->second, request);
    forgetMembership(request);
    QSMessageUnref(request);
}

void QSSubscriptionRelease(QSSubscriptionIter* iter) {
    if (!iter)
        return;
    for (QSMessage* request : iter->members)
        QSMessageUnref(request);
    delete iter;
}

bool QSSubscriptionRespond(QSZeltService* service, const char* key, const char* payload, QSError* error) {
    if (!service || !key)
        return busFail(error, -EINVAL, "A response needs a registered service and a key");
    Sent sent;
    for (QSHandle* handle : {service->privateHandle, service->publicHandle})
        answerAll(handle->byKey, key, payload, busDeliver, sent, error);
    if (!sent.subscribers)
        return busFail(error, -ENOENT, std::string("There is no subscriber for ") + key);
    return sent.reached > 0;
}

bool QSSubscriptionPost(QSHandle* handle, const char* category, const char* method, const char* payload,
                        QSError* error) {
    if (!busIsOpen(handle, error))
        return false;
    if (!category || !method)
        return busFail(error, -EINVAL, "A post needs a category and a method");
    Sent sent;
    answerAll(handle->byMethod, methodKey(category, method), payload, busAnswer, sent, error);
    return !sent.subscribers || sent.reached > 0;
}

void busCancel(QSMessage* request) {
    QSMessageRef(request);
    request->cancelled = true;
    leaveEveryList(request);
    runCancelFunction(request);
    QSMessageUnref(request);
}

void busCancelAll(Peer& peer) {
    const std::vector<QSMessage*> requests = peer.subscribed;
    for (QSMessage* request : requests) {
        QSMessageRef(request);
        request->cancelled = true;
        leaveEveryList(request);
    }
    for (QSMessage* request : requests) {
        runCancelFunction(request);
        QSMessageUnref(request);
    }
}

void busDropAllSubscriptions(QSHandle* handle) {
    for (SubscriptionTable* table : {&handle->byKey, &handle->byMethod}) {
        while (!table->empty()) {
            QSMessage* request = table->begin()->second.members.front();
            QSMessageRef(request);
            leaveEveryList(request);
            QSMessageUnref(request);
        }
    }
}
