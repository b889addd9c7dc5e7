// SPDX-License-Identifier: GPL-3.0-only
// The session object: construction, destruction, details (account and server) and cache folder.
//
// Owns the client and the manager; every other pointer is borrowed. Only setSessionDetails and the login
// change the details, which do not survive a restart.
#include <glib.h>

#include <utility>

#include "session/pubsubsession.h"
#include "util/paths.h"
#include "xmpp/client.h"
#include "xmpp/manager.h"

PubSubSession::PubSubSession() = default;

PubSubSession::~PubSubSession() {
    if (m_client) {
        // The bus may be gone by now, so this disconnect is reported to nobody.
        m_client->removeConnectionListener(this);
        m_client->removeMessageHandler(this);
        dropSocketWatch();
        if (m_pubsub)
            m_pubsub->detach();
        xmpp::Client::dispose(m_client);
    }
    // What is open may have to be answered, and finds no manager then.
    delete std::exchange(m_pubsub, nullptr);
}

const gloox::JID& PubSubSession::pubsubService() {
    if (m_preparedText != m_pubsubService) {
        m_preparedText = m_pubsubService;
        m_preparedService = gloox::JID(m_pubsubService);
    }
    return m_preparedService;
}

bool PubSubSession::ownsNothing() const {
    return !m_client && !m_pubsub && !m_prefsHandle && !m_offlinePrefHandle && m_writeTimer == 0 &&
           m_dueTimer == 0 && m_settleSource == 0;
}

void PubSubSession::setSessionDetails(const std::string& jid, const std::string& password,
                                      const std::string& resource, const std::string& server,
                                      const std::string& service, int port) {
    m_jid = gloox::JID(jid);
    m_password = password;
    m_server = server;
    m_pubsubService = service;
    m_resource = resource;
    m_username = jid.substr(0, jid.find('@'));
    m_port = port;
}

void PubSubSession::getSessionDetails(std::string& jid, std::string& password, std::string& resource,
                                      std::string& server, std::string& service, int& port) {
    // sic: one byte with the validity flag instead of the JID's text; callers test that byte.
    jid.assign(1, m_jid ? '\1' : '\0');
    password = m_password;
    resource = m_resource;
    server = m_server;
    service = m_pubsubService;
    port = m_port;
}

void PubSubSession::setDomain(const std::string& domain) {
    m_domain = domain;
}

void PubSubSession::createCacheDir() {
    g_mkdir_with_parents(cacheDir().c_str(), 0744);
}

void PubSubSession::turnOffTls() {
    if (m_client)
        m_client->setTls(gloox::TLSDisabled);
}

bool PubSubService::createSession(const std::string& jid, const std::string& password,
                                  const std::string& resource, const std::string& server,
                                  const std::string& service, int port) {
    gCurrentSession.setSessionDetails(jid, password, resource, server, service, port);
    return gCurrentSession.createSession();
}
