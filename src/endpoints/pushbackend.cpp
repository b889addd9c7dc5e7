// SPDX-License-Identifier: GPL-3.0-only
// Who gives endpoints of web push their addresses: the pub-sub service with the device extension, or else a
// push provider, which is named in the environment or found among what the server lists of itself.
//
// Keeps PubSubSession::m_pushSearch, in memory only: a disconnect ends it. Nothing is asked before a request
// needs it: the first one goes to the pub-sub service as on every server, and its refusal may have this reason.
#include <gloox/error.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "endpoints/methods.h"
#include "endpoints/pushendpoint.h"
#include "request/reply.h"
#include "session/pubsubsession.h"
#include "util/jsonref.h"
#include "xmpp/forms.h"
#include "xmpp/manager.h"

namespace {

constexpr std::size_t kMostParts = 20;

bool contains(const gloox::StringList& list, const char* text) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

std::string configuredProvider() {
    const char* provider = std::getenv("PUBSUB_PUSH_PROVIDER");
    return provider ? gloox::JID(provider).full() : std::string();
}

// What `getPushBackend` answers.
void reportBackend(const PubSubSession& session, QSMessage* message) {
    constexpr char kFailed[] = "Sending response to getPushBackend failed id %s Error %s ";
    const bool isKnown = session.m_pushSearch.backend != PushBackend::Unknown;
    Reply reply(isKnown);
    switch (session.m_pushSearch.backend) {
        case PushBackend::Extension:
            reply.set("backend", "extension");
            break;
        case PushBackend::Provider:
            reply.set("backend", "provider").set("provider", session.m_pushSearch.provider);
            break;
        case PushBackend::None:
            reply.set("backend", "none");
            break;
        default:
            reply.addError({session.m_connected ? kServerRefused : "connectionErr",
                            session.m_connected ? "The server does not say now what it can do. Try again"
                                                : "Not connected to xmpp server"});
    }
    reply.respond(message, "", kFailed);
}

// `provider` may be that of the search which ends here.
void settleBackend(PubSubSession& session, PushBackend backend, std::string provider) {
    const _pushSearchStruct search = std::exchange(session.m_pushSearch, {});
    session.m_pushSearch.backend = backend;
    session.m_pushSearch.provider = std::move(provider);
    for (const auto& [id, refusal] : search.refusals)
        if (auto request = session.takeEndpointRequest(id))
            backendFound(session, std::move(*request), refusal);
    for (const std::string& id : search.reports)
        if (const KeptMessage waiting = session.takeRequest(id))
            reportBackend(session, waiting.get());
}

void askWhetherProvider(PubSubSession& session, const std::string& jid) {
    const gloox::JID entity(jid);
    const std::string id = session.m_pubsub && entity ? session.m_pubsub->askFeatures(entity, &session) : "";
    if (!id.empty())
        session.m_pushSearch.asked[id] = entity.full();
}

void concludeSearch(PubSubSession& session) {
    if (session.m_pushSearch.parts.empty() && session.m_pushSearch.asked.empty())
        settleBackend(session, PushBackend::None, "");
}

void searchProvider(PubSubSession& session) {
    const std::string configured = configuredProvider();
    if (!configured.empty())
        return settleBackend(session, PushBackend::Provider, configured);
    askWhetherProvider(session, session.m_domain);
    session.m_pushSearch.parts =
        session.m_pubsub ? session.m_pubsub->askParts(gloox::JID(session.m_domain), &session) : "";
    concludeSearch(session);
}

void searchBackend(PubSubSession& session) {
    if (session.m_pushSearch.backend == PushBackend::Asking)
        return;
    if (session.m_pushSearch.backend != PushBackend::Unknown)
        return settleBackend(session, session.m_pushSearch.backend, session.m_pushSearch.provider);
    session.m_pushSearch.service =
        session.m_pubsub ? session.m_pubsub->askFeatures(session.pubsubService(), &session) : "";
    if (session.m_pushSearch.service.empty())
        return settleBackend(session, PushBackend::Unknown, "");
    session.m_pushSearch.backend = PushBackend::Asking;
}

}  // namespace

bool lacksExtension(const PubSubSession& session) {
    return session.m_pushSearch.backend == PushBackend::Provider ||
           session.m_pushSearch.backend == PushBackend::None;
}

bool mayLackExtension(const PubSubSession& session, const gloox::Error& error) {
    if (session.m_pushSearch.backend == PushBackend::Extension)
        return false;
    switch (error.error()) {
        case gloox::StanzaErrorFeatureNotImplemented:
        case gloox::StanzaErrorNotAllowed:  // a server that is connected to no other
        case gloox::StanzaErrorServiceUnavailable:
        case gloox::StanzaErrorRemoteServerNotFound:
        case gloox::StanzaErrorRemoteServerTimeout:
            return true;
        default:
            return false;
    }
}

void waitForBackend(PubSubSession& session, const std::string& id, _endpointStruct request,
                    const std::string& refusal) {
    session.keepEndpointRequest(id, std::move(request));
    session.m_pushSearch.refusals[id] = refusal;
    searchBackend(session);
}

void forgetBackend(PubSubSession& session) {
    settleBackend(session, PushBackend::Unknown, "");
}

void PubSubSession::handleFeatures(const std::string& id, const gloox::JID&,
                                   const gloox::StringList& features, const gloox::Error* error) {
    if (id == m_pushSearch.service) {
        m_pushSearch.service.clear();
        // It may be back in a moment, with or without the extension.
        if (error && error->type() == gloox::StanzaErrorTypeWait)
            return settleBackend(*this, PushBackend::Unknown, "");
        if (contains(features, xmpp::kDeviceXmlns))
            return settleBackend(*this, PushBackend::Extension, "");
        return searchProvider(*this);
    }
    const auto asked = m_pushSearch.asked.extract(id);
    if (!asked)
        return;
    if (contains(features, xmpp::kPushXmlns))
        return settleBackend(*this, PushBackend::Provider, asked.mapped());
    concludeSearch(*this);
}

void PubSubSession::handleParts(const std::string& id, const gloox::JID&, const gloox::StringList& parts,
                                const gloox::Error*) {
    if (id != m_pushSearch.parts)
        return;
    m_pushSearch.parts.clear();
    std::size_t count = 0;
    for (const std::string& part : parts)
        if (part != m_domain && part != m_pubsubService && count++ < kMostParts)
            askWhetherProvider(*this, part);
    concludeSearch(*this);
}

bool getPushBackend(QSHandle*, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    _pushSearchStruct& search = session.m_pushSearch;
    const bool isOpen = search.backend == PushBackend::Unknown || search.backend == PushBackend::Asking;
    if (!session.m_connected || !isOpen) {
        reportBackend(session, message);
        return true;
    }
    static unsigned long count = 0;
    const std::string id = "backend-" + std::to_string(++count);
    session.keepRequest(id, message);
    search.reports.insert(id);
    searchBackend(session);
    return true;
}
