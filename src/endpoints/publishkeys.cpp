// SPDX-License-Identifier: GPL-3.0-only
// createEndpoint, deleteEndpoint and getPublishKey: nodes of applications, and the keys that
// others publish with.
//
// Requests wait for the server in PubSubSession::m_endpointMap; a disconnect answers and removes them. A
// created node is entered in the deletion store, which survives a restart.
#include <gloox/error.h>

#include "endpoints/methods.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "xmpp/manager.h"

namespace {

constexpr std::size_t kDescriptionLength = 49;
constexpr int32_t kAccessAuthorize = 2;
constexpr char kTooMany[] = "Too many endpoints, the limit is 1000. Call deleteEndpoint first";
constexpr char kCreateFailed[] = "Sending response to client failed id %s Error %s ";

// The publish key or the server's error, logged for `logged`.
Reply keyReply(const _endpointStruct& request, const std::string& key, const gloox::JID& service,
               const gloox::Error* error, const std::string& logged, CallSite site = {}) {
    Reply reply = endpointReply(!error, request.endpoint);
    if (error)
        reply.addError({kServerRefused, serverError(*error, logged, service, site).text});
    else
        reply.set("publishKey", key);
    return reply;
}

}  // namespace

bool createEndpoint(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kEndpointRefusal);
    if (!request.isReady(true) || !request.requireEndpoint())
        return request.refuse();
    const std::string description = request.text("description");
    if (description.size() > kDescriptionLength) {
        PrvPrintErr({}, "desc. too long");
        return request.refuse("parameterErr", "description too long");
    }
    int32_t accessType = 0;
    std::string ignored;
    getJSONInt(request.json(), "accessType", ignored, accessType);
    if (!request.formNode())
        return request.refuse();
    bool known = false;
    if (!session.mayOwnNode(request.node, request.appId, &known))
        return request.refuse("appErr", kTooMany);
    const auto access =
        accessType == kAccessAuthorize ? gloox::PubSub::AccessAuthorize : gloox::PubSub::AccessWhitelist;
    const std::string id =
        session.m_pubsub->createKeyNode(gloox::PubSub::NodeLeaf, gloox::JID(session.m_pubsubService),
                                        request.node, &session, description, "", access, nullptr);
    if (!request.wasSent(id, kLibraryNotInitialized))
        return request.refuse();
    request.waitForEndpoint(id);
    if (!known)
        session.countCreation(id, request.appId);
    return true;
}

bool deleteEndpoint(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kEndpointRefusal);
    if (!request.isReady(true) || !request.requireEndpoint() || !request.formNode())
        return request.refuse();
    const std::string id =
        session.m_pubsub->deleteNode(gloox::JID(session.m_pubsubService), request.node, &session);
    if (!request.wasSent(id))
        return request.refuse();
    removeSeqNo(request.node, session);
    return request.waitForEndpoint(id);
}

bool getPublishKey(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kEndpointRefusal);
    if (!request.isReady(true) || !request.requireEndpoint() || !request.formNode())
        return request.refuse();
    const std::string id =
        session.m_pubsub->getKey(gloox::JID(session.m_pubsubService), request.node, &session);
    if (!request.wasSent(id, kLibraryNotInitialized))
        return request.refuse();
    session.setEndpointMap(id, message, request.endpoint, "", "");
    return true;
}

void PubSubSession::handleCreateKey(const std::string& id, const gloox::JID& service, const std::string& key,
                                    const std::string& status, const gloox::Error* error) {
    setPingTimer();
    const auto request = takeEndpointRequest(id);
    if (!request) {
        PrvPrintErr({}, "We got a create key with no endpointmap %s", id.c_str());
        return;
    }
    if (!error) {
        addNodeToDeleteStore(request->node, request->appId);
        joinReceiver(request->node, request->appId);
    }
    Reply reply = keyReply(*request, key, service, error, request->node);
    if (!error && !status.empty())
        reply.set("status", status);
    reply.respond(request->message.get(), id, kCreateFailed);
}

void PubSubSession::handleGetKey(const std::string& id, const gloox::JID& service, const std::string& key,
                                 const gloox::Error* error) {
    handleKeyCb(id, service, key, error, "handlegetkey", false);
}

void PubSubSession::handleKeyCb(const std::string& id, const gloox::JID& service, const std::string& key,
                                const gloox::Error* error, const std::string& what, bool) {
    const auto request = takeEndpointRequest(id);
    if (!request) {
        PrvPrintErr({}, "We got a get key with no endpointmap %s", id.c_str());
        return;
    }
    // The request has no node name, so the log has the endpoint.
    const std::string failed = "Sending response to " + what + " key failed id %s Error %s ";
    keyReply(*request, key, service, error, request->endpoint)
        .respond(request->message.get(), id, failed.c_str());
}
