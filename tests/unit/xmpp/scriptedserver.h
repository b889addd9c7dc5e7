// SPDX-License-Identifier: GPL-3.0-only
// A real server on a loopback port that runs a test's script for each connection, in a thread of its own.
#pragma once

#include <gnutls/gnutls.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "tests/unit/xmpp/certificates.h"

// The server's end of one connection. Every wait has a deadline; errors are thrown and end the script.
class Peer {
  public:
    explicit Peer(int fd) : m_fd(fd) {}
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // Reads until `text` has arrived, and returns everything up to its end.
    std::string until(const std::string& text);
    // Reads `count` bytes and returns them.
    std::string bytes(std::size_t count);
    // Reads until the client has closed.
    std::string untilEnd();
    void send(const std::string& text);
    // Over the connection as it is, with TLS or without.
    void sendRaw(const std::string& bytes);

    // Answers one stream header.
    void openStream(const std::string& features);
    // Offers TLS, accepts it, and stops before the handshake.
    void agreeOnTls();
    void handshake(const Identity& identity, const std::string& versions = "+VERS-TLS1.3:+VERS-TLS1.2");
    // TLS (unless `identity` is null), PLAIN and binding; returns after the result of the binding was sent.
    void logIn(const Identity* identity = nullptr, const std::string& versions = "+VERS-TLS1.3:+VERS-TLS1.2");
    void authenticate();
    void bind();
    // TLS end of data.
    void closeTls();
    void close();
    // Closes so that the client sees a reset.
    void reset();
    // From now on no packet of the client reaches the connection, and so none is acknowledged.
    void dropPackets(bool drop = true);
    std::string address() const;

    std::string serverName;  // requested by the client in its handshake

  private:
    void receiveMore();

    int m_fd;
    std::string m_in;
    gnutls_session_t m_session = nullptr;
    gnutls_certificate_credentials_t m_credentials = nullptr;
};

class ScriptedServer {
  public:
    using Script = std::function<void(Peer&)>;

    explicit ScriptedServer(Script script, const std::string& address = "127.0.0.1");
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    int port() const { return m_port; }
    int connections() const { return m_connections; }
    // Why the last script ended early; empty when none did.
    std::string failure() const;
    // No connection is accepted any more.
    void stop();

  private:
    void run();

    Script m_script;
    int m_listener = -1;
    int m_port = 0;
    std::atomic<int> m_connections = 0;
    std::atomic<bool> m_stopped = false;
    mutable std::mutex m_mutex;
    std::string m_failure;
    std::thread m_thread;
};
