// SPDX-License-Identifier: GPL-3.0-only
// registerItemCallback, registerItemCallbackV2 and unRegisterItemCallback: which services get a node's items.
//
// A registration is a pair of node and endpoint in serviceNodeMap and a record in the handler file. It lasts,
// over restarts, until it is unregistered.
#include "delivery/methods.h"
#include "request/request.h"
#include "session/pubsubsession.h"

namespace {

// Names of version 2: the node becomes the account's own node under "/com/zelt/", in the record too.
bool requireOwnNames(Request& request) {
    const PubSubSession& session = gCurrentSession;
    if (!request.requireNode() || !request.requireEndpoint())
        return false;
    if (session.m_username.empty() || session.m_resource.empty())
        return request.fail("libErr", "Library not initialized");
    request.node = "/" + session.m_username + "/" + session.m_resource + "/com/zelt/" + request.node;
    json_object_object_add(request.json(), "node", json_object_new_string(request.node.c_str()));
    return true;
}

// True when the pair is registered and its record is in the file. If writing the record fails, the pair stays
// registered until the next start.
bool addRegistration(const Request& request, const char* record) {
    bool alreadyPresent = false;
    if (!gCurrentSession.addNodeToMap(request.node, request.endpoint, false, alreadyPresent))
        return false;
    return alreadyPresent || gCurrentSession.UpdateHandlerFile(record, true);
}

}  // namespace

bool registerItemCallback(QSHandle* handle, QSMessage* message, void*) {
    Request request(handle, message, kRegistrationRefusal);
    if (!request.hasJson() || !request.readNode() || !request.readEndpoint())
        return request.refuse();
    return request.reply(Reply(addRegistration(request, QSMessageGetPayload(message))));
}

bool registerItemCallbackV2(QSHandle* handle, QSMessage* message, void*) {
    Request request(handle, message, kRegistrationRefusal);
    if (!request.hasJson() || !requireOwnNames(request))
        return request.refuse();
    return request.reply(Reply(addRegistration(request, json_object_to_json_string(request.json()))));
}

bool unRegisterItemCallback(QSHandle* handle, QSMessage* message, void*) {
    Request request(handle, message, kPlainRefusal);
    bool app = false;
    if (!request.hasJson() || !request.readNode() || !request.readEndpoint())
        return request.refuse();
    if (!request.requireBoolean("app", app))
        return request.refuse();
    if (gCurrentSession.removeNodeFromMap(request.node, request.endpoint, app))
        gCurrentSession.UpdateHandlerFile("", false);
    return request.reply(Reply(true));
}
