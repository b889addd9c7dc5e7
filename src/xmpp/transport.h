// SPDX-License-Identifier: GPL-3.0-only
// The TCP connection: resolves and connects without blocking the loop, and queues output that cannot
// be sent yet.
//
// socket() returns the same number from connect() to the end: an event object until the connection is
// established, then the socket itself in its place. It becomes readable whenever recv() has something to
// report. Only recv() reports errors, once; a failed send marks the connection and leaves the report to
// recv(). Nothing survives the connection.
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
    // `localAddress`: numeric address to bind, "" for any. All arguments but `host` and
    // `localAddress` are borrowed.
    Transport(gloox::ConnectionDataHandler* handler, const gloox::LogSink& log, const std::string& host,
              int port, const std::string& localAddress, GMainContext* context);
    ~Transport() override;
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    // The time limit from connect() to dropDeadline(); at other times there is no timer.
    void setDeadline(guint milliseconds) { m_deadline = milliseconds; }
    void dropDeadline();
    // Gives the connection up: the next recv() reports `error`. Only the first call counts.
    void fail(gloox::ConnectionError error);
    // Bytes that wait to be sent.
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
    std::deque<SocketAddress> m_addresses;  // not tried yet
    int m_attempt = -1;                     // the socket of the current attempt
    GSource* m_attemptSource = nullptr;
    GSource* m_writableSource = nullptr;  // while output waits
    GSource* m_deadlineSource = nullptr;  // until the session is established
    guint m_deadline = 60'000;
    std::string m_out;  // output; waiting from m_sent on
    std::size_t m_sent = 0;
    bool m_gathering = false;  // recv() is handling input; output waits until it is done
    gloox::ConnectionError m_failure = gloox::ConnNoError;  // for the next recv() to report
    // Small, so that the acknowledgements for one read are not held back for long.
    std::array<char, 16'384> m_in;
};

}  // namespace xmpp
