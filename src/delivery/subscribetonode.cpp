// SPDX-License-Identifier: GPL-3.0-only
// subscribeToNode: from the bus request to the server and back.
//
// The waiting request stands in m_msgMap under the id that the manager gave. No registry of this service
// changes: who receives the node's items here is settled elsewhere.
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

int depthOf(json_object* payload) {
    json_object* depth = jsonMember(payload, "depth");
    return depth ? json_object_get_int(depth) : 1;
}

}  // namespace

// The member "device" is accepted and changes nothing: "jid" says who subscribes, and without it the session
// itself.
bool subscribeToNode(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    std::string errorCode = "errBadArgument";
    std::string errorText = "Bad Argument";
    std::string node;
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!payload) {
        PrvPrintErr({}, "Malformed json packet? \n");
        return refuse(handle, message, errorCode, "Malformed json", node);
    }
    node = getJSONString(payload.get(), "node", errorText);
    if (node.empty())
        return refuse(handle, message, errorCode, errorText, node);
    const std::string jid = getJSONString(payload.get(), "jid", errorText);
    const gloox::JID subscriber = jid.empty() ? session.m_jid : gloox::JID(jid);
    if (!jid.empty() && !subscriber)
        return refuse(handle, message, errorCode, errorText, node);

    // sic: no connection is no reason to refuse. The request waits for the stream when there is a client, and
    // when there is none, the words are those of the missing library.
    const std::string id =
        session.m_pubsub
            ? session.m_pubsub->subscribe(gloox::JID(session.m_pubsubService), node, &session, subscriber,
                                          gloox::PubSub::SubscriptionNodes, depthOf(payload.get()))
            : "";
    if (id.empty())
        return refuse(handle, message, "libErr", "gloox library is not initialized", node);
    session.m_msgMap[id] = KeptMessage(message);
    return true;
}

void PubSubSession::handleSubscriptionResult(const std::string& id, const gloox::JID& service,
                                             const std::string& node, const std::string& subid,
                                             const gloox::JID&, gloox::PubSub::SubscriptionType type,
                                             const gloox::Error* error) {
    setPingTimer();
    const auto waiting = m_msgMap.extract(id);
    JsonRef reply(json_object_new_object());
    json_object_object_add(reply.get(), "returnValue", json_object_new_boolean(!error));
    json_object_object_add(reply.get(), "node", json_object_new_string(node.c_str()));
    if (error) {
        PrvPrintErr({}, "Node %s error:  from %s", node.c_str(), service.full().c_str());
        printerror(error);
        std::string errorCode;
        std::string errorText;
        getErrorCode(error, errorCode, errorText);
        json_object_object_add(reply.get(), "errorCode", json_object_new_string(errorCode.c_str()));
        json_object_object_add(reply.get(), "errorText", json_object_new_string(errorText.c_str()));
    } else {
        json_object_object_add(reply.get(), "subid", json_object_new_string(subid.c_str()));
        json_object_object_add(reply.get(), "type", json_object_new_int(type));
    }
    // Without a waiting request the answer fails like any other and is logged.
    BusError busError;
    if (!QSMessageRespond(waiting ? waiting.mapped().get() : nullptr, json_object_to_json_string(reply.get()),
                          busError))
        PrvPrintErr({}, "Sending response to handleSubscriptionResult failed id %s Error %s ", id.c_str(),
                    busError.message());
}
