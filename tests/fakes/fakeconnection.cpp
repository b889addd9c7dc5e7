// SPDX-License-Identifier: GPL-3.0-only
// The XMPP server of the unit tests.
#include "tests/fakes/fakeconnection.h"

#include <glib.h>
#include <gloox/gloox.h>
#include <gloox/parser.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "tests/fakes/journal.h"

namespace {

constexpr char kStreamXmlns[] = "http://etherx.jabber.org/streams";
constexpr char kStreamEnd[] = "</stream:stream>";

std::string decodeBase64(const std::string& text) {
    gsize length = 0;
    guchar* bytes = g_base64_decode(text.c_str(), &length);
    std::string decoded(reinterpret_cast<char*>(bytes), length);
    g_free(bytes);
    return decoded;
}

std::string iqResult(const gloox::Tag& iq, const std::string& content) {
    return "<iq type='result' id='" + iq.findAttribute("id") + "'>" + content + "</iq>";
}

}  // namespace

std::string withoutId(const std::string& xml) {
    const std::size_t end = xml.find('>');
    const std::size_t name = xml.find(" id=");
    if (end == std::string::npos || name > end)
        return xml;
    const std::size_t value = name + 5;  // after the quote
    const std::size_t close = xml.find(xml[value - 1], value);
    return xml.substr(0, value) + "ID" + xml.substr(close);
}

std::string SentStanza::textWithoutId() const {
    return withoutId(m_xml);
}

// --- the connection object

FakeConnection::FakeConnection(FakeServer& server, gloox::ConnectionDataHandler* handler,
                               const gloox::LogSink& log, const std::string& host, int port)
    : ConnectionTCPClient(handler, log, host, port), m_fakeServer(server) {}

FakeConnection::~FakeConnection() {
    FakeConnection::cleanup();
}

gloox::ConnectionError FakeConnection::connect() {
    if (m_socket >= 0)
        return gloox::ConnNoError;
    ++m_fakeServer.m_connects;
    if (m_fakeServer.m_refusal != gloox::ConnNoError)
        return m_fakeServer.m_refusal;
    m_socket = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_state = gloox::StateConnecting;
    m_loss = m_fakeServer.m_lateFailure;
    wake();
    return gloox::ConnNoError;
}

gloox::ConnectionError FakeConnection::recv(int timeout) {
    m_fakeServer.m_receiveTimeout = timeout;
    if (m_socket < 0)
        return gloox::ConnNotConnected;
    std::uint64_t wakes = 0;
    [[maybe_unused]] const ssize_t drained = ::read(m_socket, &wakes, sizeof wakes);
    if (m_state == gloox::StateConnecting && m_loss == gloox::ConnNoError) {
        m_state = gloox::StateConnected;
        m_fakeServer.opened(this);
        m_handler->handleConnect(this);
        return gloox::ConnNoError;
    }
    if (!m_incoming.empty()) {
        const std::string data = std::move(m_incoming.front());
        m_incoming.pop_front();
        if (!m_incoming.empty() || m_loss != gloox::ConnNoError)
            wake();
        m_handler->handleReceivedData(this, data);
        return gloox::ConnNoError;
    }
    if (m_loss == gloox::ConnNoError)
        return gloox::ConnNoError;
    const gloox::ConnectionError loss = std::exchange(m_loss, gloox::ConnNoError);
    m_handler->handleDisconnect(this, loss);
    return loss;
}

bool FakeConnection::send(const std::string& data) {
    if (m_socket < 0 || m_state != gloox::StateConnected)
        return false;
    m_fakeServer.received(data);
    return true;
}

gloox::ConnectionError FakeConnection::receive() {
    return gloox::ConnNotConnected;  // would block
}

void FakeConnection::disconnect() {
    m_cancel = true;
}

void FakeConnection::cleanup() {
    m_fakeServer.closed(this);
    if (m_socket >= 0)
        ::close(std::exchange(m_socket, -1));
    m_state = gloox::StateDisconnected;
    m_incoming.clear();
    m_loss = gloox::ConnNoError;
}

void FakeConnection::queue(const std::string& data) {
    m_incoming.push_back(data);
    wake();
}

void FakeConnection::loseWith(gloox::ConnectionError error) {
    m_loss = error;
    wake();
}

void FakeConnection::wake() {
    const std::uint64_t one = 1;
    if (m_socket >= 0) [[maybe_unused]]
        const ssize_t written = ::write(m_socket, &one, sizeof one);
}

// --- the server

FakeServer::FakeServer() {
    reset();
}

FakeServer::~FakeServer() = default;

FakeServer& fakeServer() {
    static FakeServer server;
    return server;
}

void FakeServer::reset() {
    m_connection = nullptr;
    m_stanzas.clear();
    m_host.clear();
    m_port = 0;
    m_localAddress.clear();
    m_receiveTimeout = -1;
    m_mechanism = "PLAIN";
    m_loginRefusal.clear();
    m_boundJid.clear();
    m_refusal = m_lateFailure = gloox::ConnNoError;
    m_connects = 0;
    m_mute = m_authenticated = m_loggedIn = m_streamClosed = false;
}

void FakeServer::sends(const std::string& xml) {
    if (m_connection)
        m_connection->queue(xml);
}

// As a server does: ends the stream, then the connection.
void FakeServer::closesStream() {
    sends(kStreamEnd);
    closesWith(gloox::ConnStreamClosed);
}

void FakeServer::closesWith(gloox::ConnectionError error) {
    if (m_connection)
        m_connection->loseWith(error);
}

void FakeServer::opened(FakeConnection* connection) {
    m_connection = connection;
    m_authenticated = m_loggedIn = m_streamClosed = false;
    m_user.clear();
}

void FakeServer::closed(FakeConnection* connection) {
    if (m_connection != connection)
        return;
    m_connection = nullptr;
    m_loggedIn = false;
}

void FakeServer::received(const std::string& data) {
    if (data == kStreamEnd) {
        m_streamClosed = true;  // gloox's parser does not report it
        return;
    }
    if (data.starts_with("<?xml"))
        m_parser.reset(new gloox::Parser(this));
    std::string text = data;
    m_parser->feed(text);
}

void FakeServer::handleTag(gloox::Tag* tag) {
    if (!tag || m_mute)
        return;
    if (tag->name() == "stream") {
        m_domain = tag->findAttribute("to");
        openStream();
    } else if (tag->name() == "auth") {
        const std::string plain = decodeBase64(tag->cdata());  // authzid NUL user NUL password
        const std::size_t user = plain.find('\0');
        m_user = user == std::string::npos ? "anonymous"
                                           : plain.substr(user + 1, plain.find('\0', user + 1) - user - 1);
        authenticate();
    } else if (!answerLogin(*tag) && m_loggedIn) {
        m_stanzas.emplace_back(*tag);
        journal().add("xmpp.send " + m_stanzas.back().xml());
    }
}

void FakeServer::openStream() {
    const std::string offered = m_authenticated
                                    ? std::string(
                                          "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>"
                                          "<session xmlns='urn:ietf:params:xml:ns:xmpp-session'/>")
                                    : "<mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><mechanism>" +
                                          m_mechanism + "</mechanism></mechanisms>";
    sends(std::string("<?xml version='1.0'?><stream:stream xmlns='jabber:client' xmlns:stream='") +
          kStreamXmlns + "' id='fake' from='" + m_domain + "' version='1.0'><stream:features>" + offered +
          "</stream:features>");
}

void FakeServer::authenticate() {
    if (!m_loginRefusal.empty()) {
        sends("<failure xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><" + m_loginRefusal + "/></failure>");
        return;
    }
    m_authenticated = true;
    sends("<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>");
}

// Answers the requests of the login; false for any other.
bool FakeServer::answerLogin(const gloox::Tag& iq) {
    if (iq.name() != "iq")
        return false;
    if (const gloox::Tag* bind = iq.findChild("bind")) {
        const gloox::Tag* wish = bind->findChild("resource");
        const std::string resource = wish ? wish->cdata() : "chosen-by-server";
        const std::string jid = m_boundJid.empty() ? m_user + '@' + m_domain + '/' + resource : m_boundJid;
        sends(iqResult(iq, "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><jid>" + jid + "</jid></bind>"));
        return true;
    }
    if (iq.findChild("session")) {
        m_loggedIn = true;
        sends(iqResult(iq, ""));
        return true;
    }
    if (!iq.findChild("query", "xmlns", "jabber:iq:roster"))
        return false;
    sends(iqResult(iq, "<query xmlns='jabber:iq:roster'/>"));
    return true;
}
