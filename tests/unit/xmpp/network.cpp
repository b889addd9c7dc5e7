// SPDX-License-Identifier: GPL-3.0-only
// The watched client.
#include "tests/unit/xmpp/network.h"

#include <filesystem>

bool waitFor(const std::function<bool()>& condition, int milliseconds) {
    const gint64 end = g_get_monotonic_time() + milliseconds * 1'000LL;
    bool late = false;
    const auto expire = [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
    };
    const guint timer = g_timeout_add(static_cast<guint>(milliseconds), expire, &late);
    while (!condition() && !late && g_get_monotonic_time() < end)
        g_main_context_iteration(nullptr, TRUE);
    if (!late)
        g_source_remove(timer);
    return condition();
}

void runFor(int milliseconds) {
    const gint64 end = g_get_monotonic_time() + milliseconds * 1'000LL;
    waitFor([end] { return g_get_monotonic_time() >= end; }, milliseconds);
}

int descriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

int threads() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
        ++count;
    return count;
}

Network::Network() = default;

Network::~Network() {
    disposeClient();
    settle();
}

void Network::makeClient(const std::string& host, int port) {
    disposeClient();
    client = new xmpp::Client(gloox::JID("device@example.org/tv"), "secret", port);
    client->setServer(host);
    client->setTls(gloox::TLSDisabled);
    client->setPubSubService(gloox::JID("pubsub.example.org"));
    client->registerConnectionListener(&listener);
    client->registerConnectionListener(&m_watchDropper);
    client->registerMessageHandler(&listener);
    manager = std::make_unique<xmpp::Manager>(client);
}

bool Network::connect(const std::string& localAddress) {
    if (!client->connect(localAddress, nullptr))
        return false;
    GIOChannel* channel = g_io_channel_unix_new(client->socket());
    watch = g_io_create_watch(channel, GIOCondition(G_IO_IN | G_IO_ERR | G_IO_HUP | G_IO_NVAL));
    g_source_set_callback(watch, G_SOURCE_FUNC(&Network::onReady), this, nullptr);
    g_source_attach(watch, nullptr);
    g_io_channel_unref(channel);
    return true;
}

gboolean Network::onReady(GIOChannel*, GIOCondition, gpointer data) {
    auto* self = static_cast<Network*>(data);
    return self->client && self->client->recv(10) == gloox::ConnNoError;
}

void Network::dropWatch() {
    if (!watch)
        return;
    g_source_destroy(watch);
    g_source_unref(watch);
    watch = nullptr;
}

void Network::disposeClient() {
    dropWatch();
    xmpp::Client::dispose(std::exchange(client, nullptr));
}

void Network::removeListeners() {
    client->removeConnectionListener(&listener);
    client->removeConnectionListener(&m_watchDropper);
}
