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
#include "request/request.h"
#include "session/pubsubsession.h"
#include "util/log.h"
#include "xmpp/manager.h"

namespace {

constexpr char kPendingRespondFailed[] = "Sending response to handlePendingRequest failed id %s Error %s ";

std::string listenerKey(const std::string& node) {
    return "handleAuth:" + node;
}

// Nodes taken before a refusal stay listened to.
bool listenTo(Request& request, const std::string& node, CallSite site = {}) {
    const std::string key = listenerKey(node);
    BusError error;
    if (!QSSubscriptionAdd(request.handle, key.c_str(), request.message, error)) {
        PrvPrintErr(site, "Adding pending auth subscription callback failed %s\n", error.message());
        return request.fail("quorbusErr", std::string(error.message()) + " - QSAddSubscription- failed");
    }
    gCurrentSession.keepRequest(key, request.message);
    return true;
}

// Asks the server for all nodes with pending subscribers. The results go to the listeners.
bool askForPending(Request& request) {
    PubSubSession& session = gCurrentSession;
    session.m_pendingCursor = PubSubSession::kNoCursor;
    return request.wasSent(
        session.m_pubsub->getPendingRequest(gloox::JID(session.m_pubsubService), &session));
}

RequestError pendingFailure(const gloox::Error* error, CallSite site = {}) {
    if (!error)
        return {"libErr", "Error parsing response from server"};
    printerror(error, site);
    return errorOf(error);
}

// The server names a node once for each of its pending subscribers; one question brings them all.
void takePending(std::list<std::string>& pending, const gloox::StringList& answered) {
    pending.clear();
    for (const std::string& node : answered)
        if (std::find(pending.begin(), pending.end(), node) == pending.end())
            pending.push_back(node);
}

}  // namespace

bool subscribeNodeAuth(QSHandle* handle, QSMessage* message, void*) {
    Request request(handle, message, kQuotedRefusal);
    std::list<std::string> nodes;
    if (!request.hasService() || !request.isConnected() || !request.hasJson())
        return request.refuse();
    if (!request.requireSubscribe() || !request.readNodes(nodes))
        return request.refuse();
    for (const std::string& node : nodes)
        if (!listenTo(request, node))
            return request.refuse();
    // What is pending already is asked for only now, with the listeners in place.
    return askForPending(request) ? request.reply(Reply(true)) : request.refuse();
}

bool getPendingAuth(QSHandle* handle, QSMessage* message, void*) {
    Request request(handle, message, kQuotedRefusal);
    if (!request.hasService() || !request.isConnected() || !request.hasJson())
        return request.refuse();
    return askForPending(request) ? request.reply(Reply(true)) : request.refuse();
}

bool approvePending(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kNodeRefusal);
    if (!request.hasService() || !request.isConnected() || !request.hasJson())
        return request.refuse();
    const std::string id = request.text("id"), subid = request.text("subid");
    const std::string approve = request.text("approve"), subscriber = request.text("subscriber_jid");
    if (!request.readNode() || id.empty() || subid.empty() || approve.empty() || subscriber.empty())
        return request.refuse();
    if (!request.wasSent(session.m_pubsub->approvePending(gloox::JID(session.m_pubsubService), request.node,
                                                          id, subid, approve, subscriber)))
        return request.refuse();
    return request.reply(Reply(true));
}

// `node` is the session id of the server's command; it names the command when its nodes are asked for one by
// one.
void PubSubSession::handlePendingRequest(const std::string& id, const std::string& node,
                                         const gloox::StringList* nodes, const gloox::Error* error) {
    setPingTimer();
    if (error || !nodes || node.empty()) {
        Reply reply(false);
        reply.addError(pendingFailure(error));
        reply.respond(keptRequest(listenerKey(node)), id, kPendingRespondFailed);
        return;
    }
    takePending(m_pendingList, *nodes);
    m_pendingList.remove_if([&](const std::string& pending) {
        if (!keptRequest(listenerKey(pending)))
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
