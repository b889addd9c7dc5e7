// SPDX-License-Identifier: GPL-3.0-only
// What a server offers besides the device extension, and the push protocol of a provider. Keeps no state beyond
// the manager's requests.
#include "xmpp/pushprovider.h"

#include <gloox/gloox.h>

#include "xmpp/forms.h"
#include "xmpp/manager.h"
#include "xmpp/xmltext.h"

namespace xmpp {
namespace {

const gloox::Tag* childIn(const gloox::Tag& parent, const std::string& name, const std::string& xmlns) {
    for (const gloox::Tag* child : parent.children())
        if (child->name() == name && child->xmlns() == xmlns)
            return child;
    return nullptr;
}

// One attribute of each such element of an answer's query.
gloox::StringList listed(const gloox::Tag& iq, const std::string& xmlns, const std::string& element,
                         const std::string& attribute) {
    gloox::StringList values;
    if (const gloox::Tag* query = childIn(iq, "query", xmlns))
        for (const gloox::Tag* child : query->children())
            if (child->name() == element && !child->findAttribute(attribute).empty())
                values.push_back(child->findAttribute(attribute));
    return values;
}

}  // namespace

std::optional<ReceivedPush> readPush(const gloox::Tag& stanza) {
    if (stanza.name() != "iq" || stanza.findAttribute("type") != "set")
        return std::nullopt;
    const gloox::Tag* push = childIn(stanza, "push", kPushXmlns);
    if (!push)
        return std::nullopt;
    return ReceivedPush{stanza.findAttribute("id"), stanza.findAttribute("from"),
                        push->findAttribute("application"), push->findAttribute("instance"), push->cdata()};
}

std::string Manager::askDisco(Operation operation, const char* xmlns, const gloox::JID& entity,
                              ResultHandler* handler) {
    const std::string id = nextId();
    StanzaWriter stanza = beginIq("get", entity, id);
    stanza.open("query", xmlns);
    return sendRequest({.operation = operation, .handler = handler, .service = entity}, id, stanza);
}

std::string Manager::askFeatures(const gloox::JID& entity, ResultHandler* handler) {
    return askDisco(Operation::Features, gloox::XMLNS_DISCO_INFO.c_str(), entity, handler);
}

std::string Manager::askParts(const gloox::JID& entity, ResultHandler* handler) {
    return askDisco(Operation::Parts, gloox::XMLNS_DISCO_ITEMS.c_str(), entity, handler);
}

std::string Manager::registerPush(const gloox::JID& provider, const std::string& application,
                                  const std::string& instance, ResultHandler* handler) {
    const std::string id = nextId();
    StanzaWriter stanza = beginIq("set", provider, id);
    stanza.open("register", kPushXmlns).attribute("application", application).attribute("instance", instance);
    return sendRequest({.operation = Operation::RegisterPush, .handler = handler, .service = provider}, id,
                       stanza);
}

void Manager::answerPush(const PushAnswer& answer) {
    StanzaWriter stanza;
    stanza.open("iq").foreignAttribute("to", answer.to).foreignAttribute("id", answer.id);
    stanza.attribute("type", answer.condition ? "error" : "result");
    if (answer.condition)
        stanza.open("error").attribute("type", answer.type).open(answer.condition, gloox::XMLNS_XMPP_STANZAS);
    sendMessage(gloox::JID(answer.to), answer.id, stanza);
}

void Manager::deliverPush(const Request& request, const std::string& id, const gloox::Tag& iq,
                          const gloox::Error* error) {
    ResultHandler& handler = *request.handler;
    if (request.operation == Operation::Features) {
        handler.handleFeatures(id, request.service, listed(iq, gloox::XMLNS_DISCO_INFO, "feature", "var"),
                               error);
    } else if (request.operation == Operation::Parts) {
        handler.handleParts(id, request.service, listed(iq, gloox::XMLNS_DISCO_ITEMS, "item", "jid"), error);
    } else {
        const gloox::Tag* registered = childIn(iq, "registered", kPushXmlns);
        handler.handlePushRegistration(id, request.service,
                                       registered ? registered->findAttribute("endpoint") : "",
                                       registered ? registered->findAttribute("expiration") : "", error);
    }
}

}  // namespace xmpp
