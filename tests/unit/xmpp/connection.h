// SPDX-License-Identifier: GPL-3.0-only
// A client with a scripted server, a port that refuses and one that is silent.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/unit/xmpp/network.h"
#include "xmpp/transport.h"

using Events = std::vector<std::string>;

inline const gloox::JID kService("pubsub.example.org");

// A client with a scripted server.
class Connection : public Network {
  protected:
    ~Connection() override { disposeClient(); }
    void start(ScriptedServer::Script script, const std::string& host = "127.0.0.1",
               const std::string& listenOn = "127.0.0.1") {
        server = std::make_unique<ScriptedServer>(std::move(script), listenOn);
        makeClient(host, server->port());
    }
    void logIn() {
        ASSERT_TRUE(connect());
        ASSERT_TRUE(waitFor([this] { return isConnected(); })) << server->failure();
    }
    const xmpp::Transport& transport() const {
        return dynamic_cast<xmpp::Transport&>(*client->connectionImpl());
    }

    std::unique_ptr<ScriptedServer> server;
};

inline void logInAndWait(Peer& peer) {
    peer.logIn();
    peer.untilEnd();
}

// A port of the loopback interface that nobody listens on.
inline int freePort() {
    ScriptedServer server([](Peer&) {});
    return server.port();
}

// A port that answers no connection: its backlog is full.
class BlackHole {
  public:
    BlackHole() {
        m_fds.push_back(::socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(m_fds[0], reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(m_fds[0], 0);
        socklen_t length = sizeof address;
        getsockname(m_fds[0], reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
        for (int i = 0; i < 3; ++i) {
            m_fds.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            [[maybe_unused]] const int started =
                ::connect(m_fds.back(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        }
    }
    ~BlackHole() {
        for (const int fd : m_fds)
            ::close(fd);
    }
    int port() const { return m_port; }

  private:
    std::vector<int> m_fds;
    int m_port = 0;
};
