// SPDX-License-Identifier: GPL-3.0-only
// Endpoints of applications: creating and deleting their nodes, and the keys that others publish with.
//
// Requests wait for the server in PubSubSession::m_endpointMap, which a disconnect answers and empties. A
// created node enters the delete store, which survives a restart.
#include <gloox/error.h>

#include "endpoints/methods.h"
#include "request/names.h"
#include "request/publicrequest.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/log.h"
#include "xmpp/manager.h"

namespace {

constexpr std::size_t kDescriptionLength = 49;
constexpr int32_t kAccessAuthorize = 2;
constexpr char kTooMany[] = "Too many endpoints, the limit is 1000. Call deleteEndpoint first";
constexpr char kNotInitialized[] = "pubsubservice library is not initialized";

// Sends the operation's key or the server's refusal to the caller. `logged` names the node in the log.
JsonRef keyReply(const _endpointStruct& request, const std::string& key, const gloox::JID& service,
                 const gloox::Error* error, const std::string& logged, CallSite site = {}) {
    JsonRef reply = endpointReply(!error, request.endpoint);
    if (!error) {
        addMember(reply, "publishKey", key);
        return reply;
    }
    PrvPrintErr(site, "Node %s error:  from %s", logged.c_str(), service.full().c_str());
    printerror(error, site);
    std::string ignored;
    std::string text;
    getErrorCode(error, ignored, text);
    addMember(reply, "errorCode", "xmppErr");
    addMember(reply, "errorText", text);
    return reply;
}

// One more creation under way for the application, until the last copy of this goes.
std::shared_ptr<void> creationOf(const std::string& appId) {
    std::weak_ptr<void>& creating = gCurrentSession.m_creating[appId];
    std::shared_ptr<void> held = creating.lock();
    if (!held)
        creating = held = std::make_shared<bool>(true);
    return held;
}

}  // namespace

bool createEndpoint(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    PublicRequest request(handle, message);
    if (!request.readEndpoint(true))
        return request.refuse();
    const std::string description = getJSONString(request.object(), "description", {});
    if (description.size() > kDescriptionLength) {
        PrvPrintErr({}, "desc. too long");
        request.fail("parameterErr", "description too long");
        return request.refuse();
    }
    int32_t accessType = 0;
    std::string ignored;
    getJSONInt(request.object(), "accessType", ignored, accessType);
    if (!request.formNode())
        return request.refuse();
    bool known = false;
    if (!session.mayOwnNode(request.node, request.appId, &known)) {
        request.fail("appErr", kTooMany);
        return request.refuse();
    }
    const auto access =
        accessType == kAccessAuthorize ? gloox::PubSub::AccessAuthorize : gloox::PubSub::AccessWhitelist;
    const std::string id =
        session.m_pubsub->createKeyNode(gloox::PubSub::NodeLeaf, gloox::JID(session.m_pubsubService),
                                        request.node, &session, description, "", access, nullptr);
    if (id.empty()) {
        request.fail("libErr", kNotInitialized);
        return request.refuse();
    }
    session.setEndpointMap(id, message, request.endpoint, request.node, request.appId);
    if (!known)
        session.m_endpointMap[id].creation = creationOf(request.appId);
    return true;
}

bool deleteEndpoint(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    PublicRequest request(handle, message);
    if (!request.readEndpoint(true) || !request.formNode())
        return request.refuse();
    const std::string id =
        session.m_pubsub->deleteNode(gloox::JID(session.m_pubsubService), request.node, &session);
    if (id.empty()) {
        request.fail("libErr", "gloox library is not initialized");
        return request.refuse();
    }
    removeSeqNo(request.node, session);
    session.setEndpointMap(id, message, request.endpoint, request.node, request.appId);
    return true;
}

bool getPublishKey(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    PublicRequest request(handle, message);
    if (!request.readEndpoint(true) || !request.formNode())
        return request.refuse();
    const std::string id =
        session.m_pubsub->getKey(gloox::JID(session.m_pubsubService), request.node, &session);
    if (id.empty()) {
        request.fail("libErr", kNotInitialized);
        return request.refuse();
    }
    session.setEndpointMap(id, message, request.endpoint, "", "");
    return true;
}

void PubSubSession::setEndpointMap(const std::string& id, QSMessage* message, const std::string& endpoint,
                                   const std::string& node, const std::string& appId) {
    m_endpointMap[id] = {endpoint, appId, node, KeptMessage(message)};
}

void PubSubSession::removeFromEndointMap(const std::string& id) {
    if (m_endpointMap.erase(id) == 0)
        PrvPrintErr({}, "Did not find %s in endpoint map", id.c_str());
}

void PubSubSession::handleCreateKey(const std::string& id, const gloox::JID& service, const std::string& key,
                                    const std::string& status, const gloox::Error* error) {
    setPingTimer();
    const auto found = m_endpointMap.find(id);
    if (found == m_endpointMap.end()) {
        PrvPrintErr({}, "We got a create key with no endpointmap %s", id.c_str());
        return;
    }
    const _endpointStruct request = found->second;
    if (!error)
        addNodeToDeleteStore(request.node, request.appId);
    const JsonRef reply = keyReply(request, key, service, error, request.node);
    if (!error && !status.empty())
        addMember(reply, "status", status);
    removeFromEndointMap(id);
    BusError busError;
    if (!QSMessageRespond(request.message.get(), json_object_to_json_string(reply.get()), busError))
        PrvPrintErr({}, "Sending response to client failed id %s Error %s ", id.c_str(), busError.message());
}

void PubSubSession::handleGetKey(const std::string& id, const gloox::JID& service, const std::string& key,
                                 const gloox::Error* error) {
    handleKeyCb(id, service, key, error, "handlegetkey", false);
}

void PubSubSession::handleKeyCb(const std::string& id, const gloox::JID& service, const std::string& key,
                                const gloox::Error* error, const std::string& what, bool) {
    const auto found = m_endpointMap.find(id);
    if (found == m_endpointMap.end()) {
        PrvPrintErr({}, "We got a get key with no endpointmap %s", id.c_str());
        return;
    }
    const _endpointStruct request = found->second;
    // The request keeps no node, so the log names the endpoint.
    const JsonRef reply = keyReply(request, key, service, error, request.endpoint);
    removeFromEndointMap(id);
    BusError busError;
    if (!QSMessageRespond(request.message.get(), json_object_to_json_string(reply.get()), busError))
        PrvPrintErr({}, "Sending response to %s key failed id %s Error %s ", what.c_str(), id.c_str(),
                    busError.message());
}
