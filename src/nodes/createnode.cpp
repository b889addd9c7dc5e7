// SPDX-License-Identifier: GPL-3.0-only
// createNode: from the bus request to the server and back.
//
// The waiting request stands in m_msgMap under the id that the manager gave. The result handler also finishes
// public endpoint requests, which wait in m_endpointMap.
#include <gloox/error.h>

#include "nodes/methods.h"
#include "request/roads.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "xmpp/manager.h"

namespace {

// Reads an optional member that may be 1 or 2; absent counts as 1.
bool readOneOrTwo(json_object* payload, const char* key, int& value) {
    json_object* member = jsonMember(payload, key);
    value = member ? json_object_get_int(member) : 1;
    return value == 1 || value == 2;
}

}  // namespace

bool createNode(QSHandle* handle, QSMessage* message, void*) {
    using namespace gloox::PubSub;
    PubSubSession& session = gCurrentSession;
    FailureWords words;
    std::string node;
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!checkRequest({}, session, payload.get(), words))
        return refuseNode(handle, message, words, node);

    int nodeType = 0;
    if (!readOneOrTwo(payload.get(), "nodeType", nodeType)) {
        words.text = "NodeType should be 1 or 2";
        return refuseNode(handle, message, words, node);
    }
    node = getJSONString(payload.get(), "node", words.text);
    if (node.empty())
        return refuseNode(handle, message, words, node);
    const std::string parent = getJSONString(payload.get(), "parent", words.text);
    const std::string title = getJSONString(payload.get(), "title", words.text);
    int accessType = 0;
    if (!readOneOrTwo(payload.get(), "accessType", accessType)) {
        words.text = "Access Type should be 1 or 2";
        return refuseNode(handle, message, words, node);
    }

    const std::string id = session.m_pubsub->createNode(
        nodeType == 2 ? NodeCollection : NodeLeaf, gloox::JID(session.m_pubsubService), node, &session, title,
        parent, accessType == 2 ? AccessAuthorize : AccessOpen, nullptr);
    if (!keepRequest(session, id, message, words))
        return refuseNode(handle, message, words, node);
    return true;
}

void PubSubSession::handleNodeCreation(const std::string& id, const gloox::JID& service,
                                       const std::string& node, const gloox::Error* error) {
    setPingTimer();
    if (const auto waiting = m_msgMap.extract(id)) {
        respond({}, waiting.mapped().get(), resultReply({}, "node", node, node, service, error), id,
                kCreateRespondFailed);
    } else if (const auto endpoint = m_endpointMap.extract(id)) {
        const _endpointStruct& request = endpoint.mapped();
        respond({}, request.message.get(),
                resultReply({}, "endpoint", request.endpoint, node, service, error), id,
                kCreateRespondFailed);
    }
}
