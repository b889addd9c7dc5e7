// SPDX-License-Identifier: GPL-3.0-only
// Operations on many nodes. A long list is sent in several stanzas; handleBulkAnswer (answers.cpp) collects the
// answers and gives them to the result handler as one.
#include <utility>

#include "util/log.h"
#include "xmpp/forms.h"
#include "xmpp/manager.h"
#include "xmpp/xmltext.h"

namespace xmpp {
namespace {

// Well below the server's limit of a stanza: it also counts what it has read of the next one.
constexpr std::size_t kListPart = 65'536;

}  // namespace

std::string Manager::bulkActivate(const gloox::JID& service, const gloox::StringList& nodes,
                                  ResultHandler* handler, bool limit, const std::string& urgency) {
    return bulk(Operation::BulkActivate, "activate-nodes", service, nodes, handler,
                {.oneItem = limit, .urgency = urgency});
}

std::string Manager::waitingItems(const gloox::JID& service, const gloox::StringList& nodes,
                                  ResultHandler* handler) {
    return bulk(Operation::Waiting, "waiting", service, nodes, handler);
}

std::string Manager::bulkDelete(const gloox::JID& service, const gloox::StringList& nodes,
                                ResultHandler* handler) {
    return bulk(Operation::BulkDelete, "delete-nodes", service, nodes, handler);
}

std::string Manager::bulk(Operation operation, const char* element, const gloox::JID& service,
                          const gloox::StringList& nodes, ResultHandler* handler,
                          const ActivationLimit& limit) {
    if (!m_client || !service || !handler)
        return {};
    const char* type = operation == Operation::Waiting ? "get" : "set";
    struct Part {
        std::string id;
        std::string stanza;
        gloox::StringList nodes;
    };
    std::vector<Part> parts;
    auto node = nodes.begin();
    do {
        const std::string id = nextId();
        const auto first = node;
        StanzaWriter part = beginIq(type, service, id);
        part.open(element, kDeviceXmlns);
        for (; node != nodes.end() && part.size() < kListPart; ++node) {
            // No node of the server has so long a name.
            if (isXmlAttribute(*node) && node->size() < kListPart / 2) {
                part.open("node").attribute("id", *node);
                limit.writeTo(part);
                part.close();
            } else {
                PrvPrintErr({}, "Left node %s out of %s: its name cannot be sent", printable(*node).c_str(),
                            element);
            }
        }
        parts.push_back({.id = id, .stanza = part.finish(), .nodes = {}});
        if (operation == Operation::BulkActivate)
            parts.back().nodes.assign(first, node);
    } while (node != nodes.end());

    if (!mayHold(parts.size())) {
        PrvPrintErr({}, "Too many operations wait for the connection, refused %s", element);
        return {};
    }
    const std::string id = parts.front().id;
    const auto bulk = std::make_shared<Bulk>();
    bulk->id = id;
    bulk->unanswered = parts.size();
    for (Part& part : parts) {
        m_requests.emplace(part.id, Request{.operation = operation,
                                            .handler = handler,
                                            .service = service,
                                            .bulk = bulk,
                                            .part = std::move(part.nodes)});
        sendOrHold(part.id, std::move(part.stanza));
    }
    return id;
}

}  // namespace xmpp
