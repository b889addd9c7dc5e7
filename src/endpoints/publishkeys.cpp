// SPDX-License-Identifier: GPL-3.0-only
// createEndpoint, deleteEndpoint and getPublishKey: nodes of applications, and the keys that
// others publish with.
//
// Requests wait for the server in PubSubSession::m_endpointMap; a disconnect answers and removes them. A
// created node is entered in the deletion store, which survives a restart.
#include <gloox/error.h>
#include <gloox/tag.h>

#include <memory>

#include "endpoints/methods.h"
#include "endpoints/pushendpoint.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "xmpp/manager.h"

namespace {

constexpr std::size_t kDescriptionLength = 49;
constexpr int32_t kAccessAuthorize = 2;
constexpr char kTooMany[] = "Too many endpoints, the limit is 1000. Call deleteEndpoint first";
constexpr char kWrongWebPush[] = "webPush takes true or false";
constexpr char kWrongVapid[] =
    "vapid takes the sender's public key: a P-256 point, uncompressed, in 87 characters of base64url";
constexpr std::size_t kVapidLength = 87;  // 65 bytes
constexpr char kBase64Url[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr char kCreateFailed[] = "Sending response to client failed id %s Error %s ";

// Begins with the byte 4, which says that the point is not compressed.
bool isVapidKey(const std::string& key) {
    return key.size() == kVapidLength && key.find_first_not_of(kBase64Url) == std::string::npos &&
           key[0] == 'B' && key[1] >= 'A' && key[1] <= 'P';
}

bool readWebPush(Request& request, xmpp::WebPush& webPush) {
    json_object* wanted = jsonMember(request.json(), "webPush");
    json_object* vapid = jsonMember(request.json(), "vapid");
    if (wanted && !json_object_is_type(wanted, json_type_boolean))
        return request.fail(kWrongWebPush);
    webPush.wanted = wanted && json_object_get_boolean(wanted);
    if (!vapid)
        return true;
    if (json_object_is_type(vapid, json_type_string))
        webPush.vapid = json_object_get_string(vapid);
    return isVapidKey(webPush.vapid) || request.fail(kWrongVapid);
}

// Whether the caller knows of web push, so that the answer may say more.
bool asksForWebPush(const _endpointStruct& request) {
    const JsonRef payload = parseJson(QSMessageGetPayload(request.message.get()));
    return jsonMember(payload.get(), "webPush") || jsonMember(payload.get(), "vapid");
}

bool wantsWebPush(const _endpointStruct& request) {
    return boolMember(parseJson(QSMessageGetPayload(request.message.get())).get(), "webPush");
}

// What the server says beside the condition, for instance how the endpoint differs.
std::string adviceOf(const gloox::Error& error) {
    const std::unique_ptr<gloox::Tag> element(error.tag());
    const gloox::Tag* text = element ? element->findChild("text") : nullptr;
    return text && !text->cdata().empty() ? ": " + text->cdata() : std::string();
}

// The publish key or the server's error, logged for `logged`.
Reply keyReply(const _endpointStruct& request, const std::string& key, const gloox::JID& service,
               const gloox::Error* error, const std::string& logged, CallSite site = {}) {
    Reply reply = endpointReply(!error, request.endpoint);
    if (!error) {
        reply.set("publishKey", key);
        return reply;
    }
    std::string text = serverError(*error, logged, service, site).text;
    if (asksForWebPush(request))
        text += adviceOf(*error);
    reply.addError({kServerRefused, text});
    return reply;
}

void addUrl(Reply& reply, const _endpointStruct& request, const std::string& url) {
    if (!url.empty() && asksForWebPush(request))
        reply.set("url", url);
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
    xmpp::WebPush webPush;
    if (!readWebPush(request, webPush) || !request.formNode())
        return request.refuse();
    bool known = false;
    if (!session.mayOwnNode(request.node, request.appId, &known))
        return request.refuse("appErr", kTooMany);
    if (webPush.wanted && lacksExtension(session)) {
        createAtProvider(session, {request.endpoint, request.appId, request.node, KeptMessage(message)});
        return true;
    }
    const auto access =
        accessType == kAccessAuthorize ? gloox::PubSub::AccessAuthorize : gloox::PubSub::AccessWhitelist;
    const std::string id =
        session.m_pubsub->createKeyNode(gloox::PubSub::NodeLeaf, gloox::JID(session.m_pubsubService),
                                        request.node, &session, description, "", access, nullptr, webPush);
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
    if (session.isPushNode(request.node))
        return deletePushEndpoint(session, request);
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
                                    const std::string& url, const std::string& status,
                                    const gloox::Error* error) {
    setPingTimer();
    auto request = takeEndpointRequest(id);
    if (!request) {
        PrvPrintErr({}, "We got a create key with no endpointmap %s", id.c_str());
        return;
    }
    if (!error) {
        forgetPush(request->node);  // the server has got the extension
        addNodeToDeleteStore(request->node, request->appId);
        joinReceiver(request->node, request->appId);
    }
    Reply reply = keyReply(*request, key, service, error, request->node);
    if (!error && !status.empty())
        reply.set("status", status);
    addUrl(reply, *request, url);
    if (error && wantsWebPush(*request) && mayLackExtension(*this, *error))
        return waitForBackend(*this, id, std::move(*request), reply.text());
    reply.respond(request->message.get(), id, kCreateFailed);
}

void PubSubSession::handleGetKey(const std::string& id, const gloox::JID& service, const std::string& key,
                                 const std::string& url, const gloox::Error* error) {
    handleKeyCb(id, service, key, url, error, "handlegetkey");
}

void PubSubSession::handleKeyCb(const std::string& id, const gloox::JID& service, const std::string& key,
                                const std::string& url, const gloox::Error* error, const std::string& what) {
    const auto request = takeEndpointRequest(id);
    if (!request) {
        PrvPrintErr({}, "We got a get key with no endpointmap %s", id.c_str());
        return;
    }
    // The request has no node name, so the log has the endpoint.
    const std::string failed = "Sending response to " + what + " key failed id %s Error %s ";
    Reply reply = keyReply(*request, key, service, error, request->endpoint);
    addUrl(reply, *request, url);
    reply.respond(request->message.get(), id, failed.c_str());
}
