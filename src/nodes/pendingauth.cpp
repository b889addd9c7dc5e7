// SPDX-License-Identifier: GPL-3.0-only
// Subscribers that wait for a node owner's approval: who listens, asking the server, and the owner's
// decision.
//
// A listener is a bus subscription under "handleAuth:NODE", and the listening message stands in m_msgMap
// under the same key. Those entries are no requests: no result takes them out. m_pendingList holds the nodes
// of the server's last answer that nobody here listens to; m_pendingCursor is none while such a rest may
// still be asked for anew, which each listener's or owner's call allows once. Nothing survives a restart.
#include <gloox/error.h>

#include <algorithm>

#include "nodes/methods.h"
#include "request/names.h"
#include "request/requestframe.h"
#include "request/roads.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/log.h"
#include "xmpp/manager.h"

namespace {

constexpr char kPendingRespondFailed[] = "Sending response to handlePendingRequest failed id %s Error %s ";

std::string listenerKey(const std::string& node) {
    return "handleAuth:" + node;
}

// The message that listens to a node; null when there is none.
QSMessage* listenerOf(const PubSubSession& session, const std::string& node) {
    const auto found = session.m_msgMap.find(listenerKey(node));
    return found == session.m_msgMap.end() ? nullptr : found->second.get();
}

bool readSubscribe(json_object* payload, FailureWords& words) {
    bool subscribe = false;
    if (!getJSONboolean(payload, "subscribe", words.text, subscribe))
        return false;
    if (!subscribe)
        words.text = "Subscribe should be true";
    return subscribe;
}

// Nodes taken before a refusal stay listened to.
bool listenTo(CallSite site, QSHandle* handle, QSMessage* message, const std::string& node,
              FailureWords& words) {
    const std::string key = listenerKey(node);
    BusError error;
    if (!QSSubscriptionAdd(handle, key.c_str(), message, error)) {
        PrvPrintErr(site, "Adding pending auth subscription callback failed %s\n", error.message());
        words = {"quorbusErr", std::string(error.message()) + " - QSAddSubscription- failed"};
        return false;
    }
    gCurrentSession.m_msgMap[key] = KeptMessage(message);
    return true;
}

// Asks the server for all nodes with pending subscribers. The results go to the listeners.
bool askForPending(PubSubSession& session, FailureWords& words) {
    session.m_pendingCursor = PubSubSession::kNoCursor;
    return checkRequestId(session.m_pubsub->getPendingRequest(gloox::JID(session.m_pubsubService), &session),
                          words);
}

FailureWords pendingFailure(CallSite site, const gloox::Error* error) {
    if (!error)
        return {"libErr", "Error parsing response from server"};
    printerror(error, site);
    FailureWords words{"", ""};
    getErrorCode(error, words.code, words.text);
    return words;
}

// The server names a node once for each of its pending subscribers; one question brings them all.
void takePending(std::list<std::string>& pending, const gloox::StringList& answered) {
    pending.clear();
    for (const std::string& node : answered)
        if (std::find(pending.begin(), pending.end(), node) == pending.end())
            pending.push_back(node);
}

bool accept(CallSite site, QSHandle* handle, QSMessage* message) {
    sendReply(handle, message, json_object_to_json_string(newReply(true).get()), site);
    return true;
}

}  // namespace

bool subscribeNodeAuth(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    FailureWords words;
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!checkRequest({}, session, payload.get(), words))
        return refuse(handle, message, words);
    if (!readSubscribe(payload.get(), words))
        return refuse(handle, message, words);
    std::list<std::string> nodes;
    if (!readNodes({}, payload.get(), nodes, words))
        return refuse(handle, message, words);
    for (const std::string& node : nodes)
        if (!listenTo({}, handle, message, node, words))
            return refuse(handle, message, words);
    // What is pending already is asked for only now, with the listeners in place.
    if (!askForPending(session, words))
        return refuse(handle, message, words);
    return accept({}, handle, message);
}

bool getPendingAuth(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    FailureWords words;
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!checkRequest({}, session, payload.get(), words))
        return refuse(handle, message, words);
    if (!askForPending(session, words))
        return refuse(handle, message, words);
    return accept({}, handle, message);
}

bool approvePending(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    FailureWords words;
    std::string node;
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!checkRequest({}, session, payload.get(), words))
        return refuseNode(handle, message, words, node);
    node = getJSONString(payload.get(), "node", words.text);
    const std::string id = getJSONString(payload.get(), "id", words.text);
    const std::string subid = getJSONString(payload.get(), "subid", words.text);
    const std::string approve = getJSONString(payload.get(), "approve", words.text);
    const std::string subscriber = getJSONString(payload.get(), "subscriber_jid", words.text);
    if (node.empty() || id.empty() || subid.empty() || approve.empty() || subscriber.empty())
        return refuseNode(handle, message, words, node);

    const std::string request = session.m_pubsub->approvePending(gloox::JID(session.m_pubsubService), node,
                                                                 id, subid, approve, subscriber);
    if (!checkRequestId(request, words))
        return refuseNode(handle, message, words, node);
    return accept({}, handle, message);
}

// `node` is the session id of the server's command; it names the command when its nodes are asked for one by
// one.
void PubSubSession::handlePendingRequest(const std::string& id, const std::string& node,
                                         const gloox::StringList* nodes, const gloox::Error* error) {
    setPingTimer();
    if (error || !nodes || node.empty()) {
        const JsonRef reply = newReply(false);
        addWords(reply, pendingFailure({}, error));
        respond({}, listenerOf(*this, node), reply, id, kPendingRespondFailed);
        return;
    }
    takePending(m_pendingList, *nodes);
    m_pendingList.remove_if([&](const std::string& pending) {
        if (!listenerOf(*this, pending))
            return false;
        m_pubsub->getPendingNodeRequest(gloox::JID(m_pubsubService), pending, node, this);
        return true;
    });
    if (m_pendingList.empty() || m_pendingCursor != kNoCursor)
        return;
    PrvPrintErr({}, "We had an handler for non existent node?, Resetting pending list");
    m_pendingCursor = 0;  // the answer to this renewal renews no more
    m_pubsub->getPendingRequest(gloox::JID(m_pubsubService), this);
}

void PubSubSession::handlePendingNodeRequest(const std::string&, const gloox::JID& service,
                                             const std::string& node, const gloox::Error* error) {
    setPingTimer();
    if (!error)
        return;
    PrvPrintErr({}, "Error in handlePendingNodeRequest %s error:  from %s", node.c_str(),
                service.full().c_str());
    printerror(error);
}
