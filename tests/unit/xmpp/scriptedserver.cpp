// SPDX-License-Identifier: GPL-3.0-only
// The scripted server: blocking sockets, one connection after the other.
#include "tests/unit/xmpp/scriptedserver.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

namespace {

constexpr int kPatienceMs = 10'000;
constexpr char kTlsXmlns[] = "urn:ietf:params:xml:ns:xmpp-tls";

void require(bool good, const std::string& what) {
    if (!good)
        throw std::runtime_error(what);
}

}  // namespace

Peer::~Peer() {
    if (m_session)
        gnutls_deinit(m_session);
    if (m_credentials)
        gnutls_certificate_free_credentials(m_credentials);
    close();
}

void Peer::receiveMore() {
    char buffer[65'536];
    pollfd poller{m_fd, POLLIN, 0};
    const bool pending = m_session && gnutls_record_check_pending(m_session) > 0;
    require(pending || poll(&poller, 1, kPatienceMs) > 0, "the client sent nothing more after: " + m_in);
    ssize_t length = GNUTLS_E_AGAIN;
    while (m_session && (length == GNUTLS_E_AGAIN || length == GNUTLS_E_INTERRUPTED))
        length = gnutls_record_recv(m_session, buffer, sizeof buffer);
    if (!m_session)
        length = ::recv(m_fd, buffer, sizeof buffer, 0);
    require(length > 0, "the client closed after: " + m_in);
    m_in.append(buffer, static_cast<std::size_t>(length));
}

std::string Peer::until(const std::string& text) {
    std::size_t found = 0;
    std::size_t from = 0;
    while ((found = m_in.find(text, from)) == std::string::npos) {
        from = m_in.size() < text.size() ? 0 : m_in.size() - text.size();
        receiveMore();
    }
    std::string taken = m_in.substr(0, found + text.size());
    m_in.erase(0, taken.size());
    return taken;
}

std::string Peer::bytes(std::size_t count) {
    while (m_in.size() < count)
        receiveMore();
    std::string taken = m_in.substr(0, count);
    m_in.erase(0, count);
    return taken;
}

std::string Peer::untilEnd() {
    try {
        while (true)
            receiveMore();
    } catch (const std::runtime_error& error) {
        require(std::string(error.what()).find("the client closed") == 0, error.what());
    }
    return std::exchange(m_in, {});
}

void Peer::send(const std::string& text) {
    if (!m_session) {
        sendRaw(text);
        return;
    }
    for (std::size_t sent = 0; sent < text.size();) {
        const ssize_t length = gnutls_record_send(m_session, text.data() + sent, text.size() - sent);
        require(length > 0, "sending over TLS failed");
        sent += static_cast<std::size_t>(length);
    }
}

void Peer::sendRaw(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t length = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        require(length > 0, "sending failed");
        sent += static_cast<std::size_t>(length);
    }
}

void Peer::openStream(const std::string& features) {
    until("version='1.0'>");
    send(
        "<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
        "xmlns:stream='http://etherx.jabber.org/streams' id='s1' from='example.org' version='1.0'>"
        "<stream:features>" +
        features + "</stream:features>");
}

void Peer::agreeOnTls() {
    openStream(std::string("<starttls xmlns='") + kTlsXmlns + "'/>");
    until("<starttls");
    until("/>");
    send(std::string("<proceed xmlns='") + kTlsXmlns + "'/>");
}

void Peer::handshake(const Identity& identity, const std::string& versions) {
    const auto datum = [](const std::string& text) {
        return gnutls_datum_t{reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
                              static_cast<unsigned>(text.size())};
    };
    const gnutls_datum_t certificate = datum(identity.certificate);
    const gnutls_datum_t key = datum(identity.key);
    require(gnutls_certificate_allocate_credentials(&m_credentials) == 0, "credentials");
    require(gnutls_certificate_set_x509_key_mem(m_credentials, &certificate, &key, GNUTLS_X509_FMT_PEM) == 0,
            "key");
    gnutls_session_t session = nullptr;
    require(gnutls_init(&session, GNUTLS_SERVER) == 0, "session");
    m_session = session;
    require(gnutls_priority_set_direct(session, ("NORMAL:-VERS-ALL:" + versions).c_str(), nullptr) == 0,
            "versions");
    gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, m_credentials);
    gnutls_handshake_set_timeout(session, kPatienceMs);
    gnutls_transport_set_int(session, m_fd);
    int result = 0;
    do
        result = gnutls_handshake(session);
    while (result < 0 && !gnutls_error_is_fatal(result));
    require(result == 0, std::string("handshake: ") + gnutls_strerror(result));
    char name[256];
    std::size_t length = sizeof name;
    unsigned type = 0;
    if (gnutls_server_name_get(session, name, &length, &type, 0) == 0)
        serverName.assign(name, length);
}

void Peer::logIn(const Identity* identity, const std::string& versions) {
    if (identity) {
        agreeOnTls();
        handshake(*identity, versions);
    }
    authenticate();
    bind();
}

void Peer::authenticate() {
    openStream(
        "<mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><mechanism>PLAIN</mechanism></mechanisms>");
    until("</auth>");
    send("<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>");
}

void Peer::bind() {
    openStream("<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>");
    const std::string request = until("</iq>");
    const std::size_t begin = request.find("id='") + 4;
    send("<iq type='result' id='" + request.substr(begin, request.find('\'', begin) - begin) +
         "'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><jid>device@example.org/tv</jid></bind></iq>");
}

void Peer::closeTls() {
    gnutls_bye(m_session, GNUTLS_SHUT_WR);
}

void Peer::close() {
    if (m_fd >= 0)
        ::close(std::exchange(m_fd, -1));
}

void Peer::reset() {
    const linger hard{1, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close();
}

void Peer::dropPackets(bool drop) {
    sock_filter dropAll = {.code = BPF_RET | BPF_K, .jt = 0, .jf = 0, .k = 0};
    const sock_fprog program = {.len = 1, .filter = &dropAll};
    setsockopt(m_fd, SOL_SOCKET, drop ? SO_ATTACH_FILTER : SO_DETACH_FILTER, &program, sizeof program);
}

std::string Peer::address() const {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    char host[NI_MAXHOST] = "";
    if (getpeername(m_fd, reinterpret_cast<sockaddr*>(&storage), &length) == 0)
        getnameinfo(reinterpret_cast<sockaddr*>(&storage), length, host, sizeof host, nullptr, 0,
                    NI_NUMERICHOST);
    return host;
}

ScriptedServer::ScriptedServer(Script script, const std::string& address) : m_script(std::move(script)) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* info = nullptr;
    require(getaddrinfo(address.c_str(), "0", &hints, &info) == 0, "address");
    m_listener = ::socket(info->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(::bind(m_listener, info->ai_addr, info->ai_addrlen) == 0, "bind");
    freeaddrinfo(info);
    require(::listen(m_listener, 16) == 0, "listen");
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    getsockname(m_listener, reinterpret_cast<sockaddr*>(&storage), &length);
    m_port = ntohs(storage.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port
                                                 : reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
    m_thread = std::thread(&ScriptedServer::run, this);
}

ScriptedServer::~ScriptedServer() {
    stop();
}

void ScriptedServer::stop() {
    if (m_stopped.exchange(true))
        return;
    ::shutdown(m_listener, SHUT_RDWR);
    m_thread.join();
    ::close(m_listener);
}

std::string ScriptedServer::failure() const {
    const std::lock_guard lock(m_mutex);
    return m_failure;
}

void ScriptedServer::run() {
    while (!m_stopped) {
        const int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        ++m_connections;
        Peer peer(fd);
        try {
            m_script(peer);
        } catch (const std::exception& error) {
            const std::lock_guard lock(m_mutex);
            m_failure = error.what();
        }
    }
}
