// SPDX-License-Identifier: GPL-3.0-only
// unsubscribeFromNode: from the bus request to the server and back.
//
// The waiting request is in m_msgMap under the manager's request id.
#include <gloox/error.h>

#include "delivery/methods.h"
#include "request/names.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "xmpp/manager.h"

namespace {

// sic: copied text
constexpr char kRespondFailed[] = "Sending response to delete Node failed id %s Error %s ";

}  // namespace

bool unsubscribeFromNode(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kSubscriptionRefusal);
    if (!request.hasManager() || !request.isConnected() || !request.hasJson())
        return request.refuse();
    const std::string subid = request.text("subid");
    const gloox::JID subscriber(request.text("jid"));
    if (!request.readNode() || !subscriber || subid.empty())
        return request.refuse();
    return request.waitFor(session.m_pubsub->unsubscribe(gloox::JID(session.m_pubsubService), request.node,
                                                         &session, subid, subscriber));
}

void PubSubSession::handleUnsubscriptionResult(const std::string& id, const gloox::JID& service,
                                               const std::string& node, const std::string&, const gloox::JID&,
                                               const gloox::Error* error) {
    setPingTimer();
    const auto waiting = takeRequest(id);
    Reply reply(!error);
    reply.set("node", node);
    if (error) {
        PrvPrintErr({}, "Unsubscribe %s error:  from %s", node.c_str(), service.full().c_str());
        printerror(error);
        reply.addError(errorOf(error));
    }
    // Without a waiting request sending fails and is logged.
    reply.respond(waiting.get(), id, kRespondFailed);
}
