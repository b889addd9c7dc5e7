// SPDX-License-Identifier: GPL-3.0-only
// setNodeConfig and getNodeConfig: a node's configuration to the server and back.
//
// Waiting requests stand in m_msgMap under the ids that the manager gave. A request to read N nodes stands
// there N times and is answered N times, in the server's order.
#include <gloox/dataform.h>
#include <gloox/error.h>

#include <memory>

#include "nodes/methods.h"
#include "request/roads.h"
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
    FailureWords words;
    std::string node;
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!checkRequest({}, session, payload.get(), words))
        return refuseNode(handle, message, words, node);
    node = getJSONString(payload.get(), "node", words.text);
    if (node.empty())
        return refuseNode(handle, message, words, node);
    json_object* options = jsonMember(payload.get(), "options");
    if (!options) {
        words.text = "No options provided";
        return refuseNode(handle, message, words, node);
    }

    const std::string id = session.m_pubsub->nodeConfig(gloox::JID(session.m_pubsubService), node,
                                                        configForm(options).release(), &session);
    if (!keepRequest(session, id, message, words))
        return refuseNode(handle, message, words, node);
    return true;
}

bool getNodeConfig(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    FailureWords words;
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    if (!checkRequest({}, session, payload.get(), words))
        return refuse(handle, message, words);
    std::list<std::string> nodes;
    if (!readNodes({}, payload.get(), nodes, words))
        return refuse(handle, message, words);

    for (const std::string& node : nodes) {
        const std::string id =
            session.m_pubsub->nodeConfig(gloox::JID(session.m_pubsubService), node, nullptr, &session);
        // What was asked for before stays asked for and is answered as well.
        if (!keepRequest(session, id, message, words))
            return refuse(handle, message, words);
    }
    return true;
}

void PubSubSession::handleNodeConfig(const std::string& id, const gloox::JID& service,
                                     const std::string& node, const gloox::DataForm* config,
                                     const gloox::Error* error) {
    setPingTimer();
    const auto waiting = m_msgMap.extract(id);
    if (!waiting)
        return;
    const JsonRef reply = resultReply({}, "node", node, node, service, error);
    const gloox::DataFormField* access = config && !error ? config->field(kAccessModel) : nullptr;
    if (access) {
        JsonRef options(json_object_new_object());
        addText(options, kAccessModel, access->value());
        json_object_object_add(reply.get(), "options", options.release());
    }
    respond({}, waiting.mapped().get(), reply, id, kCreateRespondFailed);
}

void PubSubSession::handleNodeConfigResult(const std::string& id, const gloox::JID& service,
                                           const std::string& node, const gloox::Error* error) {
    setPingTimer();
    if (const auto waiting = m_msgMap.extract(id))
        respond({}, waiting.mapped().get(), resultReply({}, "node", node, node, service, error), id,
                kCreateRespondFailed);
}
