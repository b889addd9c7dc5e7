// SPDX-License-Identifier: GPL-3.0-only
// The device message bus in memory: every QS call, and functions for what callers, other services and the
// bus itself do.
//
// Replies and notifications run inside the function that causes them. All state is in the one FakeBus, and
// reset() clears it; a test can read messages after the service has released them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/bus/qs.h"

// A request to the service, or a reply to one of its calls.
struct QSMessage {
    QSHandle* handle = nullptr;
    std::string client;  // who sent the request
    std::string category = "/";
    std::string method;
    std::string payload;
    std::string appId;  // "ID PID", "" for none
    bool isRequest = false;
    bool wantsReply = true;
    bool arrived = false;  // a handler has seen it
    bool clientGone = false;
    bool isError = false;
    std::string errorName;

    std::vector<std::string> answers;   // what was answered, in order
    std::vector<std::string> arrivals;  // what the caller saw: "reply T", "answer T", "error NAME", "ended"
    bool closedUnanswered = false;      // the caller got com.zelt.Error.NoAnswer
    bool ended = false;                 // the caller was told that no further answer follows
    bool wasSubscribed = false;
    bool cancelled = false;
    int references = 0;

    // The first and the last answer, "" when there was none.
    std::string reply() const { return answers.empty() ? std::string() : answers.front(); }
    std::string lastAnswer() const { return answers.empty() ? std::string() : answers.back(); }
    // Whether a reference is still held.
    bool kept() const { return references > 0; }
};
using FakeMessage = QSMessage;

struct FakeBusState;

struct PlacedCall {
    QSHandle* handle;
    QSToken token;
    std::string uri;
    std::string payload;
    QSFilter callback;  // null when no reply was asked for
    void* context;
    bool subscribes;  // stays open after a reply
    bool open;        // a reply can still be delivered
    bool cancelled;   // by the service
};

class FakeBus {
  public:
    FakeBus();
    ~FakeBus();

    // --- callers of the service; a client name of "" creates a new client
    // Calls METHOD through the registered tables; a method that the connection lacks gives a
    // bus error (isError).
    FakeMessage* call(QSHandle* handle, const std::string& method, const std::string& payload,
                      const std::string& appId = "", const std::string& client = "");
    // Calls a handler function directly, registered or not.
    FakeMessage* call(QSHandle* handle, QSFilter handler, const std::string& method,
                      const std::string& payload, const std::string& appId = "",
                      const std::string& client = "");
    // A request that no handler has seen, with one reference for the test to release with QSMessageUnref.
    FakeMessage* request(QSHandle* handle, const std::string& method, const std::string& payload,
                         const std::string& appId = "", const std::string& client = "");
    // Passes such a request to the handler in the tables, and releases it.
    void dispatch(FakeMessage* message);
    // The caller leaves the bus: its subscriptions are cancelled, its requests cannot be answered any more.
    void clientDies(FakeMessage* message);
    // The same, but the service learns of it only when it reads what its connections have received.
    void clientDiesUnseen(FakeMessage* message);
    // Any other input that waits until the connections are read.
    void queue(std::function<void()> arrival);
    // Reads the oldest arrival; false when there is none.
    bool readOne();
    // The caller ends this one subscription; false when the message was not subscribed.
    bool cancel(FakeMessage* message);

    // --- services that the service calls
    // Delivers a reply to the newest open call to `uri`; false when there is none.
    bool replyTo(const std::string& uri, const std::string& payload);
    // The same for the newest open call to `uri` that was placed with `callPayload`.
    bool replyTo(const std::string& uri, const std::string& callPayload, const std::string& payload);
    // Fails the call: its callback gets a bus error.
    bool replyErrorTo(const std::string& uri, const std::string& errorName, const std::string& text);
    // The same for one call; a reply to a call that is no longer open is lost.
    bool reply(QSToken token, const std::string& payload);
    bool refuse(QSToken token, const std::string& errorName, const std::string& text);
    void endCall(QSToken token);
    // Reports to every watch on `service` that it came or went; false when nobody watches it. Subscriptions
    // to a service that went end.
    bool serverStatus(const std::string& service, bool connected);
    // From now on calls to a watched service that is not running are refused, and a watch on one that is
    // running reports it at the next read. By default every service accepts calls.
    void knowServices();
    // Calls to `service` are refused at once, as if it were not running and could not be started.
    void serviceMissing(const std::string& service);
    const std::vector<PlacedCall>& calls() const;
    // The payloads of all calls to `uri`, oldest first.
    std::vector<std::string> payloadsTo(const std::string& uri) const;

    // --- faults
    // The next `times` uses of a bus operation ("QSCall", "QSMessageReply", ...) fail with this error, after
    // `after` more have succeeded.
    void failNext(const std::string& operation, int code, const std::string& text, int times = 1,
                  int after = 0);
    // Whether an injected fault of the operation is left.
    bool faultPending(const std::string& operation) const;
    // The daemon closes a connection, which quits the loop that it is attached to.
    void loseConnection(QSHandle* handle);

    // --- what is there
    std::vector<FakeMessage*> subscribers(QSHandle* handle, const std::string& key) const;
    std::vector<FakeMessage*> methodSubscribers(QSHandle* handle, const std::string& category,
                                                const std::string& method) const;
    // Messages with a reference that is still held.
    std::vector<FakeMessage*> liveMessages() const;
    // The service for tests that register none themselves; a registration returns the same one.
    QSZeltService* service(const std::string& name = "com.zelt.pubsubservice");
    QSHandle* privateHandle() { return QSZeltServiceGetPrivateConnection(service()); }
    QSHandle* publicHandle() { return QSZeltServiceGetPublicConnection(service()); }
    bool registered(const std::string& name) const;
    // Drops every subscription without calling cancel functions, as at the end of the process.
    void dropSubscriptions();
    // Clears everything, messages included.
    void reset();

    FakeBusState& state() { return *m_state; }

  private:
    std::unique_ptr<FakeBusState> m_state;
};

FakeBus& fakeBus();
