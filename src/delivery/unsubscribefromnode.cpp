// SPDX-License-Identifier: GPL-3.0-only
// unsubscribeFromNode: from the bus request to the server and back.
//
// The waiting request stands in m_msgMap under the id that the manager gave.
#include <gloox/error.h>

#include "delivery/methods.h"
#include "request/names.h"
#include "request/requestframe.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"
#include "xmpp/manager.h"

namespace {

bool refuse(QSHandle* handle, QSMessage* message, const std::string& errorCode, const std::string& errorText,
            const std::string& node) {
    json_object* context = json_object_new_object();
    json_object_object_add(context, "node", json_object_new_string(node.c_str()));
    HandleError(handle, message, errorCode, errorText, context);
    return true;
}

}  // namespace

bool unsubscribeFromNode(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    std::string errorCode = "errBadArgument";
    std::string errorText = "Bad Argument";
    std::string node;
    if (!session.m_pubsub) {
        PrvPrintErr({}, "PubSub manager not intialized");  // sic: spelled so
        return refuse(handle, message, "libErr", "Service not initialized", node);
    }
    if (!session.m_connected)
        return refuse(handle, message, "connectionErr", "Not connected to xmpp server", node);
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!payload) {
        PrvPrintErr({}, "Malformed json packet? \n");
        return refuse(handle, message, errorCode, "Malformed json", node);
    }
    node = getJSONString(payload.get(), "node", errorText);
    const std::string jid = getJSONString(payload.get(), "jid", errorText);
    const std::string subid = getJSONString(payload.get(), "subid", errorText);
    const gloox::JID subscriber(jid);
    if (node.empty() || !subscriber || subid.empty())
        return refuse(handle, message, errorCode, errorText, node);

    const std::string id =
        session.m_pubsub->unsubscribe(gloox::JID(session.m_pubsubService), node, &session, subid, subscriber);
    if (id.empty())
        return refuse(handle, message, "libErr", "gloox library is not initialized", node);
    session.m_msgMap[id] = KeptMessage(message);
    return true;
}

void PubSubSession::handleUnsubscriptionResult(const std::string& id, const gloox::JID& service,
                                               const std::string& node, const std::string&, const gloox::JID&,
                                               const gloox::Error* error) {
    setPingTimer();
    const auto waiting = m_msgMap.extract(id);
    JsonRef reply(json_object_new_object());
    json_object_object_add(reply.get(), "returnValue", json_object_new_boolean(!error));
    json_object_object_add(reply.get(), "node", json_object_new_string(node.c_str()));
    if (error) {
        PrvPrintErr({}, "Unsubscribe %s error:  from %s", node.c_str(), service.full().c_str());
        printerror(error);
        std::string errorCode;
        std::string errorText;
        getErrorCode(error, errorCode, errorText);
        json_object_object_add(reply.get(), "errorCode", json_object_new_string(errorCode.c_str()));
        json_object_object_add(reply.get(), "errorText", json_object_new_string(errorText.c_str()));
    }
    // Without a waiting request the answer fails like any other and is logged.
    BusError busError;
    if (!QSMessageRespond(waiting ? waiting.mapped().get() : nullptr, json_object_to_json_string(reply.get()),
                          busError))
        PrvPrintErr({},
                    "Sending response to delete Node failed id %s Error %s ",  // sic: copied text
                    id.c_str(), busError.message());
}
