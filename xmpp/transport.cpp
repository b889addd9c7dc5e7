// SPDX-License-Identifier: GPL-3.0-only
// The transport's two halves: getting a connection (resolver, one attempt after the other) and using it.
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

namespace xmpp {
namespace {

constexpr std::size_t kMaxQueued = 8u << 20;
constexpr std::size_t kCompactAfter = 1u << 20;
// What the peer has not acknowledged for that long ends the connection.
constexpr unsigned kUserTimeoutMs = 60'000;

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

struct NativeAddress {
    sockaddr_storage storage{};
    socklen_t length = 0;
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

NativeAddress nativeAddress(GInetAddress* address, int port) {
    NativeAddress native;
    GSocketAddress* socketAddress = g_inet_socket_address_new(address, static_cast<guint16>(port));
    if (g_socket_address_to_native(socketAddress, &native.storage, sizeof native.storage, nullptr))
        native.length = static_cast<socklen_t>(g_socket_address_get_native_size(socketAddress));
    g_object_unref(socketAddress);
    return native;
}

std::string textOf(GInetAddress* address) {
    gchar* text = g_inet_address_to_string(address);
    std::string copy(text);
    g_free(text);
    return copy;
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
        PrvPrintErr(__func__, __LINE__, "No descriptor for the connection: %s", strerror(errno));
        return gloox::ConnIoError;
    }
    m_state = gloox::StateConnecting;
    m_cancel = false;
    m_deadlineSource = g_timeout_source_new(m_deadline);
    g_source_set_callback(m_deadlineSource, &Transport::onDeadline, this, nullptr);
    g_source_attach(m_deadlineSource, m_context);
    if (GInetAddress* address = g_inet_address_new_from_string(m_host.c_str())) {
        m_addresses.push_back(address);
        connectToNext();
    } else {
        resolve();
    }
    return gloox::ConnNoError;
}

void Transport::resolve() {
    m_resolving = g_cancellable_new();
    GResolver* resolver = g_resolver_get_default();
    // The answer comes on this context whichever is the caller's default.
    g_main_context_push_thread_default(m_context);
    g_resolver_lookup_by_name_async(resolver, m_host.c_str(), m_resolving, &Transport::onResolved, this);
    g_main_context_pop_thread_default(m_context);
    g_object_unref(resolver);
}

void Transport::onResolved(GObject* resolver, GAsyncResult* result, gpointer data) {
    GError* error = nullptr;
    GList* addresses = g_resolver_lookup_by_name_finish(G_RESOLVER(resolver), result, &error);
    // Cancelled means given up by cleanup(), maybe deleted: `data` is not touched.
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        g_error_free(error);
        return;
    }
    auto* self = static_cast<Transport*>(data);
    g_clear_object(&self->m_resolving);
    for (GList* entry = addresses; entry; entry = entry->next)
        self->m_addresses.push_back(static_cast<GInetAddress*>(g_object_ref(entry->data)));
    g_resolver_free_addresses(addresses);
    if (error) {
        PrvPrintErr(__func__, __LINE__, "Cannot resolve %s: %s", self->m_host.c_str(), error->message);
        g_error_free(error);
        self->fail(gloox::ConnDnsError);
        return;
    }
    self->connectToNext();
}

void Transport::connectToNext() {
    dropAttempt();
    while (!m_addresses.empty()) {
        GInetAddress* address = m_addresses.front();
        m_addresses.pop_front();
        const bool started = startConnecting(address);
        g_object_unref(address);
        if (started)
            return;
    }
    fail(gloox::ConnConnectionRefused);
}

bool Transport::startConnecting(GInetAddress* address) {
    const GSocketFamily family = g_inet_address_get_family(address);
    m_attempt = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_attempt < 0) {
        PrvPrintErr(__func__, __LINE__, "No socket for %s: %s", textOf(address).c_str(), strerror(errno));
        return false;
    }
    setOption(m_attempt, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(m_attempt, IPPROTO_TCP, TCP_USER_TIMEOUT, kUserTimeoutMs);
    bindLocally(m_attempt, family);
    const NativeAddress target = nativeAddress(address, m_port);
    if (::connect(m_attempt, target.get(), target.length) != 0 && errno != EINPROGRESS) {
        PrvPrintErr(__func__, __LINE__, "Cannot connect to %s port %d: %s", textOf(address).c_str(), m_port,
                    strerror(errno));
        dropAttempt();
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

// Networks come and go: an address that is no longer the host's is not worth losing the connection for.
void Transport::bindLocally(int fd, GSocketFamily family) {
    if (m_localAddress.empty())
        return;
    GInetAddress* local = g_inet_address_new_from_string(m_localAddress.c_str());
    if (!local) {
        PrvPrintErr(__func__, __LINE__, "Local address %s is no IP address, connecting from any",
                    m_localAddress.c_str());
        return;
    }
    if (g_inet_address_get_family(local) == family) {
        const NativeAddress native = nativeAddress(local, 0);
        setOption(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1);
        if (::bind(fd, native.get(), native.length) != 0)
            PrvPrintErr(__func__, __LINE__, "Cannot use local address %s (%s), connecting from any",
                        m_localAddress.c_str(), strerror(errno));
    }
    g_object_unref(local);
}

void Transport::onAttemptDone() {
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(m_attempt, SOL_SOCKET, SO_ERROR, &error, &length);
    if (error == 0) {
        takeOver();
        return;
    }
    PrvPrintErr(__func__, __LINE__, "Cannot connect to %s port %d: %s", m_host.c_str(), m_port,
                strerror(error));
    connectToNext();
}

// The socket takes the number that is being watched already; the event object goes.
void Transport::takeOver() {
    if (dup3(m_attempt, m_socket, O_CLOEXEC) < 0) {
        PrvPrintErr(__func__, __LINE__, "Cannot take the connection over: %s", strerror(errno));
        dropAttempt();
        fail(gloox::ConnIoError);
        return;
    }
    dropAttempt();
    for (GInetAddress* address : std::exchange(m_addresses, {}))
        g_object_unref(address);
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
    PrvPrintErr(__func__, __LINE__, "No session with %s port %d within %u ms, giving up",
                self->m_host.c_str(), self->m_port, self->m_deadline);
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
            m_handler->handleReceivedData(this, std::string(m_in.data(), static_cast<std::size_t>(length)));
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

bool Transport::send(const std::string& data) {
    if (data.empty() || m_state != gloox::StateConnected || m_failure != gloox::ConnNoError)
        return false;
    if (queued() + data.size() > kMaxQueued) {
        PrvPrintErr(__func__, __LINE__, "%s has not read %zu bytes, giving the connection up", m_host.c_str(),
                    queued());
        fail(gloox::ConnIoError);
        return false;
    }
    m_totalBytesOut += static_cast<long>(data.size());
    m_out += data;
    // With older output waiting the socket is full.
    return m_writableSource || flush();
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
            PrvPrintErr(__func__, __LINE__, "Sending to %s failed: %s", m_host.c_str(), strerror(errno));
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
    if (m_resolving) {
        g_cancellable_cancel(m_resolving);
        g_clear_object(&m_resolving);
    }
    dropAttempt();
    // Either way the descriptor becomes readable, and the watch on it calls recv().
    if (m_state == gloox::StateConnected)
        ::shutdown(m_socket, SHUT_RDWR);
    else
        eventfd_write(m_socket, 1);
}

void Transport::disconnect() {
    m_cancel = true;
}

void Transport::cleanup() {
    if (m_resolving) {
        g_cancellable_cancel(m_resolving);
        g_clear_object(&m_resolving);
    }
    dropAttempt();
    dropWritable();
    dropDeadline();
    for (GInetAddress* address : std::exchange(m_addresses, {}))
        g_object_unref(address);
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
