// SPDX-License-Identifier: GPL-3.0-only
// The life of a lasting subscription. What the bus tells is noted in order and taken from the loop below, so
// that a call may be replaced while it is being answered.
#include "tools/listener.h"

#include <glib-unix.h>

#include <csignal>
#include <utility>

#include "util/jsonref.h"

// Without a connection the service leaves a first answer open; a person is told so after this long.
static constexpr unsigned kSilenceSeconds = 3;

bool readBounds(const Invocation& invocation, Bounds& bounds, std::string& problem) {
    const std::string count = invocation.value("count");
    const std::string seconds = invocation.value("wait");
    if (invocation.has("count") && !parseCount(count, bounds.count))
        problem = "-C takes a whole number from 1 to 1000000, not \"" + count + "\"";
    else if (invocation.has("wait") && !parseCount(seconds, bounds.seconds))
        problem = "-W takes a whole number of seconds, not \"" + seconds + "\"";
    return problem.empty();
}

Listener::~Listener() {
    for (const guint source : m_sources) {
        if (source)
            g_source_remove(source);
    }
}

bool Listener::open(QSBus bus, Reply& failure) {
    std::string words;
    if (m_client.connect(bus, nullptr, words) && m_client.attach(words))
        return true;
    failure = noBus(words);
    return false;
}

void Listener::leave() {
    m_leaving = true;
    m_client.quit();
}

gboolean Listener::onInterrupt(gpointer data) {
    auto* self = static_cast<Listener*>(data);
    if (self->m_onSignal)
        self->m_onSignal(SIGINT);
    self->leave();
    return G_SOURCE_CONTINUE;
}

gboolean Listener::onTermination(gpointer data) {
    auto* self = static_cast<Listener*>(data);
    if (self->m_onSignal)
        self->m_onSignal(SIGTERM);
    self->leave();
    return G_SOURCE_CONTINUE;
}

gboolean Listener::onTimeUp(gpointer data) {
    auto* self = static_cast<Listener*>(data);
    self->m_sources[2] = 0;
    self->m_timeUp = true;
    self->leave();
    return G_SOURCE_REMOVE;
}

gboolean Listener::onSilence(gpointer data) {
    auto* self = static_cast<Listener*>(data);
    self->m_sources[3] = 0;
    if (!self->m_answered)
        self->m_console.complain("no answer yet: the service has no connection to its server; waiting");
    return G_SOURCE_REMOVE;
}

void Listener::startSources() {
    m_sources[0] = g_unix_signal_add(SIGINT, onInterrupt, this);
    m_sources[1] = g_unix_signal_add(SIGTERM, onTermination, this);
    if (m_bounds.seconds)
        m_sources[2] = g_timeout_add_seconds(m_bounds.seconds, onTimeUp, this);
    m_sources[3] = g_timeout_add_seconds(kSilenceSeconds, onSilence, this);
}

void Listener::note(Kind kind, Reply reply) {
    m_events.push_back({kind, std::move(reply)});
    m_client.quit();
}

// Replaces the call in place. What it still said is dropped: no item is among it, since the call was used up,
// ended or never accepted.
void Listener::place() {
    std::erase_if(m_events,
                  [](const Event& event) { return event.kind == Kind::Answer || event.kind == Kind::Ended; });
    m_accepted = false;
    const std::string method = m_connecting ? "connectStatus" : m_target.method;
    const std::string payload = m_connecting ? "{\"subscribe\":true}" : m_target.payload;
    Reply placed = m_client.open(
        methodUri(method), payload, [this](Reply reply) { note(Kind::Answer, std::move(reply)); },
        [this] { note(Kind::Ended); });
    if (placed.exit != Exit::Ok)
        note(Kind::Answer, std::move(placed));
}

void Listener::waitForConnection() {
    m_console.complain("the service has no connection to its server; waiting for it");
    m_connecting = true;
    place();
}

void Listener::takeStatus(const Reply& reply) {
    if (!boolMember(parseWholeJson(reply.payload).get(), "connected"))
        return;
    m_connecting = false;
    place();
}

static bool lacksConnection(const Reply& reply) {
    return reply.exit == Exit::NotConnected ||
           textMember(parseWholeJson(reply.payload).get(), "errorText") == "Service not initialized";
}

bool Listener::takeVerdict(Then then) {
    const bool counts = then == Then::Counted || then == Then::Again;
    m_counted += counts;
    if (then == Then::Leave || (counts && m_counted == m_bounds.count))
        leave();
    else if (then == Then::Again && !m_leaving)
        place();
    return then != Then::Refuse;
}

// False when `reply` ends the listening.
bool Listener::takeAnswer(Reply& reply) {
    m_answered = true;
    if (reply.exit != Exit::Ok && reply.payload.empty())
        return reply.exit == Exit::NotConnected && m_seen;  // it is gone, and told of when it is back
    if (m_connecting) {
        takeStatus(reply);
        return true;
    }
    if (reply.exit == Exit::Ok) {
        m_accepted = true;
        return takeVerdict((*m_onAnswer)(reply));
    }
    if (!lacksConnection(reply))
        return false;
    // An accepted subscription outlives the connection, and items may be on their way on it.
    if (m_accepted)
        m_console.complain("the connection was lost; items go on when it is back");
    else
        waitForConnection();
    return true;
}

bool Listener::take(Event event, Reply& failure) {
    if (event.kind == Kind::Answer) {
        failure = std::move(event.reply);
        return takeAnswer(failure);
    }
    if (event.kind == Kind::Ended) {
        place();
        return true;
    }
    if (event.kind == Kind::Gone) {
        m_gone = true;
        m_console.complain(std::string(kService) + " left the bus; waiting until it is back");
        return true;
    }
    m_seen = true;
    if (!std::exchange(m_gone, false))
        return true;
    m_console.complain(std::string(kService) + " is back");
    m_connecting = false;
    place();
    return true;
}

Exit Listener::conclude() {
    m_client.close();
    if (!m_timeUp || m_counted >= m_bounds.count)
        return Exit::Ok;
    m_console.complain("the time is over: " + std::to_string(m_counted) + " of " +
                       std::to_string(m_bounds.count) + " came");
    return Exit::TimedOut;
}

Exit Listener::run(const Target& target, const OnAnswer& onAnswer, OnSignal onSignal) {
    m_target = target;
    m_onAnswer = &onAnswer;
    m_onSignal = std::move(onSignal);
    Reply failure;
    if (!open(target.bus, failure))
        return m_console.finish(failure, "");
    startSources();
    m_client.watch(kService, [this](bool there) { note(there ? Kind::Back : Kind::Gone); });
    place();
    while (!m_leaving) {
        if (m_events.empty()) {
            if (!m_client.run() && !m_leaving)
                return m_console.finish(lostBus(), "");
            continue;
        }
        Event event = std::move(m_events.front());
        m_events.pop_front();
        if (!take(std::move(event), failure))
            return m_console.finish(failure, "");
    }
    return conclude();
}
