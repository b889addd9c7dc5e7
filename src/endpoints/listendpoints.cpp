// SPDX-License-Identifier: GPL-3.0-only
// listEndpoints: what an application has, who gets it, and what waits.
//
// The request waits for the server's counts in PubSubSession::m_endpointMap; without them it is answered all
// the same.
#include <gloox/error.h>
#include <gloox/gloox.h>

#include "endpoints/methods.h"
#include "request/names.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "xmpp/manager.h"

namespace {

constexpr char kListFailed[] = "Sending response to listEndpoints failed id %s Error %s ";

void setCount(JsonObject& object, const std::map<std::string, std::string>* counts, const std::string& node) {
    if (!counts)
        return;
    const auto count = counts->find(node);
    if (count != counts->end())
        object.set("waiting", static_cast<int64_t>(g_ascii_strtoll(count->second.c_str(), nullptr, 10)));
}

}  // namespace

bool listEndpoints(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kParameterRefusal);
    if (!request.isReady(false) || !request.formNode())
        return request.refuse();
    std::vector<std::string> nodes = session.ownedNodes(request.appId, request.node);
    std::erase_if(nodes, [&](const std::string& node) { return session.isPushNode(node); });
    const bool asks = session.m_connected && !nodes.empty();
    const std::string id =
        asks ? session.m_pubsub->waitingItems(session.pubsubService(),
                                              gloox::StringList(nodes.begin(), nodes.end()), &session)
             : "";
    if (!id.empty())
        return request.waitForEndpoint(id);
    session.answerEndpoints({"", request.appId, request.node, KeptMessage(message)}, nullptr);
    return true;
}

void PubSubSession::handleWaiting(const std::string& id, const gloox::JID&,
                                  const std::map<std::string, std::string>& counts,
                                  const gloox::Error* error) {
    printerror(error);
    if (const auto request = takeEndpointRequest(id))
        answerEndpoints(*request, &counts);
}

void PubSubSession::answerEndpoints(const _endpointStruct& request,
                                    const std::map<std::string, std::string>* counts) {
    JsonArray endpoints;
    for (const std::string& node : ownedNodes(request.appId, request.node)) {
        JsonObject endpoint;
        endpoint.set("endpoint", node.substr(request.node.size()))
            .set("receiver", receiverOf(node) != nullptr)
            .set("subscriber", subMap.contains(node));
        if (isPushNode(node))
            endpoint.set("waiting", 0);
        else
            setCount(endpoint, counts, node);
        endpoint.set("cached", isCached(node));
        endpoints.add(endpoint.release());
    }
    Reply reply(true);
    reply.set("endpoints", endpoints.release());
    reply.respond(request.message.get(), "", kListFailed);
}
