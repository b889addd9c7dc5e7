// SPDX-License-Identifier: GPL-3.0-only
// Activation of nodes: tells the server to send a node's items to this device.
//
// Keeps PubSubSession::m_activateMap, true once the server has confirmed a node in this connection; a
// disconnect empties it. Requests wait for a result in m_endpointMap. Nothing survives a restart. The nodes of
// receivers and confirming handlers are activated by session/openitems.cpp, for one item at a time.
#include <gloox/error.h>

#include "maintenance/methods.h"
#include "request/names.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "xmpp/manager.h"

namespace {

constexpr char kActivateFailed[] = "Sending response to handleActivateNode failed id %s Error %s ";
constexpr char kDeActivateFailed[] = "Sending response to handleDeActivateNode failed id %s Error %s ";

// {"returnValue", "endpoint"} and, after an error, its code and text.
Reply activationReply(const std::string& endpoint, const gloox::Error* error) {
    Reply reply = endpointReply(!error, endpoint);
    if (error)
        reply.addError({kServerRefused, errorOf(error).text});
    return reply;
}

}  // namespace

bool activateNode(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kEndpointRefusal);
    if (!request.isReady(true) || !request.requireNode())
        return request.refuse();
    std::string id;
    // sic: also for a node with item handlers, which needs no activation
    if (session.activateNode(request.node, id) && !request.wasSent(id, kLibraryNotInitialized))
        return request.refuse();
    // sic: for a node that is active already there is no id and no result; the request stays under the empty
    // key until a disconnect answers it or the next one replaces it.
    session.setEndpointMap(id, message, request.node, request.node, "");
    return true;
}

bool PubSubSession::activateNode(const std::string& node, std::string& requestId) {
    if (serviceNodeMap.contains(node))
        return true;
    const auto known = m_activateMap.find(node);
    if (known != m_activateMap.end() && known->second) {
        requestId.clear();
        return false;
    }
    // The server is told no number that is not on disk.
    settleItems();
    std::string seqNo;
    getSeqNo(node, seqNo);
    requestId.clear();
    if (m_pubsub)
        requestId = m_pubsub->activateNode(pubsubService(), node, seqNo, this, keepsOpenItem(node));
    return true;
}

bool PubSubSession::mayBeActive(const std::string& node) const {
    return m_activateMap.contains(node) || subMap.contains(node) || m_offlineMap.contains(node);
}

// An ordinary node with handlers has its items sent without an activation, until it is deactivated.
void PubSubSession::activateForOthers(const std::string& node) {
    std::string id;
    if (serviceNodeMap.contains(node) && m_pubsub) {
        getSeqNo(node, id);
        m_pubsub->activateNode(pubsubService(), node, id, this, false);
    } else if (subMap.contains(node) || m_offlineMap.contains(node)) {
        activateNode(node, id);
    }
}

void PubSubSession::activated(const std::string& node, bool value) {
    m_activateMap[node] = value;
}

void PubSubSession::removeActivateMap(const std::string& node) {
    m_activateMap.erase(node);
}

void PubSubSession::forgetActivations() {
    m_activateMap.clear();
}

void PubSubSession::activateNodes() {
    if (!m_pubsub)
        return;
    // sic: a node in both maps is listed twice.
    gloox::StringList nodes;
    for (const auto& [node, subscriber] : subMap)
        if (!keepsOpenItem(node))
            nodes.push_back(node);
    for (const auto& [node, application] : m_offlineMap)
        if (!keepsOpenItem(node))
            nodes.push_back(node);
    m_pubsub->bulkActivate(pubsubService(), nodes, this, false);
}

void PubSubSession::handleActivateNode(const std::string& id, const gloox::JID& service,
                                       const std::string& node, const gloox::Error* error) {
    setPingTimer();
    if (openNodeAnswered(id, node, error)) {
        printerror(error);
        return;
    }
    const auto request = takeEndpointRequest(id);
    if (request)
        firstAnswerGiven(*request);
    if (error) {
        printerror(error);
        removeActivateMap(node);
        removeSubMap(node);
    } else {
        activated(node, true);
    }
    if (!request)
        return;
    if (error)
        PrvPrintErr({}, "Endpoint %s Sub error:  from %s", request->endpoint.c_str(), service.full().c_str());
    activationReply(request->endpoint, error).respond(request->message.get(), id, kActivateFailed);
}

void PubSubSession::handleDeActivateNode(const std::string& id, const gloox::JID& service,
                                         const std::string& node, const gloox::Error* error) {
    setPingTimer();
    if (openNodeAnswered(id, node, error)) {
        printerror(error);
        return;
    }
    const auto request = takeEndpointRequest(id);
    if (error) {
        printerror(error);
    } else {
        removeActivateMap(node);
        removeSubMap(node);
        reopenNode(node);
    }
    if (!request)
        return;
    if (error)
        PrvPrintErr({}, "Endpoint %s Unsub error:  from %s", request->endpoint.c_str(),
                    service.full().c_str());
    activationReply(request->endpoint, error).respond(request->message.get(), id, kDeActivateFailed);
}

void PubSubSession::handleActivateSysNodes(const std::string&, const gloox::JID&, const gloox::Error* error) {
    printerror(error);
}

void PubSubSession::handleBulkActivate(const std::string& id, const gloox::JID&,
                                       const xmpp::NodeErrors& failed, const gloox::Error* error) {
    printerror(error);
    openNodesAnswered(id, failed);
}
