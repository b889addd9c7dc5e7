// SPDX-License-Identifier: GPL-3.0-only
// Looks up a host name's addresses without blocking the loop. Its thread ends with the answer.
//
// GLib's resolver would do, but its first use starts a worker thread that stays until the process ends.
// Keeps no cache.
#pragma once

#include <glib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace xmpp {

struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t length = 0;

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    int family() const { return storage.ss_family; }
    // The address without its port.
    std::string text() const;
    // A numeric IPv4 or IPv6 address, a zone included; length 0 for anything else.
    static SocketAddress numeric(const std::string& host, int port);
};

class Lookup {
  public:
    // In the order in which to try them; without any, `error` gives the reason.
    using Done = std::function<void(std::vector<SocketAddress> addresses, const std::string& error)>;

    // `done` is called once, from `context`, never from the constructor, unless the lookup is deleted first.
    Lookup(const std::string& host, int port, GMainContext* context, Done done);
    ~Lookup();
    Lookup(const Lookup&) = delete;
    Lookup& operator=(const Lookup&) = delete;

  private:
    struct Task;
    static void run(std::shared_ptr<Task> task);
    static void deliver(std::shared_ptr<Task> task);
    static gboolean deliver(gpointer data);

    std::shared_ptr<Task> m_task;
};

}  // namespace xmpp
