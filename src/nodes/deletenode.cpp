// SPDX-License-Identifier: GPL-3.0-only
// deleteNode: from the bus request to the server and back.
//
// The waiting request stands in m_msgMap under the id that the manager gave. The result handler also finishes
// deleteEndpoint, whose request waits in m_endpointMap: a deleted endpoint leaves every registry, the stored
// ones too.
#include <gloox/error.h>

#include <cstdio>

#include "nodes/methods.h"
#include "request/names.h"
#include "request/roads.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "xmpp/manager.h"

namespace {

constexpr char kDeleteRespondFailed[] = "Sending response to delete Node failed id %s Error %s ";

JsonRef endpointDeleted(PubSubSession& session, const _endpointStruct& request) {
    session.removeActivateMap(request.node);
    session.removeSubMap(request.node);
    session.removeOfflineMap(request.node);
    session.removeNodeFromDeleteStore(request.node, request.appId);
    JsonRef reply = newReply(true);
    addText(reply, "endpoint", request.endpoint);
    return reply;
}

// A node that the server does not know is as good as deleted, but the registries stay as they are.
JsonRef endpointNotDeleted(const _endpointStruct& request, const std::string& condition) {
    const bool gone = condition == "item-not-found";
    JsonRef reply = newReply(gone);
    if (gone) {
        addText(reply, "node", request.node);  // sic: "node" with the full name, where success has "endpoint"
        addText(reply, "status", "notfound");
        return reply;
    }
    addText(reply, "endpoint", request.endpoint);
    addWords(reply, {"xmppErr", condition});
    return reply;
}

}  // namespace

bool deleteNode(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    FailureWords words;
    std::string node;
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!checkRequest({}, session, payload.get(), words))
        return refuseNode(handle, message, words, node);
    node = getJSONString(payload.get(), "node", words.text);
    if (node.empty())
        return refuseNode(handle, message, words, node);

    const std::string id = session.m_pubsub->deleteNode(gloox::JID(session.m_pubsubService), node, &session);
    if (!keepRequest(session, id, message, words))
        return refuseNode(handle, message, words, node);
    return true;
}

void PubSubSession::handleNodeDeletation(const std::string& id, const gloox::JID& service,
                                         const std::string& node, const gloox::Error* error) {
    setPingTimer();
    if (const auto waiting = m_msgMap.extract(id)) {
        respond({}, waiting.mapped().get(), resultReply({}, "node", node, node, service, error), id,
                kCreateRespondFailed);
    } else if (const auto endpoint = m_endpointMap.extract(id)) {
        const _endpointStruct& request = endpoint.mapped();
        const JsonRef reply = error ? endpointNotDeleted(request, serverWords({}, node, service, *error).text)
                                    : endpointDeleted(*this, request);
        respond({}, request.message.get(), reply, id, kDeleteRespondFailed);
    }
}

// Nothing here asks for a purge; whoever comes to do so finds its result on standard output.
void PubSubSession::handleNodePurge(const std::string&, const gloox::JID& service, const std::string& node,
                                    const gloox::Error* error) {
    if (error) {
        printerror(error);
        std::printf("Node %s error:  from %s\n", node.c_str(), service.full().c_str());
        return;
    }
    std::printf("Purged node %s in %s Yay! \n", node.c_str(), service.full().c_str());
}
