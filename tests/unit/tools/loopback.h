// SPDX-License-Identifier: GPL-3.0-only
// A listener on loopback that hands its first client to a function on a thread of its own and disconnects it when that
// returns.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>

class LoopbackListener {
  public:
    using Serve = std::function<void(int client)>;

    explicit LoopbackListener(Serve serve) : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(m_listener, reinterpret_cast<sockaddr*>(&address), length);
        listen(m_listener, 1);
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = std::to_string(ntohs(address.sin_port));
        m_thread = std::thread([listener = m_listener, serve = std::move(serve)] {
            const int client = accept(listener, nullptr, nullptr);
            if (client < 0)
                return;
            serve(client);
            close(client);
        });
    }
    ~LoopbackListener() { finish(); }
    LoopbackListener(const LoopbackListener&) = delete;
    LoopbackListener& operator=(const LoopbackListener&) = delete;

    const std::string& port() const { return m_port; }
    // Takes no client any more, and waits until the one that came is served.
    void finish() {
        if (!m_thread.joinable())
            return;
        shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        close(m_listener);
    }
    // Answers a client and reads until it has disconnected.
    static void answer(int client, const std::string& text) {
        send(client, text.data(), text.size(), MSG_NOSIGNAL);
        shutdown(client, SHUT_WR);
        drain(client);
    }
    static void drain(int client) {
        char block[4096];
        while (recv(client, block, sizeof block, 0) > 0) {
        }
    }

  private:
    int m_listener;
    std::string m_port;
    std::thread m_thread;
};
