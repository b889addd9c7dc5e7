// SPDX-License-Identifier: GPL-3.0-only
// A subscription that lasts: one call whose answers are taken until enough came, placed again whenever the
// service ended it, was gone or had no connection to its server. Keeps the call and what happened to it.
#pragma once

#include <deque>
#include <functional>
#include <string>

#include "tools/client.h"
#include "tools/console.h"
#include "tools/verbs.h"

class Listener {
  public:
    struct Target {
        QSBus bus;
        std::string method;
        std::string payload;
    };
    // What an answer was to the caller.
    enum class Then {
        Wait,     // none that counts
        Counted,  // one that counts; more come on the same call
        Again,    // one that counts and used the call up
        Leave,    // nobody wants more
        Refuse    // the subscription cannot be had; the reply says why
    };
    using OnAnswer = std::function<Then(Reply&)>;
    using OnSignal = std::function<void(int)>;

    Listener(Console& console, Bounds bounds) : m_console(console), m_bounds(bounds) {}
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    BusClient& client() { return m_client; }
    // Signals 2 and 15 end the listening; `onSignal` hears of them first.
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
    bool takeVerdict(Then then);
    void takeStatus(const Reply& reply);
    Exit conclude();
    void leave();
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
    bool m_gone = false;        // and is not now
    bool m_answered = false;    // at least once, in whatever way
    bool m_accepted = false;    // the call in place was answered with yes
    bool m_connecting = false;  // the call in place follows the connection's status
    bool m_leaving = false;
    bool m_timeUp = false;
    guint m_sources[4] = {};  // two signals, the time, the first silence
};
