// SPDX-License-Identifier: GPL-3.0-only
// What the load generators of the XMPP server share: a connection, with TLS if it is asked for, and the figures of what
// was answered. Plain sockets and nothing of the product.
#pragma once

#include <arpa/inet.h>
#include <gnutls/gnutls.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kPiece = 64 * 1024;

inline double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// A connection to the server, with TLS once it was asked for. Blocking until `unblock`.
class Link {
  public:
    Link(const std::string& host, int port) {
        m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1 ||
            connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("cannot connect to " + host + ": " + strerror(errno));
        const int on = 1;
        setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    ~Link() {
        if (m_tls)
            gnutls_deinit(m_tls);
        if (m_credentials)
            gnutls_certificate_free_credentials(m_credentials);
        close(m_socket);
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    void startTls() {
        gnutls_certificate_allocate_credentials(&m_credentials);
        gnutls_init(&m_tls, GNUTLS_CLIENT | GNUTLS_NO_SIGNAL);
        gnutls_set_default_priority(m_tls);
        gnutls_credentials_set(m_tls, GNUTLS_CRD_CERTIFICATE, m_credentials);
        gnutls_transport_set_int(m_tls, m_socket);
        int result = 0;
        do
            result = gnutls_handshake(m_tls);
        while (result < 0 && !gnutls_error_is_fatal(result));
        if (result < 0)
            throw std::runtime_error(std::string("TLS handshake: ") + gnutls_strerror(result));
    }
    void unblock() { m_blocking = false; }

    int descriptor() const { return m_socket; }
    bool wantsToWrite() const { return m_sent < m_out.size(); }
    void send(std::string_view text) { m_out.append(text); }

    // Sends what it can; all of it while blocking.
    void flush() {
        while (wantsToWrite()) {
            const ssize_t sent = put(m_out.data() + m_sent, m_out.size() - m_sent);
            if (sent < 0)
                return;
            m_sent += static_cast<std::size_t>(sent);
        }
        m_out.clear();
        m_sent = 0;
    }
    // Reads one piece into `in`. False when there is nothing.
    bool read(std::string& in) {
        char piece[kPiece];
        const ssize_t got = get(piece, sizeof piece);
        if (got == 0)
            throw std::runtime_error("the server closed the connection");
        if (got < 0)
            return false;
        in.append(piece, static_cast<std::size_t>(got));
        return true;
    }
    // TLS may hold input that the socket no longer announces.
    bool hasMore() const { return m_tls && gnutls_record_check_pending(m_tls) > 0; }

  private:
    ssize_t put(const char* data, std::size_t size) {
        const ssize_t sent =
            m_tls ? gnutls_record_send(m_tls, data, std::min(size, std::size_t{16384}))
                  : ::send(m_socket, data, size, MSG_NOSIGNAL | (m_blocking ? 0 : MSG_DONTWAIT));
        return check(sent);
    }
    ssize_t get(char* data, std::size_t size) {
        if (m_tls && !hasMore() && !m_blocking && !isReadable())
            return -1;
        return check(m_tls ? gnutls_record_recv(m_tls, data, size)
                           : recv(m_socket, data, size, m_blocking ? 0 : MSG_DONTWAIT));
    }
    ssize_t check(ssize_t result) const {
        if (result >= 0)
            return result;
        const bool again = m_tls ? !gnutls_error_is_fatal(static_cast<int>(result)) : errno == EAGAIN;
        if (!again)
            throw std::runtime_error("the connection broke");
        return -1;
    }
    bool isReadable() const {
        pollfd entry{m_socket, POLLIN, 0};
        return ::poll(&entry, 1, 0) > 0;
    }

    int m_socket;
    bool m_blocking = true;
    gnutls_session_t m_tls = nullptr;
    gnutls_certificate_credentials_t m_credentials = nullptr;
    std::string m_out;
    std::size_t m_sent = 0;
};

// What was answered, and how long it took.
struct Figures {
    long answered = 0;
    long refused = 0;
    std::vector<float> microseconds;

    void note(Clock::time_point asked, bool taken) {
        ++(taken ? answered : refused);
        microseconds.push_back(static_cast<float>(secondsSince(asked) * 1e6));
    }
    void print(double seconds) {
        std::sort(microseconds.begin(), microseconds.end());
        const auto percentile = [&](double part) {
            return microseconds.empty()
                       ? 0
                       : microseconds[static_cast<std::size_t>(part * (microseconds.size() - 1))];
        };
        std::printf(
            "{\"answered\": %ld, \"refused\": %ld, \"seconds\": %.3f, \"p50\": %.0f, \"p99\": %.0f}\n",
            answered, refused, seconds, percentile(0.5), percentile(0.99));
    }
};

}  // namespace bench
