// SPDX-License-Identifier: GPL-3.0-only
// The push service on the device's public bus: calls of its public methods, and the items of the endpoints that
// are received. Comes back by itself when the service or the bus itself was restarted.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/bus/qs.h"
#include "unifiedpush/timer.h"
#include "util/jsonref.h"

// What a method answered.
struct DeviceAnswer {
    bool ok = false;
    bool offline = false;  // the service, the bus or the connection to the server is not there at the moment
    JsonRef json;
    std::string code, text;  // of a failure
};

class Device {
  public:
    Device();
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    std::function<void()> onAppeared;   // nothing is received yet
    std::function<void()> onConnected;  // to the server, after a loss
    std::function<void(const std::string& endpoint, json_object* item)> onItem;
    // The endpoint has another address from now on.
    std::function<void(const std::string& endpoint, const std::string& url)> onAddress;
    std::function<void(const std::string& endpoint)> onWithdrawn;       // its receipts are void
    std::function<void(const std::string& endpoint)> onReceiveRefused;  // does not exist, says the service

    // Connects to the bus, and again whenever it is lost.
    void start();
    bool isThere() const { return m_there; }
    // The service says that it has no connection to the server, and will say when it has one.
    bool isKnownOffline() const { return m_connectionKnown && !m_connected; }

    // `answered` is always called, later, and once.
    using Answered = std::function<void(const DeviceAnswer& answer)>;
    void call(const std::string& method, const JsonObject& payload, Answered answered);
    // Receives this endpoint too, from the end of this turn of the loop on.
    void receive(const std::string& endpoint);
    void stopReceiving(const std::string& endpoint) { m_wanted.erase(endpoint); }
    // Reports `onConnected` from now on. To be called while there is a connection: the service takes this
    // question for a wish to connect.
    void followConnection();

  private:
    struct Request {
        Device* device = nullptr;
        std::string method, payload;
        Answered answered;
    };
    struct Receive {
        Device* device = nullptr;
        QSToken token = 0;
        std::vector<std::string> endpoints;
    };
    struct Watch;

    static bool onService(QSHandle* handle, QSMessage* message, void* context);
    static bool onAnswer(QSHandle* handle, QSMessage* message, void* context);
    static bool onReceived(QSHandle* handle, QSMessage* message, void* context);
    static bool onReceiveEnded(QSHandle* handle, QSMessage* message, void* context);
    static bool onConnection(QSHandle* handle, QSMessage* message, void* context);
    static gboolean prepareWatch(GSource* source, gint* timeout);
    static gboolean dispatchWatch(GSource* source, GSourceFunc callback, gpointer data);

    void connect();
    bool open(std::string& problem);
    void close();
    void appeared();
    void gone();
    void sendWaiting();
    bool send(Request& request);
    void fail(Request request);
    void placeSoon(int64_t milliseconds = 0);
    void place();
    bool placeReceive(std::vector<std::string> endpoints);
    void endReceive(Receive* receive);
    void refused(Receive* receive, const DeviceAnswer& answer);

    GMainLoop* m_alive = nullptr;  // never run: the bus library quits it when the connection is lost
    GSource* m_watch = nullptr;
    QSHandle* m_handle = nullptr;
    bool m_there = false;
    unsigned m_failures = 0;  // to connect, in a row
    Timer m_again;
    std::list<Request> m_sent;
    std::deque<Request> m_waiting;
    std::deque<Request> m_failed;  // answered from the main loop
    Timer m_fail;
    QSToken m_connection = 0;  // the open question for the connection's status
    bool m_connectionKnown = false;
    bool m_connected = false;
    std::set<std::string> m_wanted;
    std::list<Receive> m_receives;
    Timer m_place;
    unsigned m_refusals = 0;  // of receives, in a row
};
