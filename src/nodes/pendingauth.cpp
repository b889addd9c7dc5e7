// SPDX-License-Identifier: GPL-3.0-only
// Subscribers that wait for a node owner's approval: listeners, the request to the server, and
// the owner's decision.
//
// A listener is a bus subscription under "handleAuth:NODE", and its message is in m_msgMap under the same
// key. Those entries are not requests: no result removes them. m_pendingList holds the nodes of the server's
// last answer that have no listener here. When there are any, the list is requested once more;
// m_pendingCursor is kNoCursor while that is still allowed, and each call of subscribeNodeAuth or
// getPendingAuth allows it again. Nothing survives a restart.
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

// A refusal leaves the listeners for the nodes before it in place.
bool listenTo(PubSubSession& session, Request& request, const std::string& node, CallSite site = {}) {
    const std::string key = listenerKey(node);
    BusError error;
    if (!QSSubscriptionAdd(request.handle, key.c_str(), request.message, error)) {
        PrvPrintErr(site, "Adding pending auth subscription callback failed %s\n", error.message());
        return request.fail("quorbusErr", std::string(error.message()) + " - QSAddSubscription- failed");
    }
    session.keepRequest(key, request.message);
    return true;
}

// Requests all nodes with pending subscribers from the server. The results go to the listeners.
bool requestPending(PubSubSession& session, Request& request) {
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

// The server lists a node once for each of its pending subscribers; one request for the node returns
// all of them.
void storePending(std::list<std::string>& pending, const gloox::StringList& answered) {
    pending.clear();
    for (const std::string& node : answered)
        if (std::find(pending.begin(), pending.end(), node) == pending.end())
            pending.push_back(node);
}

}  // namespace

bool subscribeNodeAuth(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kQuotedRefusal);
    std::list<std::string> nodes;
    if (!request.hasService() || !request.isConnected() || !request.hasJson())
        return request.refuse();
    if (!request.requireSubscribe() || !request.readNodes(nodes))
        return request.refuse();
    for (const std::string& node : nodes)
        if (!listenTo(session, request, node))
            return request.refuse();
    // Only now, with the listeners in place, request the subscribers that are already pending.
    return requestPending(session, request) ? request.reply(Reply(true)) : request.refuse();
}

bool getPendingAuth(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kQuotedRefusal);
    if (!request.hasService() || !request.isConnected() || !request.hasJson())
        return request.refuse();
    return requestPending(session, request) ? request.reply(Reply(true)) : request.refuse();
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

// `node` is the session id of the server's ad-hoc command, which the request for each of its nodes repeats.
void PubSubSession::handlePendingRequest(const std::string& id, const std::string& node,
                                         const gloox::StringList* nodes, const gloox::Error* error) {
    setPingTimer();
    if (error || !nodes || node.empty()) {
        Reply reply(false);
        reply.addError(pendingFailure(error));
        reply.respond(keptRequest(listenerKey(node)), id, kPendingRespondFailed);
        return;
    }
    storePending(m_pendingList, *nodes);
    m_pendingList.remove_if([&](const std::string& pending) {
        if (!keptRequest(listenerKey(pending)))
            return false;
        m_pubsub->getPendingNodeRequest(pubsubService(), pending, node, this);
        return true;
    });
    if (m_pendingList.empty() || m_pendingCursor != kNoCursor)
        return;
    PrvPrintErr({}, "We had an handler for non existent node?, Resetting pending list");
    m_pendingCursor = 0;  // the answer to this request does not repeat it
    m_pubsub->getPendingRequest(pubsubService(), this);
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
