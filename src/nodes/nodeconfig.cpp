// SPDX-License-Identifier: GPL-3.0-only
// setNodeConfig and getNodeConfig: store and read the configuration of a node.
//
// Waiting requests are in m_msgMap under the manager's request ids. A request to read N nodes is there N
// times and is answered N times, in the server's order.
#include <gloox/dataform.h>
#include <gloox/error.h>

#include <memory>

#include "nodes/methods.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "xmpp/manager.h"

namespace {

constexpr char kNodeConfigForm[] =
    "http://jabber.org/protocol/pubsub#node_config";  // XEP-0060 section 16.4.4
constexpr char kAccessModel[] = "pubsub#access_model";

std::unique_ptr<gloox::DataForm> configForm(json_object* options) {
    auto form = std::make_unique<gloox::DataForm>(gloox::TypeSubmit);
    form->addField(gloox::DataFormField::TypeHidden, "FORM_TYPE", kNodeConfigForm);
    if (!json_object_is_type(options, json_type_object))
        return form;
    json_object_object_foreach(options, name, option) {
        // sic: JSON text without its double quotes, so json-c's escapes and spacing reach the server
        std::string value = json_object_to_json_string(option);
        removeQuotes(value);
        form->addField(gloox::DataFormField::TypeNone, name, value);
    }
    return form;
}

}  // namespace

bool setNodeConfig(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kNodeRefusal);
    if (!request.hasService() || !request.isConnected() || !request.hasJson())
        return request.refuse();
    if (!request.readNode())
        return request.refuse();
    json_object* options = jsonMember(request.json(), "options");
    if (!options)
        return request.refuse("No options provided");
    return request.waitFor(session.m_pubsub->nodeConfig(gloox::JID(session.m_pubsubService), request.node,
                                                        configForm(options).release(), &session));
}

bool getNodeConfig(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kQuotedRefusal);
    std::list<std::string> nodes;
    if (!request.hasService() || !request.isConnected() || !request.hasJson())
        return request.refuse();
    if (!request.readNodes(nodes))
        return request.refuse();
    for (const std::string& node : nodes) {
        const std::string id =
            session.m_pubsub->nodeConfig(gloox::JID(session.m_pubsubService), node, nullptr, &session);
        // The nodes requested before this one are answered as well.
        if (!request.wasSent(id))
            return request.refuse();
        session.keepRequest(id, message);
    }
    return true;
}

void PubSubSession::handleNodeConfig(const std::string& id, const gloox::JID& service,
                                     const std::string& node, const gloox::DataForm* config,
                                     const gloox::Error* error) {
    setPingTimer();
    const auto waiting = takeRequest(id);
    if (!waiting)
        return;
    Reply reply = resultReply("node", node, node, service, error);
    if (const auto* access = config && !error ? config->field(kAccessModel) : nullptr)
        reply.set("options", JsonObject().set(kAccessModel, access->value()).release());
    reply.respond(waiting.get(), id, kCreateRespondFailed);
}

void PubSubSession::handleNodeConfigResult(const std::string& id, const gloox::JID& service,
                                           const std::string& node, const gloox::Error* error) {
    setPingTimer();
    if (const auto waiting = takeRequest(id))
        resultReply("node", node, node, service, error).respond(waiting.get(), id, kCreateRespondFailed);
}
