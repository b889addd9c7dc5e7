// SPDX-License-Identifier: GPL-3.0-only
// The TCP connection: resolves and connects without ever blocking the loop, and queues what cannot be sent
// yet.
//
// socket() is one number from connect() to the end: an event object until the connection stands, then the
// socket itself in its place. It becomes readable for everything that recv() has to report. Errors are
// reported by recv() alone, once; a send that fails marks the connection and leaves the report to it. Nothing
// survives the connection.
#pragma once

#include <glib.h>
#include <gloox/connectiontcpclient.h>

#include <array>
#include <deque>
#include <memory>
#include <string>

#include "xmpp/lookup.h"

namespace xmpp {

class Transport : public gloox::ConnectionTCPClient {
  public:
    // `localAddress`: numeric address to bind, "" for any. All arguments but `host` and `localAddress` are
    // borrowed.
    Transport(gloox::ConnectionDataHandler* handler, const gloox::LogSink& log, const std::string& host,
              int port, const std::string& localAddress, GMainContext* context);
    ~Transport() override;
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    // How long it may take from connect() to dropDeadline(); there is no timer at any other time.
    void setDeadline(guint milliseconds) { m_deadline = milliseconds; }
    void dropDeadline();
    // Gives the connection up: the next recv() reports `error`. Only the first one counts.
    void fail(gloox::ConnectionError error);
    // Bytes that wait for the socket.
    std::size_t queued() const { return m_out.size() - m_sent; }

    gloox::ConnectionError connect() override;
    gloox::ConnectionError recv(int timeout) override;
    bool send(const std::string& data) override;
    gloox::ConnectionError receive() override { return gloox::ConnNotConnected; }  // would block
    void disconnect() override;
    void cleanup() override;
    gloox::ConnectionBase* newInstance() const override;

  private:
    void onResolved(std::vector<SocketAddress> addresses, const std::string& error);
    void connectToNext();
    bool startConnecting(const SocketAddress& address);
    void bindLocally(int family);
    void onAttemptDone();
    void takeOver();
    void dropAttempt();
    void watchWritable();
    void dropWritable();
    void handle(const std::string& data);
    bool flush();
    static gboolean onDeadline(gpointer self);

    std::string m_host;
    std::string m_localAddress;
    GMainContext* m_context;                // one reference
    std::unique_ptr<Lookup> m_lookup;       // while the name is being looked up
    std::deque<SocketAddress> m_addresses;  // still to be tried
    int m_attempt = -1;                     // the socket of the attempt at hand
    GSource* m_attemptSource = nullptr;
    GSource* m_writableSource = nullptr;  // only while output waits
    GSource* m_deadlineSource = nullptr;  // only until the session is established
    guint m_deadline = 60'000;
    std::string m_out;  // output from m_sent on waits
    std::size_t m_sent = 0;
    bool m_gathering = false;  // recv() handles input: output waits until it is done
    gloox::ConnectionError m_failure = gloox::ConnNoError;  // for the next recv() to report
    // Small enough that the first acknowledgement of a piece does not wait long for the last.
    std::array<char, 16'384> m_in;
};

}  // namespace xmpp
