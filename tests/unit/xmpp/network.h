// SPDX-License-Identifier: GPL-3.0-only
// A client on a real socket, with a watch like the service's.
#pragma once

#include <glib.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "tests/unit/xmpp/dialogue.h"
#include "tests/unit/xmpp/scriptedserver.h"

// Runs the default context until `condition` holds; false when it does not within `milliseconds`.
bool waitFor(const std::function<bool()>& condition, int milliseconds = 10'000);
// Runs the default context for that long: for what must not happen, or for measuring.
void runFor(int milliseconds);
// Open descriptors of this process.
int descriptors();
// Threads of this process.
int threads();

class Network : public testing::Test {
  protected:
    Network();
    ~Network() override;

    // Creates a client without TLS for the server's port.
    void makeClient(const std::string& host, int port);
    // Connects and watches socket(); returns the result of connect().
    bool connect(const std::string& localAddress = {});
    void disposeClient();
    // From here on nobody is notified of the client's connection.
    void removeListeners();
    bool isConnected() const { return listener.count("connect") > 0; }
    bool isOver() const { return listener.count("disconnect") > 0; }

    RecordingListener listener;
    RecordingHandler handler;
    xmpp::Client* client = nullptr;
    std::unique_ptr<xmpp::Manager> manager;
    GSource* watch = nullptr;

  private:
    void dropWatch();
    static gboolean onReady(GIOChannel* channel, GIOCondition condition, gpointer self);

    class WatchDropper : public gloox::ConnectionListener {
      public:
        explicit WatchDropper(Network& network) : m_network(network) {}
        void onConnect() override {}
        void onDisconnect(gloox::ConnectionError) override { m_network.dropWatch(); }
        bool onTLSConnect(const gloox::CertInfo&) override { return true; }

      private:
        Network& m_network;
    };
    WatchDropper m_watchDropper{*this};
};
