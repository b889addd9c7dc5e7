// SPDX-License-Identifier: GPL-3.0-only
// `handler`: registers on the private bus as the receiver of a node's items and prints them. The service
// keeps a registration forever, so it is withdrawn at every exit except a kill. With --confirm an item stays
// with the server until the answer to it says that it has been printed.
#include <glib-unix.h>
#include <unistd.h>

#include <csignal>

#include "platform/bus/qsraii.h"
#include "tools/verbs.h"
#include "util/jsonref.h"

namespace {

class ItemHandler {
  public:
    ItemHandler(const Invocation& invocation, Console& console)
        : m_console(console),
          m_node(invocation.arguments[0]),
          m_timeout(invocation.timeoutSeconds),
          m_confirms(invocation.has("confirm")),
          m_name("com.zelt.pubsubctl.p" + std::to_string(getpid())) {}
    ~ItemHandler();
    ItemHandler(const ItemHandler&) = delete;
    ItemHandler& operator=(const ItemHandler&) = delete;

    Exit run(unsigned count, unsigned seconds);

  private:
    bool open(Reply& failure);
    void startSources(unsigned seconds);
    Exit receive();
    Exit withdraw();
    std::string registration(bool withdrawing) const;
    void reportPresence(bool there);
    bool confirm(QSHandle* handle, QSMessage* message, bool heard);
    static bool onItem(QSHandle* handle, QSMessage* message, void* context);
    static gboolean onSignal(gpointer data);
    static gboolean onTimeUp(gpointer data);

    Console& m_console;
    BusClient m_client;
    std::string m_node;
    unsigned m_timeout;
    bool m_confirms;
    std::string m_name;
    unsigned m_wanted = 0;  // 0: no limit
    unsigned m_received = 0;
    bool m_stopping = false;  // interrupted, count reached, time over, or the reader is gone
    bool m_timeUp = false;
    bool m_wasGone = false;
    guint m_sources[3] = {};  // two signals and the time
};

ItemHandler::~ItemHandler() {
    for (const guint source : m_sources) {
        if (source)
            g_source_remove(source);
    }
}

bool ItemHandler::open(Reply& failure) {
    static constexpr QSMethod methods[] = {{.name = "item", .handler = onItem}, {}};
    std::string problem;
    if (m_client.connect(QSBus::Private, m_name.c_str(), problem) && m_client.serve(methods, this, problem) &&
        m_client.attach(problem))
        return true;
    failure = noBus(problem);
    return false;
}

// An item that is not confirmed is handed out again by the service.
bool ItemHandler::confirm(QSHandle* handle, QSMessage* message, bool heard) {
    BusError error;
    const char* answer = heard ? R"({"returnValue":true})" : R"({"returnValue":false})";
    return !m_confirms || QSMessageReply(handle, message, answer, error);
}

bool ItemHandler::onItem(QSHandle* handle, QSMessage* message, void* context) {
    auto* self = static_cast<ItemHandler*>(context);
    if (self->m_stopping)
        return self->confirm(handle, message, false);
    const bool heard = self->m_console.line(itemLine(QSMessageGetPayload(message), self->m_console.json()));
    if (!self->confirm(handle, message, heard))
        self->m_console.message("the item could not be confirmed and comes again");
    self->m_received += heard;
    if (!heard || self->m_received == self->m_wanted) {
        self->m_stopping = true;
        self->m_client.quit();
    }
    return true;
}

gboolean ItemHandler::onSignal(gpointer data) {
    auto* self = static_cast<ItemHandler*>(data);
    self->m_stopping = true;
    self->m_client.quit();
    return G_SOURCE_CONTINUE;
}

gboolean ItemHandler::onTimeUp(gpointer data) {
    auto* self = static_cast<ItemHandler*>(data);
    self->m_sources[2] = 0;
    self->m_timeUp = true;
    self->m_stopping = true;
    self->m_client.quit();
    return G_SOURCE_REMOVE;
}

void ItemHandler::startSources(unsigned seconds) {
    m_sources[0] = g_unix_signal_add(SIGINT, onSignal, this);
    m_sources[1] = g_unix_signal_add(SIGTERM, onSignal, this);
    if (seconds)
        m_sources[2] = g_timeout_add_seconds(seconds, onTimeUp, this);
}

std::string ItemHandler::registration(bool withdrawing) const {
    JsonObject payload;
    payload.set("node", m_node).set("endpoint", "zelt://" + m_name + "/item");
    if (withdrawing)
        payload.set("app", false);
    else if (m_confirms)
        payload.set("confirm", true);
    return payload.line();
}

void ItemHandler::reportPresence(bool there) {
    if (!there)
        m_console.message(std::string(kService) + " left the bus; delivery resumes when it is back");
    else if (m_wasGone)
        m_console.message(std::string(kService) + " is back");
    m_wasGone = !there;
}

Exit ItemHandler::run(unsigned count, unsigned seconds) {
    m_wanted = count;
    Reply reply;
    if (!open(reply))
        return m_console.finish(reply, "");
    startSources(seconds);
    m_client.watch(kService, [this](bool there) { reportPresence(there); });
    reply = m_client.call(methodUri("registerItemCallback"), registration(false), m_timeout);
    if (reply.exit != Exit::Ok && !m_stopping) {
        m_console.message(reply.problem);
        return reply.exit;
    }
    if (!m_stopping || m_received)  // items may overtake the reply
        m_console.message("receiving the items of " + m_node + " as " + m_name);
    const Exit received = receive();
    const Exit withdrawn = withdraw();
    return received == Exit::Ok ? withdrawn : received;
}

Exit ItemHandler::receive() {
    while (!m_stopping) {
        if (!m_client.run()) {
            m_console.message(lostBus().problem);
            return Exit::NotConnected;
        }
    }
    if (!m_timeUp || m_received >= m_wanted)
        return Exit::Ok;
    m_console.message("timed out: " + std::to_string(m_received) + " of " + std::to_string(m_wanted) +
                      " items received");
    return Exit::TimedOut;
}

// An interrupted registration is withdrawn too: it may have reached the service.
Exit ItemHandler::withdraw() {
    const std::string payload = registration(true);
    const Reply reply = m_client.call(methodUri("unRegisterItemCallback"), payload, m_timeout);
    if (reply.exit == Exit::Ok)
        return Exit::Ok;
    m_console.message(reply.problem);
    m_console.message(
        "the registration was not removed; remove it with: pubsubctl call unRegisterItemCallback '" +
        payload + "'");
    return reply.exit;
}

}  // namespace

std::string itemLine(const std::string& payload, bool json) {
    const JsonRef item = parseWholeJson(payload);
    if (!json)
        return textMember(item.get(), "item");
    return JsonObject()
        .set("node", textMember(item.get(), "node"))
        .set("itemid", textMember(item.get(), "itemid"))
        .set("item", textMember(item.get(), "item"))
        .line();
}

Exit runHandler(const Invocation& invocation, Console& console) {
    Bounds bounds;
    std::string problem;
    if (!readBounds(invocation, bounds, problem))
        return console.usage(problem);
    return ItemHandler(invocation, console).run(bounds.count, bounds.seconds);
}
