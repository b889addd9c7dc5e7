// SPDX-License-Identifier: GPL-3.0-only
// The client's life cycle: construction, connecting, reports to the listeners, and deletion.
//
// A client is often disposed of inside one of its own callbacks, with gloox's frames still on the stack.
// m_depth counts them, and a client in use is deleted from an idle source.
#include "xmpp/client.h"

#include <gloox/connectiontcpbase.h>
#include <gloox/messagehandler.h>

#include <algorithm>
#include <utility>

#include "util/log.h"
#include "xmpp/manager.h"
#include "xmpp/tls.h"
#include "xmpp/transport.h"

namespace xmpp {
namespace {

constexpr int kDefaultPort = 5222;
constexpr int kAllAreas = 0xffffff;

Client::ConnectionFactory& connectionFactory() {
    static Client::ConnectionFactory factory;
    return factory;
}

}  // namespace

class Client::Busy {
  public:
    explicit Busy(Client& client) : m_client(client) { ++m_client.m_depth; }
    ~Busy() { --m_client.m_depth; }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

  private:
    Client& m_client;
};

Client::Client(const gloox::JID& jid, const std::string& password, int port)
    : gloox::Client(jid, password, port) {
    setTls(gloox::TLSRequired);
    setCompression(false);
    disableRoster();
    // With entity capabilities the server would query this client's features at every login.
    removePresenceExtension(gloox::ExtCaps);
    gloox::Client::registerConnectionListener(this);
}

Client::~Client() {
    if (m_manager)
        m_manager->detach();
    if (m_context)
        g_main_context_unref(m_context);
}

void Client::setPubSubService(const gloox::JID& service) {
    m_service = service;
    m_senders.clear();
}

void Client::setConnectionFactory(ConnectionFactory factory) {
    connectionFactory() = std::move(factory);
}

bool Client::connect(const std::string& localAddress, GMainContext* context) {
    if (m_disposed)
        return false;
    if (state() != gloox::StateDisconnected)
        return true;
    Busy busy(*this);
    if (m_context)
        g_main_context_unref(m_context);
    m_context = g_main_context_ref(context ? context : g_main_context_default());
    m_ended = false;
    if (installConnection(localAddress) && gloox::Client::connect(false))
        return true;
    onDisconnect(gloox::ConnConnectionRefused);
    return false;
}

bool Client::installConnection(const std::string& localAddress) {
    const int port = m_port > 0 ? m_port : kDefaultPort;
    if (connectionFactory()) {
        setConnectionImpl(connectionFactory()(*this, m_server, port, localAddress, m_context));
    } else {
        auto* transport =
            new Transport(this, gloox::Client::logInstance(), m_server, port, localAddress, m_context);
        transport->setDeadline(m_deadline);
        setConnectionImpl(transport);
    }
    return connectionImpl() && (tls() == gloox::TLSDisabled || installTls());
}

bool Client::installTls() {
    // The certificate may name the domain or the configured host.
    auto* tls = new Tls(this, jid().server(), m_server,
                        [this](gloox::ConnectionError error) { failConnection(error); });
    setEncryptionImpl(tls);
    return tls->init({}, {}, m_caFiles);
}

void Client::failConnection(gloox::ConnectionError error) {
    if (auto* transport = dynamic_cast<Transport*>(connectionImpl()))
        transport->fail(error);
}

void Client::disconnect() {
    if (m_disposed)
        return;
    Busy busy(*this);
    gloox::Client::disconnect();
}

int Client::socket() const {
    const auto* connection = dynamic_cast<const gloox::ConnectionTCPBase*>(connectionImpl());
    return connection ? connection->socket() : -1;
}

void Client::dispose(Client* client) {
    if (!client || client->m_disposed)
        return;
    client->m_disposed = true;
    client->m_streamParser.stop();
    client->m_listeners.clear();
    client->m_messageHandlers.clear();
    if (client->m_manager)
        client->m_manager->detach();
    {
        Busy busy(*client);
        client->gloox::Client::disconnect();
    }
    if (client->m_depth == 0) {
        delete client;
        return;
    }
    GSource* idle = g_idle_source_new();
    g_source_set_priority(idle, G_PRIORITY_DEFAULT);
    const auto remove = [](gpointer data) -> gboolean {
        delete static_cast<Client*>(data);
        return G_SOURCE_REMOVE;
    };
    g_source_set_callback(idle, remove, client, nullptr);
    g_source_attach(idle, client->m_context);
    g_source_unref(idle);
}

void Client::registerConnectionListener(gloox::ConnectionListener* listener) {
    if (listener)
        m_listeners.push_back(listener);
}

void Client::removeConnectionListener(gloox::ConnectionListener* listener) {
    std::erase(m_listeners, listener);
}

void Client::registerMessageHandler(gloox::MessageHandler* handler) {
    if (handler)
        m_messageHandlers.push_back(handler);
}

void Client::removeMessageHandler(gloox::MessageHandler* handler) {
    std::erase(m_messageHandlers, handler);
}

gloox::LogSink& Client::logInstance() {
    if (!m_relaysLog)
        gloox::Client::logInstance().registerLogHandler(gloox::LogLevelDebug, kAllAreas, this);
    m_relaysLog = true;
    return m_log;
}

void Client::handleLog(gloox::LogLevel level, gloox::LogArea area, const std::string& message) {
    if (!m_disposed)
        m_log.log(level, area, message);
}

gloox::ConnectionError Client::recv(int timeout) {
    if (m_disposed)
        return gloox::ConnNotConnected;
    Busy busy(*this);
    return gloox::Client::recv(timeout);
}

void Client::handleConnect(const gloox::ConnectionBase* connection) {
    Busy busy(*this);
    m_streamParser.restart();
    gloox::Client::handleConnect(connection);
}

void Client::handleReceivedData(const gloox::ConnectionBase* connection, const std::string& data) {
    Busy busy(*this);
    m_handlingInput = true;
    if (m_encryptionActive)
        gloox::Client::handleReceivedData(connection, data);
    else
        parse(data);
    m_handlingInput = false;
    reportMessagesDone();
}

void Client::reportMessagesDone() {
    if (m_messagesDone && !m_disposed)
        m_messagesDone();
}

void Client::handleDecryptedData(const gloox::TLSBase*, const std::string& data) {
    Busy busy(*this);
    parse(data);
}

// Input from before TLS must not become part of the encrypted stream.
void Client::handleHandshakeResult(const gloox::TLSBase* tls, bool success, gloox::CertInfo& info) {
    Busy busy(*this);
    m_streamParser.restart();
    gloox::Client::handleHandshakeResult(tls, success, info);
}

void Client::handleDisconnect(const gloox::ConnectionBase* connection, gloox::ConnectionError reason) {
    Busy busy(*this);
    gloox::Client::handleDisconnect(connection, reason);
}

// The loops below use indices, because a callback may shrink the lists, or empty them when the client
// is disposed of.

void Client::onConnect() {
    m_streamUp = true;
    if (auto* transport = dynamic_cast<Transport*>(connectionImpl()))
        transport->dropDeadline();
    // What the listeners send goes out before the held stanzas and does not count against their bound.
    if (m_manager)
        m_manager->open();
    for (std::size_t i = 0; i < m_listeners.size(); ++i)
        m_listeners[i]->onConnect();
    if (m_streamUp && m_manager)
        m_manager->release();
}

void Client::onDisconnect(gloox::ConnectionError error) {
    m_streamUp = false;
    if (std::exchange(m_ended, true))
        return;
    m_streamParser.stop();
    if (m_manager)
        m_manager->hold();
    for (std::size_t i = 0; i < m_listeners.size(); ++i)
        m_listeners[i]->onDisconnect(error);
}

void Client::onResourceBind(const std::string& resource) {
    for (std::size_t i = 0; i < m_listeners.size(); ++i)
        m_listeners[i]->onResourceBind(resource);
}

// gloox would wait forever here, with a stream that cannot be used.
void Client::onResourceBindError(const gloox::Error* error) {
    for (std::size_t i = 0; i < m_listeners.size(); ++i)
        m_listeners[i]->onResourceBindError(error);
    PrvPrintErr({}, "The server refused to bind the resource %s, disconnecting", resource().c_str());
    gloox::ClientBase::disconnect(gloox::ConnStreamError);
}

void Client::onSessionCreateError(const gloox::Error* error) {
    for (std::size_t i = 0; i < m_listeners.size(); ++i)
        m_listeners[i]->onSessionCreateError(error);
    PrvPrintErr({}, "The server refused to open the session, disconnecting");
    gloox::ClientBase::disconnect(gloox::ConnStreamError);
}

bool Client::onTLSConnect(const gloox::CertInfo& info) {
    bool accepted = !m_listeners.empty() || info.status == gloox::CertOk;
    for (std::size_t i = 0; accepted && i < m_listeners.size(); ++i)
        accepted = m_listeners[i]->onTLSConnect(info);
    return accepted && !m_disposed && !m_ended;
}

void Client::onStreamEvent(gloox::StreamEvent event) {
    for (std::size_t i = 0; i < m_listeners.size(); ++i)
        m_listeners[i]->onStreamEvent(event);
}

void Client::rosterFilled() {
    notifyStreamEvent(gloox::StreamEventFinished);
    notifyOnConnect();
}

}  // namespace xmpp
