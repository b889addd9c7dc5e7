// SPDX-License-Identifier: GPL-3.0-only
// The lookup's thread lives as long as the system's resolver takes; the answer is passed to the loop's
// context as a source. The thread uses the task before that and the loop after it, so no lock is needed.
#include "xmpp/lookup.h"

#include <netdb.h>

#include <atomic>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

namespace xmpp {
namespace {

// A name server that does not answer blocks a thread for about ten seconds, so the number of
// threads is bounded.
constexpr int kMaxThreads = 8;
std::atomic<int> runningThreads = 0;

struct AddressList {
    addrinfo* first = nullptr;

    AddressList() = default;
    AddressList(const AddressList&) = delete;
    AddressList& operator=(const AddressList&) = delete;
    ~AddressList() {
        if (first)
            freeaddrinfo(first);
    }
};

int query(const std::string& host, int port, int flags, std::vector<SocketAddress>& addresses) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags | AI_NUMERICSERV;
    AddressList list;
    const int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list.first);
    for (const addrinfo* info = result == 0 ? list.first : nullptr; info; info = info->ai_next) {
        SocketAddress address;
        address.length = info->ai_addrlen;
        memcpy(&address.storage, info->ai_addr, info->ai_addrlen);
        addresses.push_back(address);
    }
    return result;
}

}  // namespace

std::string SocketAddress::text() const {
    char host[NI_MAXHOST] = "";
    if (getnameinfo(get(), length, host, sizeof host, nullptr, 0, NI_NUMERICHOST) != 0)
        return "(no address)";
    return host;
}

SocketAddress SocketAddress::numeric(const std::string& host, int port) {
    std::vector<SocketAddress> addresses;
    if (host.empty() || query(host, port, AI_NUMERICHOST, addresses) != 0 || addresses.empty())
        return {};
    return addresses.front();
}

// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions): an aggregate, made in one place
struct Lookup::Task {
    std::string host;
    int port;
    GMainContext* context;  // one reference
    Done done;              // used by the loop only; empty once the lookup is deleted
    std::vector<SocketAddress> addresses;
    std::string error;

    ~Task() { g_main_context_unref(context); }
};

Lookup::Lookup(const std::string& host, int port, GMainContext* context, Done done)
    : m_task(new Task{host, port, g_main_context_ref(context), std::move(done), {}, {}}) {
    if (++runningThreads <= kMaxThreads) {
        try {
            std::thread(&Lookup::run, m_task).detach();
            return;
        } catch (const std::system_error& error) {
            m_task->error = error.what();
        }
    } else {
        m_task->error = "too many lookups are waiting for a name server";
    }
    --runningThreads;
    deliver(m_task);
}

Lookup::~Lookup() {
    m_task->done = nullptr;
}

void Lookup::run(std::shared_ptr<Task> task) {
    const int result = query(task->host, task->port, 0, task->addresses);
    if (result != 0)
        task->error = result == EAI_SYSTEM ? strerror(errno) : gai_strerror(result);
    deliver(std::move(task));
    --runningThreads;
}

gboolean Lookup::deliver(gpointer data) {
    Task& task = **static_cast<std::shared_ptr<Task>*>(data);
    // Copied, because the callback may delete the lookup and with it this function.
    if (const Done done = task.done)
        done(std::move(task.addresses), task.error);
    return G_SOURCE_REMOVE;
}

// The task is released with the source, whether it was delivered or not.
void Lookup::deliver(std::shared_ptr<Task> task) {
    GMainContext* context = g_main_context_ref(task->context);
    const auto release = [](gpointer data) { delete static_cast<std::shared_ptr<Task>*>(data); };
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, &Lookup::deliver, new std::shared_ptr<Task>(std::move(task)), release);
    g_source_attach(source, context);
    g_source_unref(source);
    g_main_context_unref(context);
}

}  // namespace xmpp
