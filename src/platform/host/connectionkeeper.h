// SPDX-License-Identifier: GPL-3.0-only
// com.zelt.host: asks the push service to connect whenever it is not connected although there is Internet and
// an account. The service's own alarms come late on purpose, to spare a battery, and do not come at all after
// some failures.
//
// Follows the service and the connection manager over the private bus, whoever provides them. While the
// service is connected there is no timer. That somebody ended the connection on purpose is kept on disk
// (connection.json below the state folder) and survives restarts of both; everything else is in memory.
#pragma once

#include <cstdint>
#include <string>

#include "platform/host/backoff.h"
#include "platform/host/busservice.h"
#include "platform/host/config.h"
#include "platform/host/powersupply.h"

struct json_object;

class ConnectionKeeper {
  public:
    ConnectionKeeper(const HostConfig& config, PowerSupply& supply);
    ~ConnectionKeeper();
    ConnectionKeeper(const ConnectionKeeper&) = delete;
    ConnectionKeeper& operator=(const ConnectionKeeper&) = delete;

    StartResult start(GMainLoop* loop);
    // Events of the machine: unless the service is connected, it is asked at once.
    void resumed();
    void accountChanged();

  private:
    // What the timer ends.
    enum class Timer {
        Delay,   // between two attempts
        Moment,  // before an attempt that follows an event of the machine
        Answer,  // the time for an attempt to show a result
    };

    bool mayAsk() const;
    void askSoon();
    void askLater();
    void stop();
    void arm(Timer what, int64_t milliseconds);
    void attempt();
    void ask(bool hasAccount);
    void isConnected();
    void isNotConnected(json_object* status);
    void followService();
    void setEnded(bool ended);
    void loadEnded();
    // False when the call cannot be placed, for instance because nobody provides the service.
    bool call(const char* uri, const char* payload, QSFilter callback = nullptr, QSToken* token = nullptr);
    void cancel(QSToken& token);
    void follow(const char* service, QSFilter onPresence);

    static bool onKeep(QSHandle* handle, QSMessage* message, void* context);
    static bool onStatusAsked(QSHandle* handle, QSMessage* message, void* context);
    static bool onService(QSHandle* handle, QSMessage* message, void* context);
    static bool onServiceStatus(QSHandle* handle, QSMessage* message, void* context);
    static bool onServiceDetails(QSHandle* handle, QSMessage* message, void* context);
    static bool onConnectionManager(QSHandle* handle, QSMessage* message, void* context);
    static bool onNetwork(QSHandle* handle, QSMessage* message, void* context);
    static bool onAccount(QSHandle* handle, QSMessage* message, void* context);
    static gboolean onTimer(gpointer data);

    BusService m_bus;
    PowerSupply& m_supply;
    const bool m_keeps;
    const bool m_onBattery;  // delays on battery too
    const std::string m_file;
    Backoff m_backoff;
    guint m_timer = 0;
    Timer m_timerOf = Timer::Delay;

    bool m_ended = false;  // somebody ended the connection on purpose
    // The service, since it appeared.
    QSToken m_statusCall = 0;
    bool m_statusKnown = false;
    bool m_connected = false;
    bool m_byItself = false;      // its next connection is its own doing
    bool m_hasSession = false;    // it knows an account
    bool m_endedThere = false;    // its method `disconnect` ended the connection
    bool m_accountGiven = false;  // the account service has had an account
    // The network, as last reported.
    QSToken m_networkCall = 0;
    std::string m_network;
    bool m_online = false;
    QSToken m_accountCall = 0;
};
