// SPDX-License-Identifier: GPL-3.0-only
// The shared steps of the public methods; keeps no state.
#include "request/publicrequest.h"

#include "request/names.h"
#include "request/requestframe.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/log.h"

namespace {

constexpr std::size_t kLongestEcho = 4 * 1024;

// The bytes of a character in the text of a JSON string.
std::size_t lengthInJson(char character) {
    if (static_cast<unsigned char>(character) < 0x20)
        return 6;
    return character == '/' || character == '\\' || character == '"' ? 2 : 1;
}

bool continuesACharacter(char character) {
    return (static_cast<unsigned char>(character) & 0xc0) == 0x80;
}

// What a refusal says back. A short request can name an endpoint that is six times as long in JSON; no
// endpoint that could exist is as long as the bound.
std::string echoOf(const std::string& endpoint) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < endpoint.size(); ++i) {
        length += lengthInJson(endpoint[i]);
        if (length <= kLongestEcho)
            continue;
        while (i > 0 && continuesACharacter(endpoint[i]))
            --i;
        return endpoint.substr(0, i);
    }
    return endpoint;
}

}  // namespace

PublicRequest::PublicRequest(QSHandle* busHandle, QSMessage* request)
    : handle(busHandle),
      message(request),
      m_payload(parseJson(QSMessageGetPayload(request))),
      m_object(m_payload.get()) {}

bool PublicRequest::readEndpoint(bool needConnected) {
    return checkInit(m_object, gCurrentSession, m_errorCode, m_errorText, needConnected) &&
           getJSONStringV2(m_object, "endpoint", m_errorText, endpoint);
}

bool PublicRequest::formNode() {
    const char* caller = QSMessageGetApplicationID(message);
    appId = caller ? caller : "";
    if (getNodeName(endpoint, node, gCurrentSession, appId, m_errorText))
        return true;
    m_errorCode = "libErr";
    return false;
}

bool PublicRequest::fail(const char* code, const char* text) {
    m_errorCode = code;
    m_errorText = text;
    return false;
}

bool PublicRequest::refuse(CallSite site) {
    PrvPrintErr(site, "Error %s, Incoming %s", m_errorText.c_str(), QSMessageGetPayload(message));
    JsonRef context(json_object_new_object());
    addMember(context, "endpoint", echoOf(endpoint));
    HandleError(handle, message, m_errorCode, m_errorText, context.release());
    return true;
}

bool PublicRequest::refuseWrite(CallSite site) {
    fail("appErr", "Too many changes of on-close notices wait, the limit is 1024. Wait for their answers");
    return refuse(site);
}

void addMember(const JsonRef& object, const char* key, const std::string& text) {
    json_object_object_add(object.get(), key, json_object_new_string(text.c_str()));
}

JsonRef endpointReply(bool success, const std::string& endpoint) {
    JsonRef reply(json_object_new_object());
    json_object_object_add(reply.get(), "returnValue", json_object_new_boolean(success));
    addMember(reply, "endpoint", endpoint);
    return reply;
}
