// SPDX-License-Identifier: GPL-3.0-only
// `subscribe --newest` and `unsubscribe`: receiving the newest item of an application's endpoint, which the
// service acknowledges by itself. It ends a subscription with its first item, so each item is followed by a
// new subscription. `subscribe` without --newest is in receive.cpp. Keeps no state.
#include <csignal>

#include "tools/command.h"
#include "tools/listener.h"
#include "tools/verbs.h"
#include "util/jsonref.h"

std::string endpointItem(const std::string& payload, bool json) {
    const JsonRef item = parseWholeJson(payload);
    if (!json)
        return textMember(item.get(), "item");
    return JsonObject()
        .set("endpoint", textMember(item.get(), "endpoint"))
        .set("item", textMember(item.get(), "item"))
        .line();
}

namespace {

class Subscriber {
  public:
    Subscriber(const Invocation& invocation, Console& console, Bounds bounds)
        : m_console(console),
          m_endpoint(invocation.arguments[0]),
          m_command(invocation.command),
          m_listener(console, bounds) {}

    Exit run() {
        if (m_command.given() && !m_command.exists())
            return m_console.usage("there is no program " + m_command.name() + "; no item was received");
        const std::string payload = JsonObject().set("endpoint", m_endpoint).set("subscribe", true).line();
        const Exit exit = m_listener.run(
            {QSBus::Public, "subscribe", payload}, [this](Reply& reply) { return take(reply); },
            [this](int number) { pass(number); });
        return m_failed && (exit == Exit::Ok || exit == Exit::TimedOut) ? Exit::CommandFailed : exit;
    }

  private:
    using Verdict = Listener::Verdict;

    Verdict take(Reply& reply) {
        const JsonRef answer = parseWholeJson(reply.payload);
        if (jsonMember(answer.get(), "item"))
            return takeItem(reply.payload);
        if (textMember(answer.get(), "status") == "subscribed") {
            reply = {Exit::Refused, "",
                     "another process of this application already waits for " + m_endpoint +
                         " and gets its next item; `pubsubctl unsubscribe` ends its wait"};
            return Verdict::Refuse;
        }
        if (!m_announced)
            m_console.message("receiving the items of " + m_endpoint);
        m_announced = true;
        return Verdict::Wait;
    }

    Verdict takeItem(const std::string& payload) {
        const std::string text = endpointItem(payload, m_console.json());
        if (!m_command.given())
            return m_console.line(text) ? Verdict::Again : Verdict::Stop;
        // The subscription has ended: items that come meanwhile wait in the service and on the server.
        m_listener.client().close();
        std::string problem;
        if (!m_command.run(text, m_listener.client(), problem)) {
            m_console.message(problem);
            m_failed = true;
        }
        return Verdict::Again;
    }

    // A terminal interrupts the command itself.
    void pass(int number) const {
        if (number != SIGINT)
            m_command.signal(number);
    }

    Console& m_console;
    std::string m_endpoint;
    Command m_command;
    Listener m_listener;
    bool m_announced = false;
    bool m_failed = false;
};

// The second answer comes from the server, and only when the service was connected at the first; if the
// connection was lost in between, it has been answered by the time the status is known.
class Unsubscription {
  public:
    Unsubscription(const Invocation& invocation, BusClient& client)
        : m_timeout(invocation.timeoutSeconds), m_client(client) {}

    Reply run(const std::string& payload) {
        Reply opened = m_client.open(
            methodUri("unsubscribe"), payload, [this](Reply reply) { take(std::move(reply)); }, [] {});
        if (opened.exit != Exit::Ok)
            return opened;
        if (!waitFor(1))
            return timedOut(kService, m_timeout);
        if (m_last.exit != Exit::Ok || jsonMember(parseWholeJson(m_last.payload).get(), "status"))
            return m_last;
        const Reply status = m_client.call(methodUri("connectStatus"), "{}", m_timeout);
        if (boolMember(parseWholeJson(status.payload).get(), "connected") && !waitFor(2))
            return timedOut(kService, m_timeout);
        return m_last;
    }

  private:
    void take(Reply reply) {
        m_last = std::move(reply);
        m_answers++;
        if (m_answers == m_awaited)
            m_client.quit();
    }
    static gboolean onTimeUp(gpointer data) {
        auto* self = static_cast<Unsubscription*>(data);
        self->m_timeUp = true;
        self->m_client.quit();
        return G_SOURCE_CONTINUE;
    }
    bool waitFor(unsigned answers) {
        m_awaited = answers;
        m_timeUp = false;
        const guint timer = g_timeout_add_seconds(m_timeout, onTimeUp, this);
        bool alive = true;
        while (m_answers < m_awaited && !m_timeUp && alive)
            alive = m_client.run();
        g_source_remove(timer);
        m_awaited = 0;
        if (!alive)
            m_last = lostBus();
        return m_answers >= answers || !alive;
    }

    unsigned m_timeout;
    BusClient& m_client;
    Reply m_last;
    unsigned m_answers = 0;
    unsigned m_awaited = 0;  // how many end the wait; 0 when not waiting
    bool m_timeUp = false;
};

}  // namespace

Exit runSubscribe(const Invocation& invocation, Console& console) {
    if (!invocation.has("newest"))
        return runReceive(invocation, console);
    Bounds bounds;
    std::string problem;
    if (invocation.has("retries"))
        return console.usage(
            "--newest and --retries are mutually exclusive: the service acknowledged the item");
    if (!readBounds(invocation, bounds, problem))
        return console.usage(problem);
    return Subscriber(invocation, console, bounds).run();
}

Exit runUnsubscribe(const Invocation& invocation, Console& console) {
    const std::string& endpoint = invocation.arguments[0];
    JsonObject payload;
    payload.set("endpoint", endpoint);
    if (invocation.has("onclose"))
        payload.set("onclose", true);
    // Asks the bus layer for the second answer; the service itself does not read the member.
    payload.set("subscribe", true);
    Reply reply;
    auto client = openBus(QSBus::Public, reply);
    if (client)
        reply = Unsubscription(invocation, *client).run(payload.line());
    const bool nobody = textMember(parseWholeJson(reply.payload).get(), "status") == "not subscribed";
    return console.finish(reply,
                          nobody ? "nobody was subscribed to " + endpoint : "unsubscribed from " + endpoint);
}
