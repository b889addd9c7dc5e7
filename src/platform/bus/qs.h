// SPDX-License-Identifier: GPL-3.0-only
// The device message bus (QS) over D-Bus: registering a service, answering and placing calls, subscriptions.
//
// One thread; every callback runs on the main loop that the service is attached to. Texts are UTF-8 JSON. A
// function that can fail returns false and fills the error record, which the caller frees.
#pragma once

#include <glib.h>

#include <cstdio>

struct QSHandle;            // one bus connection
struct QSMessage;           // a request, a reply or a notification, reference counted
struct QSZeltService;       // a service registered on both buses
struct QSSubscriptionIter;  // an acquired subscription list

using QSToken = unsigned long;  // identifies a placed call; 0 is none

// An error record: initialise once, free after each use. Freeing an empty record does nothing.
struct QSError {
    int code;       // negative errno
    char* message;  // what was wrong, owned by the record; null when there is no error
};

// Method handler, reply callback and cancel function alike. The message is borrowed: take a
// reference to keep it.
using QSFilter = bool (*)(QSHandle* handle, QSMessage* message, void* context);

struct QSMethod {
    const char* name = nullptr;  // null ends a table
    QSFilter handler = nullptr;
    unsigned flags = 0;
};

bool QSErrorInit(QSError* error);
void QSErrorPrint(QSError* error, FILE* stream);
void QSErrorFree(QSError* error);

// Registers `name` on the private and the public bus (ZELT_PRIVATE_BUS, ZELT_PUBLIC_BUS; docs/bus.md). The
// service is freed when both its connections are unregistered.
bool QSRegisterZeltService(const char* name, QSZeltService** service, QSError* error);
// Public methods are served on both connections, private ones on the private connection only.
bool QSZeltServiceRegisterCategory(QSZeltService* service, const char* category,
                                   const QSMethod* publicMethods, const QSMethod* privateMethods,
                                   void* context, QSError* error);
// One source per connection. A connection that is lost afterwards quits the loop.
bool QSGmainAttachZeltService(QSZeltService* service, GMainLoop* loop, QSError* error);
QSHandle* QSZeltServiceGetPrivateConnection(QSZeltService* service);
QSHandle* QSZeltServiceGetPublicConnection(QSZeltService* service);
// Handles what both connections have received, within a bound and without waiting. Does nothing
// inside a bus callback.
void QSZeltServiceReadReceived(QSZeltService* service);
// Releases the name and closes the connection. Subscribers are told that no answer follows; the cancel
// function does not run. Messages that are still kept may be released later, even at process exit.
bool QSUnregister(QSHandle* handle, QSError* error);

// A connection to one bus, for clients (name null) and for services on one bus only.
enum class QSBus { Private, Public };
bool QSRegister(QSBus bus, const char* name, QSHandle** handle, QSError* error);
bool QSRegisterCategory(QSHandle* handle, const char* category, const QSMethod* methods, void* context,
                        QSError* error);
bool QSGmainAttach(QSHandle* handle, GMainLoop* loop, QSError* error);

// Calls zelt://SERVICE/CATEGORY.../METHOD (quor:// is the same). Without a callback no reply is expected. A
// callback is called for the reply, without a time limit, and for every later answer when the payload asks to
// "subscribe". Fails immediately for an address that is not valid on D-Bus, a payload that is not UTF-8, and
// a service that is known to be neither running nor activatable.
// zelt://com.zelt.bus/signal/registerServerStatus with {"serviceName":NAME} reports {"connected":true|false}.
bool QSCall(QSHandle* handle, const char* uri, const char* payload, QSFilter callback, void* context,
            QSToken* token, QSError* error);
// Cancels a call; its subscription ends at the service too.
bool QSCallCancel(QSHandle* handle, QSToken token, QSError* error);
// Sets a function that is called once when a subscribed call that was answered gets no more
// answers, with {"reason":TEXT}: `released` or `cancelled` as the service reports it, `gone` when
// the service has disconnected. It is not called for a call that ends with a bus error instead of a
// reply or with QSCallCancel.
bool QSCallSetEndFunction(QSHandle* handle, QSToken token, QSFilter ended, void* context, QSError* error);

// The texts of a request stay valid until its handler returns, and after that until its first answer.
const char* QSMessageGetPayload(QSMessage* message);
const char* QSMessageGetMethod(QSMessage* message);
const char* QSMessageGetCategory(QSMessage* message);
// "ID PID" of the calling application, "" when it has no id; never null.
const char* QSMessageGetApplicationID(QSMessage* message);
// The unique bus name of the client that sent a request, "" for any other message; never null.
const char* QSMessageGetSender(QSMessage* message);
// True for a reply that is a bus error: its payload is then
// {"returnValue":false,"errorCode":-1,"errorText":...}.
bool QSMessageIsError(QSMessage* message);
// The D-Bus error name of such a reply, "" otherwise.
const char* QSMessageGetErrorName(QSMessage* message);
void QSMessageRef(QSMessage* message);
void QSMessageUnref(QSMessage* message);
// The first answer is the method return, every later one is a signal to the caller. An answer that could not
// be sent (the client has disconnected, the text is not UTF-8) does not count. A request whose last reference
// is released without an answer is closed with the error com.zelt.Error.NoAnswer.
bool QSMessageReply(QSHandle* handle, QSMessage* message, const char* payload, QSError* error);
bool QSMessageRespond(QSMessage* message, const char* payload, QSError* error);

// Subscribes the request under its category and method when its payload says "subscribe":true.
bool QSSubscriptionProcess(QSHandle* handle, QSMessage* message, bool* subscribed, QSError* error);
// Subscribes the request under a free key.
bool QSSubscriptionAdd(QSHandle* handle, const char* key, QSMessage* message, QSError* error);
// Called once for a message whose client has cancelled or disconnected, after the message
// has left every list.
bool QSSubscriptionSetCancelFunction(QSHandle* handle, QSFilter cancel, void* context, QSError* error);
bool QSSubscriptionAcquire(QSHandle* handle, const char* key, QSSubscriptionIter** iter, QSError* error);
bool QSSubscriptionHasNext(QSSubscriptionIter* iter);
QSMessage* QSSubscriptionNext(QSSubscriptionIter* iter);
// Removes the message that was last returned from the acquired list; the cancel function is not called.
void QSSubscriptionRemove(QSSubscriptionIter* iter);
void QSSubscriptionRelease(QSSubscriptionIter* iter);
// Answers the subscribers of a free key on both connections; having none is a failure.
bool QSSubscriptionRespond(QSZeltService* service, const char* key, const char* payload, QSError* error);
// Answers the subscribers of category and method on one connection; having none is a success.
bool QSSubscriptionPost(QSHandle* handle, const char* category, const char* method, const char* payload,
                        QSError* error);
