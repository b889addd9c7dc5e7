// SPDX-License-Identifier: GPL-3.0-only
// deleteNode: from the bus request to the server and back.
//
// The waiting request is in m_msgMap under the manager's request id. The result handler also
// answers deleteEndpoint, whose request waits in m_endpointMap. A deleted endpoint is removed from
// every map and store.
#include <gloox/error.h>

#include <cstdio>

#include "nodes/methods.h"
#include "request/names.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "xmpp/manager.h"

namespace {

constexpr char kDeleteRespondFailed[] = "Sending response to delete Node failed id %s Error %s ";

Reply endpointDeleted(PubSubSession& session, const _endpointStruct& request) {
    session.removeActivateMap(request.node);
    session.forgetOpenNode(request.node);
    session.removeSubMap(request.node);
    session.removeOfflineMap(request.node);
    session.removeNodeFromDeleteStore(request.node, request.appId);
    return endpointReply(true, request.endpoint);
}

// A node that the server does not know counts as deleted, but the maps and stores stay unchanged.
Reply endpointNotDeleted(const _endpointStruct& request, const std::string& condition) {
    if (condition == "item-not-found") {
        Reply reply(true);
        // sic: "node" with the full name, where success has "endpoint"
        reply.set("node", request.node).set("status", "notfound");
        return reply;
    }
    Reply reply = endpointReply(false, request.endpoint);
    reply.addError({kServerRefused, condition});
    return reply;
}

}  // namespace

bool deleteNode(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kNodeRefusal);
    if (!request.hasService() || !request.isConnected() || !request.hasJson())
        return request.refuse();
    if (!request.readNode())
        return request.refuse();
    return request.waitFor(
        session.m_pubsub->deleteNode(gloox::JID(session.m_pubsubService), request.node, &session));
}

void PubSubSession::handleNodeDeletation(const std::string& id, const gloox::JID& service,
                                         const std::string& node, const gloox::Error* error) {
    setPingTimer();
    if (const auto waiting = takeRequest(id)) {
        resultReply("node", node, node, service, error).respond(waiting.get(), id, kCreateRespondFailed);
    } else if (const auto request = takeEndpointRequest(id)) {
        const Reply reply = error ? endpointNotDeleted(*request, serverError(*error, node, service).text)
                                  : endpointDeleted(*this, *request);
        reply.respond(request->message.get(), id, kDeleteRespondFailed);
    }
}

// The service never requests a purge; the result is only printed.
void PubSubSession::handleNodePurge(const std::string&, const gloox::JID& service, const std::string& node,
                                    const gloox::Error* error) {
    if (error) {
        printerror(error);
        std::printf("Node %s error:  from %s\n", node.c_str(), service.full().c_str());
        return;
    }
    std::printf("Purged node %s in %s Yay! \n", node.c_str(), service.full().c_str());
}
