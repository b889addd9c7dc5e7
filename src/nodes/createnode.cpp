// SPDX-License-Identifier: GPL-3.0-only
// createNode: from the bus request to the server and back.
//
// The waiting request is in m_msgMap under the manager's request id. The result handler also answers public
// requests, which wait in m_endpointMap.
#include <gloox/error.h>

#include "nodes/methods.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "xmpp/manager.h"

namespace {

// Reads an optional member that is 1 or 2; the default is 1.
bool readOneOrTwo(const Request& request, const char* key, int& value) {
    json_object* member = jsonMember(request.json(), key);
    value = member ? json_object_get_int(member) : 1;
    return value == 1 || value == 2;
}

}  // namespace

bool createNode(QSHandle* handle, QSMessage* message, void*) {
    using namespace gloox::PubSub;
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kNodeRefusal);
    int nodeType = 0, accessType = 0;
    if (!request.hasService() || !request.isConnected() || !request.hasJson())
        return request.refuse();
    if (!readOneOrTwo(request, "nodeType", nodeType))
        return request.refuse("NodeType should be 1 or 2");
    if (!request.readNode())
        return request.refuse();
    if (!readOneOrTwo(request, "accessType", accessType))
        return request.refuse("Access Type should be 1 or 2");
    return request.waitFor(session.m_pubsub->createNode(
        nodeType == 2 ? NodeCollection : NodeLeaf, gloox::JID(session.m_pubsubService), request.node,
        &session, request.text("title"), request.text("parent"),
        accessType == 2 ? AccessAuthorize : AccessOpen, nullptr));
}

void PubSubSession::handleNodeCreation(const std::string& id, const gloox::JID& service,
                                       const std::string& node, const gloox::Error* error) {
    setPingTimer();
    if (const auto waiting = takeRequest(id))
        resultReply("node", node, node, service, error).respond(waiting.get(), id, kCreateRespondFailed);
    else if (const auto request = takeEndpointRequest(id))
        resultReply("endpoint", request->endpoint, node, service, error)
            .respond(request->message.get(), id, kCreateRespondFailed);
}
