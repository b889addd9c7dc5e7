// SPDX-License-Identifier: GPL-3.0-only
// A long-lived subscription: one call whose answers are handled until enough items came, placed again
// whenever the service ended it, left the bus or lost its connection. Keeps the call and its state.
#pragma once

#include <deque>
#include <functional>
#include <string>

#include "tools/client.h"
#include "tools/console.h"
#include "tools/verbs.h"

// Whether a refusal says that the service has no connection to its server.
bool lacksConnection(const Reply& reply);

class Listener {
  public:
    struct Target {
        QSBus bus;
        std::string method;
        std::string payload;
    };
    // What the caller makes of an answer.
    enum class Verdict {
        Wait,     // not an item
        Counted,  // an item; more come on the same call
        Again,    // an item that used the call up
        Stop,     // no more are wanted
        Refuse    // the subscription was refused; the reply says why
    };
    using OnAnswer = std::function<Verdict(Reply&)>;
    using OnSignal = std::function<void(int)>;

    Listener(Console& console, Bounds bounds) : m_console(console), m_bounds(bounds) {}
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    BusClient& client() { return m_client; }
    // A signal, the time or the count ends it.
    bool isStopping() const { return m_stopping; }
    // SIGINT and SIGTERM end the subscription; `onSignal` is called first.
    Exit run(const Target& target, const OnAnswer& onAnswer, OnSignal onSignal = nullptr);

  private:
    enum class Kind { Answer, Ended, Gone, Back };
    struct Event {
        Kind kind;
        Reply reply;
    };

    bool open(QSBus bus, Reply& failure);
    void startSources();
    void note(Kind kind, Reply reply = {});
    void place();
    void waitForConnection();
    bool take(Event event, Reply& failure);
    bool takeAnswer(Reply& reply);
    bool takeVerdict(Verdict verdict);
    void takeStatus(const Reply& reply);
    Exit conclude();
    void stop();
    static gboolean onInterrupt(gpointer data);
    static gboolean onTermination(gpointer data);
    static gboolean onTimeUp(gpointer data);
    static gboolean onSilence(gpointer data);

    Console& m_console;
    BusClient m_client;
    Bounds m_bounds;
    Target m_target;
    const OnAnswer* m_onAnswer = nullptr;
    OnSignal m_onSignal;
    std::deque<Event> m_events;
    unsigned m_counted = 0;
    bool m_seen = false;        // the service was on the bus
    bool m_gone = false;        // and has left it
    bool m_answered = false;    // at least once, with success or not
    bool m_accepted = false;    // the open call was accepted
    bool m_connecting = false;  // the open call follows the connection status
    bool m_stopping = false;
    bool m_timeUp = false;
    guint m_sources[4] = {};  // two signals, the time limit, the first silence
};
