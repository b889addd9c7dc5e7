// SPDX-License-Identifier: GPL-3.0-only
// The subscription calls of the fake bus.
//
// A subscribed message has one reference, however many lists it is in; leaving the last one releases it.
#include <algorithm>
#include <cerrno>

#include "tests/fakes/fakebusstate.h"
#include "tests/fakes/journal.h"

namespace {

constexpr std::ptrdiff_t kSubscriptionLimit = 64;

bool contains(const SubscriberList& list, QSMessage* message) {
    return std::find(list.begin(), list.end(), message) != list.end();
}

bool subscribedAnywhere(QSMessage* message) {
    const auto has = [&](const auto& entry) { return contains(entry.second, message); };
    const QSHandle& handle = *message->handle;
    return std::any_of(handle.byKey.begin(), handle.byKey.end(), has) ||
           std::any_of(handle.byMethod.begin(), handle.byMethod.end(), has);
}

// The message has left its last list.
void releaseSubscribed(QSMessage* message) {
    std::erase(fakeBus().state().subscribed, message);
    QSMessageUnref(message);
}

std::ptrdiff_t subscriptionsOf(const std::string& client) {
    const auto& subscribed = fakeBus().state().subscribed;
    return std::count_if(subscribed.begin(), subscribed.end(),
                         [&](const QSMessage* message) { return message->client == client; });
}

bool addTo(SubscriberList& list, QSMessage* message, const std::string& name, QSError* error) {
    if (contains(list, message))
        return true;
    if (!subscribedAnywhere(message)) {
        if (message->handle->isPublic && subscriptionsOf(message->client) >= kSubscriptionLimit)
            return failWith(error, -EDQUOT,
                            "client " + message->client + " has 64 subscriptions: cancel some");
        QSMessageRef(message);
        fakeBus().state().subscribed.push_back(message);
    }
    list.push_back(message);
    message->wasSubscribed = true;
    journal().add("bus.subscribe " + busName(message->handle) + ' ' + name);
    return true;
}

bool acceptable(QSHandle* handle, QSMessage* message, QSError* error) {
    if (!handle || !message || !message->isRequest)
        return failWith(error, -EINVAL, "not a request");
    if (handle != message->handle)
        return failWith(error, -EINVAL, "a request of another connection");
    if (handle->closed)
        return failWith(error, -ENOTCONN, "the bus connection is closed");
    if (message->clientGone)
        return failWith(error, -ENOTCONN, "client " + message->client + " is gone");
    if (message->cancelled)
        return failWith(error, -ECANCELED, "client " + message->client + " has cancelled the call");
    return true;
}

template <typename Map, typename Name>
void leaveAll(Map& lists, QSMessage* message, bool journalled, Name name) {
    for (auto entry = lists.begin(); entry != lists.end();) {
        if (contains(entry->second, message)) {
            entry->second.remove(message);
            if (journalled)
                journal().add("bus.unsubscribe " + busName(message->handle) + ' ' + name(entry->first));
        }
        entry = entry->second.empty() ? lists.erase(entry) : std::next(entry);
    }
}

std::string methodKey(const std::pair<std::string, std::string>& key) {
    return key.first + '+' + key.second;
}

// Answers a copy of the list, since an answer may change it; returns how many were answered.
int pushTo(const SubscriberList& list, const char* payload, QSError* error) {
    const std::vector<QSMessage*> snapshot(list.begin(), list.end());
    for (QSMessage* message : snapshot)
        QSMessageRef(message);
    int reached = 0;
    for (QSMessage* message : snapshot) {
        reached += answerMessage(message, payload, error) ? 1 : 0;
        QSMessageUnref(message);
    }
    return reached;
}

}  // namespace

bool cancelSubscriptions(const std::vector<QSMessage*>& messages, bool silent) {
    std::vector<QSMessage*> left;
    for (QSMessage* message : std::vector<QSMessage*>(fakeBus().state().subscribed)) {
        if (std::find(messages.begin(), messages.end(), message) == messages.end())
            continue;
        leaveAll(message->handle->byKey, message, !silent, [](const std::string& key) { return key; });
        leaveAll(message->handle->byMethod, message, !silent, methodKey);
        left.push_back(message);
    }
    for (QSMessage* message : left) {
        QSHandle* handle = message->handle;
        message->cancelled = !silent;
        if (!silent && handle->cancel)
            runFilter(handle->cancel, handle, message, handle->cancelContext);
        releaseSubscribed(message);
    }
    return !left.empty();
}

bool QSSubscriptionProcess(QSHandle* handle, QSMessage* message, bool* subscribed, QSError* error) {
    if (subscribed)
        *subscribed = false;
    if (faultInjected("QSSubscriptionProcess", error) || !acceptable(handle, message, error))
        return false;
    if (!asksToSubscribe(message->payload))
        return true;
    const std::pair<std::string, std::string> key{message->category, message->method};
    const bool added = addTo(handle->byMethod[key], message, methodKey(key), error);
    if (subscribed)
        *subscribed = added;
    return added;
}

bool QSSubscriptionAdd(QSHandle* handle, const char* key, QSMessage* message, QSError* error) {
    if (faultInjected("QSSubscriptionAdd", error) || !acceptable(handle, message, error))
        return false;
    return addTo(handle->byKey[key], message, key, error);
}

bool QSSubscriptionSetCancelFunction(QSHandle* handle, QSFilter cancel, void* context, QSError* error) {
    if (faultInjected("QSSubscriptionSetCancelFunction", error))
        return false;
    handle->cancel = cancel;
    handle->cancelContext = context;
    return true;
}

bool QSSubscriptionAcquire(QSHandle* handle, const char* key, QSSubscriptionIter** iter, QSError* error) {
    if (faultInjected("QSSubscriptionAcquire", error))
        return false;
    if (!handle || !key)
        return failWith(error, -EINVAL, "no connection or no key");
    *iter = new QSSubscriptionIter{handle, key, fakeBus().subscribers(handle, key)};
    for (QSMessage* message : (*iter)->messages)
        QSMessageRef(message);
    return true;
}

bool QSSubscriptionHasNext(QSSubscriptionIter* iter) {
    return iter->next < iter->messages.size();
}

QSMessage* QSSubscriptionNext(QSSubscriptionIter* iter) {
    return QSSubscriptionHasNext(iter) ? iter->messages[iter->next++] : nullptr;
}

void QSSubscriptionRemove(QSSubscriptionIter* iter) {
    if (iter->next == 0)
        return;
    QSMessage* message = iter->messages[iter->next - 1];
    const auto list = iter->handle->byKey.find(iter->key);
    if (list == iter->handle->byKey.end() || !contains(list->second, message))
        return;
    list->second.remove(message);
    if (list->second.empty())
        iter->handle->byKey.erase(list);
    journal().add("bus.unsubscribe " + busName(iter->handle) + ' ' + iter->key);
    if (!subscribedAnywhere(message))
        releaseSubscribed(message);
}

void QSSubscriptionRelease(QSSubscriptionIter* iter) {
    if (!iter)
        return;
    for (QSMessage* message : iter->messages)
        QSMessageUnref(message);
    delete iter;
}

bool QSSubscriptionRespond(QSZeltService* service, const char* key, const char* payload, QSError* error) {
    if (faultInjected("QSSubscriptionRespond", error))
        return false;
    if (!service || !key)
        return failWith(error, -EINVAL, "no service or no key");
    SubscriberList subscribers;
    for (QSHandle* handle : {service->privateHandle, service->publicHandle})
        if (const auto found = handle->byKey.find(key); found != handle->byKey.end())
            subscribers.insert(subscribers.end(), found->second.begin(), found->second.end());
    if (subscribers.empty())
        return failWith(error, -ENOENT, std::string("no subscriber under ") + key);
    if (pushTo(subscribers, payload, error) == 0)
        return false;
    QSErrorFree(error);
    journal().add(std::string("bus.push ") + key + ' ' + payload);
    return true;
}

bool QSSubscriptionPost(QSHandle* handle, const char* category, const char* method, const char* payload,
                        QSError* error) {
    if (faultInjected("QSSubscriptionPost", error))
        return false;
    if (!handle || handle->closed)
        return failWith(error, -ENOTCONN, "the bus connection is closed");
    const auto found = handle->byMethod.find({category, method});
    if (found != handle->byMethod.end())
        pushTo(found->second, payload, error);
    journal().add("bus.post " + busName(handle) + ' ' + category + ' ' + method + ' ' + payload);
    return true;
}
