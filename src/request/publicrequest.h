// SPDX-License-Identifier: GPL-3.0-only
// One request of an application about one of its endpoints: the steps that all public methods share.
//
// Which steps a method takes, and in which order, stands in its handler; the first that fails leaves the
// words of the refusal.
#pragma once

#include <string>

#include "platform/bus/qs.h"
#include "util/jsonref.h"
#include "util/log.h"

class PublicRequest {
  public:
    PublicRequest(QSHandle* handle, QSMessage* message);

    // Readiness, payload and the member "endpoint", in this order.
    bool readEndpoint(bool needConnected);
    // The caller's application id, and the full node name of the endpoint.
    bool formNode();
    // Sets the words of a refusal and returns false.
    bool fail(const char* code, const char* text);
    // Logs under `function` and sends the error reply with the endpoint as read. True, the result of a bus
    // handler.
    bool refuse(CallSite site = {});
    // Refuses a change of on-close notices for which too many others wait.
    bool refuseWrite(CallSite site = {});

    json_object* object() const { return m_object; }

    QSHandle* handle;
    QSMessage* message;    // borrowed for the time of the call
    std::string endpoint;  // as the caller gave it
    std::string appId;     // cut at its first blank once the node is formed
    std::string node;      // full node name

  private:
    JsonRef m_payload;
    json_object* m_object;  // the payload, null when it is unusable
    std::string m_errorCode = "parameterErr";
    std::string m_errorText = "\"Bad Argument\"";  // sic: the quotes are part of the text
};

void addMember(const JsonRef& object, const char* key, const std::string& text);
// {"returnValue", "endpoint"}
JsonRef endpointReply(bool success, const std::string& endpoint);
