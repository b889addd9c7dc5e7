// SPDX-License-Identifier: GPL-3.0-only
// registerItemCallback, registerItemCallbackV2 and unRegisterItemCallback: which services get a node's items.
//
// A registration is a pair of node and endpoint in serviceNodeMap and a record in the handler file. It lasts,
// over restarts, until it is unregistered. With "confirm" the handler's answers acknowledge the items
// (delivery/confirm.cpp); a registration that is repeated decides anew whether they do.
#include "delivery/methods.h"
#include "request/request.h"
#include "session/pubsubsession.h"

namespace {

// Names of version 2: the node becomes the account's own node under "/com/zelt/", in the record too.
bool requireOwnNames(const PubSubSession& session, Request& request) {
    if (!request.requireNode() || !request.requireEndpoint())
        return false;
    if (session.m_username.empty() || session.m_resource.empty())
        return request.fail("libErr", "Library not initialized");
    request.node = "/" + session.m_username + "/" + session.m_resource + "/com/zelt/" + request.node;
    JsonObject(JsonRef(json_object_get(request.json()))).set("node", request.node);
    return true;
}

// True when the pair is registered and its record is in the file. If writing the record fails, the pair stays
// registered until the next start.
bool addRegistration(PubSubSession& session, const Request& request, const char* record) {
    bool alreadyPresent = false;
    session.addNodeToMap(request.node, request.endpoint, false, alreadyPresent);
    const bool confirm = boolMember(request.json(), "confirm");
    const bool changed = session.setConfirming(request.node, request.endpoint, confirm);
    bool saved = true;
    if (!alreadyPresent)
        saved = session.UpdateHandlerFile(record, true);
    else if (changed)
        saved = session.UpdateHandlerFile("", false);
    if (changed)
        session.handlersChanged(request.node);
    return saved;
}

}  // namespace

bool registerItemCallback(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kRegistrationRefusal);
    if (!request.hasJson() || !request.readNode() || !request.readEndpoint())
        return request.refuse();
    return request.reply(Reply(addRegistration(session, request, QSMessageGetPayload(message))));
}

bool registerItemCallbackV2(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kRegistrationRefusal);
    if (!request.hasJson() || !requireOwnNames(session, request))
        return request.refuse();
    return request.reply(
        Reply(addRegistration(session, request, json_object_to_json_string(request.json()))));
}

bool unRegisterItemCallback(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kPlainRefusal);
    bool app = false;
    if (!request.hasJson() || !request.readNode() || !request.readEndpoint())
        return request.refuse();
    if (!request.requireBoolean("app", app))
        return request.refuse();
    if (session.removeNodeFromMap(request.node, request.endpoint, app)) {
        session.UpdateHandlerFile("", false);
        session.handlersChanged(request.node);
    }
    return request.reply(Reply(true));
}
