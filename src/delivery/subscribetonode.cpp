// SPDX-License-Identifier: GPL-3.0-only
// subscribeToNode: from the bus request to the server and back.
//
// The waiting request is in m_msgMap under the manager's request id. This does not decide who receives the
// node's items on this device.
#include <gloox/error.h>

#include "delivery/methods.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "xmpp/manager.h"

namespace {

constexpr char kRespondFailed[] = "Sending response to handleSubscriptionResult failed id %s Error %s ";

int depthOf(json_object* payload) {
    json_object* depth = jsonMember(payload, "depth");
    return depth ? json_object_get_int(depth) : 1;
}

}  // namespace

// The member "device" is accepted and ignored. "jid" is the subscriber; the default is the session's account.
bool subscribeToNode(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kSubscriptionRefusal);
    if (!request.hasJson() || !request.readNode())
        return request.refuse();
    const std::string jid = request.text("jid");
    const gloox::JID subscriber = jid.empty() ? session.m_jid : gloox::JID(jid);
    if (!jid.empty() && !subscriber)
        return request.refuse();
    // sic: accepted without a connection. The request waits for the stream when there is a client; without a
    // client the refusal names the library.
    return request.waitFor(session.m_pubsub
                               ? session.m_pubsub->subscribe(
                                     gloox::JID(session.m_pubsubService), request.node, &session, subscriber,
                                     gloox::PubSub::SubscriptionNodes, depthOf(request.json()))
                               : "");
}

void PubSubSession::handleSubscriptionResult(const std::string& id, const gloox::JID& service,
                                             const std::string& node, const std::string& subid,
                                             const gloox::JID&, gloox::PubSub::SubscriptionType type,
                                             const gloox::Error* error) {
    setPingTimer();
    const auto waiting = takeRequest(id);
    Reply reply = resultReply("node", node, node, service, error);
    if (!error)
        reply.set("subid", subid).set("type", type);
    // Without a waiting request sending fails and is logged.
    reply.respond(waiting.get(), id, kRespondFailed);
}
