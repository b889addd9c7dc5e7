// SPDX-License-Identifier: GPL-3.0-only
// The two halves of the transport: connecting (lookup, one attempt after the other) and using the connection.
#include "xmpp/transport.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <gloox/connectiondatahandler.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "util/log.h"
#include "xmpp/keepalive.h"

namespace xmpp {
namespace {

constexpr std::size_t kMaxQueued = 8u << 20;
constexpr std::size_t kCompactAfter = 1u << 20;

template <typename T>
void setOption(int fd, int level, int name, T value) {
    setsockopt(fd, level, name, &value, sizeof value);
}

void dropSource(GSource*& source) {
    if (!source)
        return;
    g_source_destroy(source);
    g_source_unref(source);
    source = nullptr;
}

}  // namespace

Transport::Transport(gloox::ConnectionDataHandler* handler, const gloox::LogSink& log,
                     const std::string& host, int port, const std::string& localAddress,
                     GMainContext* context)
    : ConnectionTCPClient(handler, log, host, port),
      m_host(host),
      m_localAddress(localAddress),
      m_context(g_main_context_ref(context)) {}

Transport::~Transport() {
    Transport::cleanup();
    g_main_context_unref(m_context);
}

gloox::ConnectionBase* Transport::newInstance() const {
    return new Transport(m_handler, m_logInstance, m_host, m_port, m_localAddress, m_context);
}

// --- getting a connection

gloox::ConnectionError Transport::connect() {
    if (!m_handler)
        return gloox::ConnNotConnected;
    if (m_socket >= 0)
        return gloox::ConnNoError;
    m_socket = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_socket < 0) {
        PrvPrintErr({}, "No descriptor for the connection: %s", strerror(errno));
        return gloox::ConnIoError;
    }
    m_state = gloox::StateConnecting;
    m_cancel = false;
    m_deadlineSource = g_timeout_source_new(m_deadline);
    g_source_set_callback(m_deadlineSource, &Transport::onDeadline, this, nullptr);
    g_source_attach(m_deadlineSource, m_context);
    const SocketAddress numeric = SocketAddress::numeric(m_host, m_port);
    if (numeric.length > 0) {
        m_addresses.push_back(numeric);
        connectToNext();
        return gloox::ConnNoError;
    }
    const auto done = [this](std::vector<SocketAddress> addresses, const std::string& error) {
        onResolved(std::move(addresses), error);
    };
    // gloox has the name in its ASCII form.
    m_lookup = std::make_unique<Lookup>(m_server.empty() ? m_host : m_server, m_port, m_context, done);
    return gloox::ConnNoError;
}

void Transport::onResolved(std::vector<SocketAddress> addresses, const std::string& error) {
    m_lookup.reset();
    if (addresses.empty()) {
        PrvPrintErr({}, "Cannot resolve %s: %s", m_host.c_str(), error.c_str());
        fail(gloox::ConnDnsError);
        return;
    }
    m_addresses.assign(addresses.begin(), addresses.end());
    // The local address belongs to the network to use, so addresses of its family come first.
    const SocketAddress local = SocketAddress::numeric(m_localAddress, 0);
    if (local.length > 0)
        std::stable_partition(m_addresses.begin(), m_addresses.end(), [&local](const SocketAddress& address) {
            return address.family() == local.family();
        });
    connectToNext();
}

void Transport::connectToNext() {
    dropAttempt();
    while (!m_addresses.empty()) {
        const SocketAddress address = m_addresses.front();
        m_addresses.pop_front();
        if (startConnecting(address))
            return;
        dropAttempt();
    }
    fail(gloox::ConnConnectionRefused);
}

bool Transport::startConnecting(const SocketAddress& address) {
    m_attempt = ::socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_attempt < 0) {
        PrvPrintErr({}, "No socket for %s: %s", address.text().c_str(), strerror(errno));
        return false;
    }
    setOption(m_attempt, IPPROTO_TCP, TCP_NODELAY, 1);
    configuredKeepAlive().applyTo(m_attempt);
    // An address that does not answer is given up for the next one after 7 s; the last one has the rest
    // of the deadline.
    if (!m_addresses.empty())
        setOption(m_attempt, IPPROTO_TCP, TCP_SYNCNT, 2);
    bindLocally(address.family());
    if (::connect(m_attempt, address.get(), address.length) != 0 && errno != EINPROGRESS) {
        PrvPrintErr({}, "Cannot connect to %s port %d: %s", address.text().c_str(), m_port, strerror(errno));
        return false;
    }
    m_attemptSource = g_unix_fd_source_new(m_attempt, GIOCondition(G_IO_OUT | G_IO_ERR | G_IO_HUP));
    const auto done = [](gint, GIOCondition, gpointer data) -> gboolean {
        static_cast<Transport*>(data)->onAttemptDone();
        return G_SOURCE_REMOVE;
    };
    g_source_set_callback(m_attemptSource, G_SOURCE_FUNC(+done), this, nullptr);
    g_source_attach(m_attemptSource, m_context);
    return true;
}

// Networks change: a local address that is no longer valid must not prevent the connection.
void Transport::bindLocally(int family) {
    if (m_localAddress.empty())
        return;
    const SocketAddress local = SocketAddress::numeric(m_localAddress, 0);
    if (local.length == 0) {
        PrvPrintErr({}, "Local address %s is no IP address, connecting from any", m_localAddress.c_str());
        return;
    }
    if (local.family() != family)
        return;
    setOption(m_attempt, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1);
    if (::bind(m_attempt, local.get(), local.length) != 0)
        PrvPrintErr({}, "Cannot use local address %s (%s), connecting from any", m_localAddress.c_str(),
                    strerror(errno));
}

void Transport::onAttemptDone() {
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(m_attempt, SOL_SOCKET, SO_ERROR, &error, &length);
    if (error == 0) {
        takeOver();
        return;
    }
    PrvPrintErr({}, "Cannot connect to %s port %d: %s", m_host.c_str(), m_port, strerror(error));
    connectToNext();
}

// The socket replaces the event object under the descriptor that is watched already.
void Transport::takeOver() {
    if (dup3(m_attempt, m_socket, O_CLOEXEC) < 0) {
        PrvPrintErr({}, "Cannot take the connection over: %s", strerror(errno));
        dropAttempt();
        fail(gloox::ConnIoError);
        return;
    }
    dropAttempt();
    m_addresses.clear();
    m_state = gloox::StateConnected;
    m_handler->handleConnect(this);
}

void Transport::dropAttempt() {
    dropSource(m_attemptSource);
    if (m_attempt >= 0)
        ::close(std::exchange(m_attempt, -1));
}

gboolean Transport::onDeadline(gpointer data) {
    auto* self = static_cast<Transport*>(data);
    dropSource(self->m_deadlineSource);
    PrvPrintErr({}, "No session with %s port %d within %u ms, giving up", self->m_host.c_str(), self->m_port,
                self->m_deadline);
    const bool connected = self->m_state == gloox::StateConnected;
    self->fail(connected ? gloox::ConnIoError : gloox::ConnConnectionRefused);
    return G_SOURCE_REMOVE;
}

void Transport::dropDeadline() {
    dropSource(m_deadlineSource);
}

// --- using it

gloox::ConnectionError Transport::recv(int) {
    if (m_socket < 0)
        return gloox::ConnNotConnected;
    if (m_failure == gloox::ConnNoError && m_state != gloox::StateConnected)
        return gloox::ConnNoError;
    if (m_failure == gloox::ConnNoError) {
        const ssize_t length = ::recv(m_socket, m_in.data(), m_in.size(), MSG_DONTWAIT);
        if (length > 0) {
            m_totalBytesIn += length;
            handle(std::string(m_in.data(), static_cast<std::size_t>(length)));
            return gloox::ConnNoError;
        }
        if (length < 0 && (errno == EAGAIN || errno == EINTR))
            return gloox::ConnNoError;
        m_failure = length == 0 ? gloox::ConnStreamClosed : gloox::ConnIoError;
    }
    const gloox::ConnectionError failure = m_failure;
    m_handler->handleDisconnect(this, failure);
    return failure;
}

// Output written while input is handled is sent together, so that the acknowledgements of items that arrived
// together take one segment instead of one each.
void Transport::handle(const std::string& data) {
    m_gathering = true;
    m_handler->handleReceivedData(this, data);
    if (std::exchange(m_gathering, false) && m_failure == gloox::ConnNoError && !m_writableSource)
        flush();
}

bool Transport::send(const std::string& data) {
    if (data.empty() || m_state != gloox::StateConnected || m_failure != gloox::ConnNoError)
        return false;
    if (queued() + data.size() > kMaxQueued) {
        PrvPrintErr({}, "%s has not read %zu bytes, giving the connection up", m_host.c_str(), queued());
        fail(gloox::ConnIoError);
        return false;
    }
    m_totalBytesOut += static_cast<long>(data.size());
    m_out += data;
    // When older output waits, the socket is full.
    return m_gathering || m_writableSource || flush();
}

bool Transport::flush() {
    while (m_sent < m_out.size()) {
        const ssize_t length =
            ::send(m_socket, m_out.data() + m_sent, m_out.size() - m_sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (length >= 0) {
            m_sent += static_cast<std::size_t>(length);
        } else if (errno == EAGAIN) {
            break;
        } else if (errno != EINTR) {
            PrvPrintErr({}, "Sending to %s failed: %s", m_host.c_str(), strerror(errno));
            fail(gloox::ConnIoError);
            return false;
        }
    }
    if (m_sent == m_out.size()) {
        m_out.clear();
        m_sent = 0;
        dropWritable();
        return true;
    }
    if (m_sent > kCompactAfter)
        m_out.erase(0, std::exchange(m_sent, 0));
    watchWritable();
    return true;
}

void Transport::watchWritable() {
    if (m_writableSource)
        return;
    m_writableSource = g_unix_fd_source_new(m_socket, G_IO_OUT);
    const auto writable = [](gint, GIOCondition, gpointer data) -> gboolean {
        static_cast<Transport*>(data)->flush();
        return G_SOURCE_CONTINUE;
    };
    g_source_set_callback(m_writableSource, G_SOURCE_FUNC(+writable), this, nullptr);
    g_source_attach(m_writableSource, m_context);
}

void Transport::dropWritable() {
    dropSource(m_writableSource);
}

void Transport::fail(gloox::ConnectionError error) {
    if (m_socket < 0 || m_failure != gloox::ConnNoError)
        return;
    m_failure = error;
    dropWritable();
    dropDeadline();
    m_lookup.reset();
    dropAttempt();
    // In both cases the descriptor becomes readable, and its watch calls recv().
    if (m_state == gloox::StateConnected)
        ::shutdown(m_socket, SHUT_RDWR);
    else
        eventfd_write(m_socket, 1);
}

void Transport::disconnect() {
    m_cancel = true;
}

void Transport::cleanup() {
    // The gathered output may include the end of the stream.
    if (std::exchange(m_gathering, false) && m_failure == gloox::ConnNoError)
        flush();
    m_lookup.reset();
    dropAttempt();
    dropWritable();
    dropDeadline();
    m_addresses.clear();
    m_out.clear();
    m_sent = 0;
    m_failure = gloox::ConnNoError;
    if (m_socket >= 0)
        ::close(std::exchange(m_socket, -1));
    m_state = gloox::StateDisconnected;
    m_cancel = true;
    m_totalBytesIn = 0;
    m_totalBytesOut = 0;
}

}  // namespace xmpp
