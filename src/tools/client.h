// SPDX-License-Identifier: GPL-3.0-only
// One connection to one bus on the default main context: calls that wait for one answer or for many. Nothing
// outlives the object.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/bus/qs.h"
#include "tools/reply.h"

inline constexpr char kService[] = "com.zelt.pubsubservice";

// The URI of a method of the service; a full URI is returned as it is.
std::string methodUri(const std::string& method);
// The bus name within a URI.
std::string serviceOf(const std::string& uri);

class BusClient {
  public:
    BusClient();
    ~BusClient();
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    // `name` may be null. On failure `problem` is what the bus library said.
    bool connect(QSBus bus, const char* name, std::string& problem);
    // Serves one method under "/". To be called before `attach`.
    bool serve(const QSMethod* methods, void* context, std::string& problem);
    bool attach(std::string& problem);

    // Calls and waits for the first answer.
    Reply call(const std::string& uri, const std::string& payload, unsigned timeoutSeconds);

    // The same beside an open call, whose answers are passed on meanwhile: a `quit` does not end the wait.
    Reply callBesides(const std::string& uri, const std::string& payload, unsigned timeoutSeconds);

    // Sends a call that gets no answer, from a client that stays connected.
    Reply notify(const std::string& uri, const std::string& payload);
    // Sends a call that gets no answer, and waits until the service has handled it.
    Reply send(const std::string& uri, const std::string& payload, unsigned timeoutSeconds);

    using OnAnswer = std::function<bool(const Reply&)>;  // false ends the wait
    struct Wait {
        unsigned firstSeconds = 0;  // for the first answer; 0 waits forever
        unsigned wholeSeconds = 0;  // for the end; 0 waits forever
    };
    // Calls and passes on every answer until `onAnswer` returns false, an answer is a refusal, the service
    // leaves the bus or a time limit expires. Returns the last answer, or what ended the wait.
    Reply follow(const std::string& uri, const std::string& payload, Wait wait, const OnAnswer& onAnswer);

    // Calls and passes on every answer, the last of which may be a bus error, until `close`; then calls
    // `onEnd` when the service says that no answer follows. One open call per client; the callbacks may only
    // record what happened and `quit`.
    using OnOpenAnswer = std::function<void(Reply)>;
    using OnEnd = std::function<void()>;
    Reply open(const std::string& uri, const std::string& payload, OnOpenAnswer onAnswer, OnEnd onEnd);
    void close();

    // Runs the loop until `quit` or the loss of the bus; false when the bus was lost. A `quit` between two
    // runs ends the next one immediately.
    bool run();
    void quit();

    // Reports when a service appears on the bus and leaves it, from the next run on. One watch per client.
    using OnPresence = std::function<void(bool there)>;
    bool watch(const std::string& service, OnPresence onPresence);

  private:
    struct Exchange;
    static bool onReply(QSHandle* handle, QSMessage* message, void* context);
    static bool onOpenReply(QSHandle* handle, QSMessage* message, void* context);
    static bool onOpenEnd(QSHandle* handle, QSMessage* message, void* context);
    static bool onServerStatus(QSHandle* handle, QSMessage* message, void* context);
    Reply finish(Exchange& exchange, const std::string& uri, const std::string& payload);

    // Never run: the bus library quits it when the connection is lost, so it records that permanently.
    GMainLoop* m_alive;
    QSHandle* m_handle = nullptr;
    bool m_quit = false;  // set by `quit`, not by the loss of the bus
    OnPresence m_onPresence;
    QSToken m_open = 0;  // the open call; the bus library may have closed it already
    std::string m_openService;
    OnOpenAnswer m_onOpenAnswer;
    OnEnd m_onOpenEnd;
};
