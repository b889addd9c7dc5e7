// SPDX-License-Identifier: GPL-3.0-only
// registerItemCallback, its second version and unRegisterItemCallback: which services are called with a
// node's items.
//
// A registration is a pair of node and endpoint in serviceNodeMap and a record of the handler file. It
// outlives its caller and this process until it is unregistered.
#include "delivery/methods.h"
#include "request/requestframe.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace {

struct CallbackRequest {
    JsonRef payload;
    std::string node;
    std::string endpoint;
    std::string errorCode = "errBadArgument";
    std::string errorText = "Bad Argument";
};

bool parse(CallSite site, QSMessage* message, CallbackRequest& request) {
    request.payload = parseJson(QSMessageGetPayload(message));
    if (request.payload)
        return true;
    PrvPrintErr(site, "Malformed json packet? \n");
    request.errorText = "Malformed json";
    return false;
}

bool readNames(CallbackRequest& request) {
    request.node = getJSONString(request.payload.get(), "node", request.errorText);
    if (request.node.empty())
        return false;
    request.endpoint = getJSONString(request.payload.get(), "endpoint", request.errorText);
    return !request.endpoint.empty();
}

// The version-2 names: the node becomes the account's own node under "/com/zelt/".
bool readFullNames(const PubSubSession& session, CallbackRequest& request) {
    std::string node;
    if (!getJSONStringV2(request.payload.get(), "node", request.errorText, node) ||
        !getJSONStringV2(request.payload.get(), "endpoint", request.errorText, request.endpoint))
        return false;
    if (session.m_username.empty() || session.m_resource.empty()) {
        request.errorCode = "libErr";
        request.errorText = "Library not initialized";
        return false;
    }
    request.node = "/" + session.m_username + "/" + session.m_resource + "/com/zelt/" + node;
    json_object_object_add(request.payload.get(), "node", json_object_new_string(request.node.c_str()));
    return true;
}

bool reply(CallSite site, QSHandle* handle, QSMessage* message, bool success) {
    JsonRef object(json_object_new_object());
    json_object_object_add(object.get(), "returnValue", json_object_new_boolean(success));
    sendReply(handle, message, json_object_to_json_string(object.get()), site);
    return true;
}

bool refuse(QSHandle* handle, QSMessage* message, const CallbackRequest& request) {
    HandleError(handle, message, request.errorCode, request.errorText, nullptr);
    return true;
}

bool refuseRegistration(CallSite site, QSHandle* handle, QSMessage* message, const CallbackRequest& request) {
    PrvPrintErr(site, "Error %s, Incoming %s", request.errorText.c_str(), QSMessageGetPayload(message));
    return refuse(handle, message, request);
}

// Whether the pair is registered and its record is in the file. A record that could not be written leaves the
// pair registered until the next start.
bool addRegistration(PubSubSession& session, const CallbackRequest& request, const std::string& record) {
    bool alreadyPresent = false;
    if (!session.addNodeToMap(request.node, request.endpoint, false, alreadyPresent))
        return false;
    if (alreadyPresent)
        return true;
    return session.UpdateHandlerFile(record.c_str(), true);
}

}  // namespace

bool registerItemCallback(QSHandle* handle, QSMessage* message, void*) {
    CallbackRequest request;
    if (!parse({}, message, request) || !readNames(request))
        return refuseRegistration({}, handle, message, request);
    const bool done = addRegistration(gCurrentSession, request, QSMessageGetPayload(message));
    return reply({}, handle, message, done);
}

bool registerItemCallbackV2(QSHandle* handle, QSMessage* message, void*) {
    CallbackRequest request;
    if (!parse({}, message, request) || !readFullNames(gCurrentSession, request))
        return refuseRegistration({}, handle, message, request);
    const bool done =
        addRegistration(gCurrentSession, request, json_object_to_json_string(request.payload.get()));
    return reply({}, handle, message, done);
}

bool unRegisterItemCallback(QSHandle* handle, QSMessage* message, void*) {
    CallbackRequest request;
    bool app = false;
    if (!parse({}, message, request) || !readNames(request) ||
        !getJSONboolean(request.payload.get(), "app", request.errorText, app))
        return refuse(handle, message, request);
    if (gCurrentSession.removeNodeFromMap(request.node, request.endpoint, app))
        gCurrentSession.UpdateHandlerFile("", false);
    return reply({}, handle, message, true);
}
