// SPDX-License-Identifier: GPL-3.0-only
// A long-lived subscription. Bus events are queued in order and handled in the loop below, so that a call may
// be replaced while it is being answered.
#include "tools/listener.h"

#include <glib-unix.h>

#include <csignal>
#include <utility>

#include "util/jsonref.h"

namespace {

// A service without a connection does not answer yet; the user is told so after this time.
constexpr unsigned kSilenceSeconds = 3;

}  // namespace

bool lacksConnection(const Reply& reply) {
    return reply.exit == Exit::NotConnected ||
           textMember(parseWholeJson(reply.payload).get(), "errorText") == "Service not initialized";
}

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
    std::string problem;
    if (m_client.connect(bus, nullptr, problem) && m_client.attach(problem))
        return true;
    failure = noBus(problem);
    return false;
}

void Listener::stop() {
    m_stopping = true;
    m_client.quit();
}

gboolean Listener::onInterrupt(gpointer data) {
    auto* self = static_cast<Listener*>(data);
    if (self->m_onSignal)
        self->m_onSignal(SIGINT);
    self->stop();
    return G_SOURCE_CONTINUE;
}

gboolean Listener::onTermination(gpointer data) {
    auto* self = static_cast<Listener*>(data);
    if (self->m_onSignal)
        self->m_onSignal(SIGTERM);
    self->stop();
    return G_SOURCE_CONTINUE;
}

gboolean Listener::onTimeUp(gpointer data) {
    auto* self = static_cast<Listener*>(data);
    self->m_sources[2] = 0;
    self->m_timeUp = true;
    self->stop();
    return G_SOURCE_REMOVE;
}

gboolean Listener::onSilence(gpointer data) {
    auto* self = static_cast<Listener*>(data);
    self->m_sources[3] = 0;
    if (!self->m_answered)
        self->m_console.message("no answer yet: the service has no connection to its server; waiting");
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

// Replaces the open call. Its queued answers are dropped: no item is among them, since the call was used up,
// ended or never accepted; or it is one that its service hands out again, since it was not acknowledged.
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
    m_console.message("the service has no connection to its server; waiting for it");
    m_connecting = true;
    place();
}

void Listener::takeStatus(const Reply& reply) {
    if (!boolMember(parseWholeJson(reply.payload).get(), "connected"))
        return;
    m_connecting = false;
    place();
}

bool Listener::takeVerdict(Verdict verdict) {
    const bool counts = verdict == Verdict::Counted || verdict == Verdict::Again;
    m_counted += counts;
    if (verdict == Verdict::Stop || (counts && m_counted == m_bounds.count))
        stop();
    else if (verdict == Verdict::Again && !m_stopping)
        place();
    return verdict != Verdict::Refuse;
}

// False when `reply` ends the subscription.
bool Listener::takeAnswer(Reply& reply) {
    m_answered = true;
    if (reply.exit != Exit::Ok && reply.payload.empty())
        return reply.exit == Exit::NotConnected && m_seen;  // it is gone; its return is reported
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
    // An accepted subscription outlives the connection, and items may be on their way.
    if (m_accepted)
        m_console.message("the connection was lost; delivery resumes when it is back");
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
        m_console.message(std::string(kService) + " left the bus; waiting for it to return");
        return true;
    }
    m_seen = true;
    if (!std::exchange(m_gone, false))
        return true;
    m_console.message(std::string(kService) + " is back");
    m_connecting = false;
    place();
    return true;
}

Exit Listener::conclude() {
    m_client.close();
    if (!m_timeUp || m_counted >= m_bounds.count)
        return Exit::Ok;
    m_console.message("timed out: " + std::to_string(m_counted) + " of " + std::to_string(m_bounds.count) +
                      " received");
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
    while (!m_stopping) {
        if (m_events.empty()) {
            if (!m_client.run() && !m_stopping)
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
