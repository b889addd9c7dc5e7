// SPDX-License-Identifier: GPL-3.0-only
// The public subscribers: at most one for each node, removed after its first item.
//
// Keeps PubSubSession::subMap. Nothing survives a restart, since the bus subscriptions end with the process.
#include "platform/bus/qsraii.h"
#include "session/pubsubsession.h"
#include "util/log.h"

namespace {

// Ends the bus subscription of the first subscriber of `node`, leaving any others.
bool checkAndRemove(QSHandle* handle, const std::string& node) {
    QSSubscriptionIter* subscribers = nullptr;
    BusError error;
    if (!QSSubscriptionAcquire(handle, node.c_str(), &subscribers, error)) {
        PrvPrintErr({}, "Subscription acquire failed %s\n", error.message());
        return false;
    }
    if (QSSubscriptionHasNext(subscribers)) {
        QSSubscriptionNext(subscribers);
        QSSubscriptionRemove(subscribers);
    }
    QSSubscriptionRelease(subscribers);
    return true;
}

}  // namespace

void PubSubSession::setSubMap(const std::string& node, const std::string& appId, QSHandle* handle) {
    subMap[node] = {appId, handle};
}

void PubSubSession::setSubMapHandle(const std::string& node, QSHandle* handle) {
    const auto subscriber = subMap.find(node);
    if (subscriber != subMap.end())
        subscriber->second.handle = handle;
}

bool PubSubSession::checkSubMap(const std::string& node, bool& found, std::string& appId, QSHandle*& handle,
                                std::string& errorCode, std::string& errorText) {
    const auto subscriber = subMap.find(node);
    found = subscriber != subMap.end();
    if (!found)
        return true;
    appId = subscriber->second.appId;
    handle = subscriber->second.handle;
    errorCode = "appErr";
    errorText = "Already subscribed for Offline notification";
    return true;
}

bool PubSubSession::removeSubMap(const std::string& node) {
    const auto subscriber = subMap.find(node);
    if (subscriber == subMap.end())
        return false;
    if (subscriber->second.handle)
        checkAndRemove(subscriber->second.handle, node);
    dropDeferredSubscriber(node);
    // Last: `node` may be the key itself.
    subMap.erase(subscriber);
    return true;
}
