// SPDX-License-Identifier: GPL-3.0-only
// The QS calls of the fake bus for registration, messages and calls to other services.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/bus/qscaller.h"
#include "tests/fakes/fakebusstate.h"
#include "tests/fakes/journal.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace {

// Whether a call to the service can be placed at all.
bool isMissing(const FakeBusState& state, const std::string& service) {
    const bool isWatched = std::any_of(state.calls.begin(), state.calls.end(), [&](const PlacedCall& call) {
        BusAddress address;
        return parseBusAddress(call.uri, address) && isServerStatus(address) &&
               watchedService(call.payload) == service;
    });
    return state.missing.contains(service) ||
           (state.knowsServices && isWatched && !state.present.contains(service));
}

// The first report of a watch, when the service is running.
void reportPresence(QSToken token, const std::string& service) {
    fakeBus().queue([token, service] {
        if (fakeBus().state().present.contains(service))
            fakeBus().reply(token, "{\"connected\":true}");
    });
}

bool addMethods(QSHandle* handle, const char* category, const QSMethod* methods, void* context) {
    for (const QSMethod* method = methods; method && method->name; ++method)
        handle->categories[category].emplace(method->name, std::make_pair(method->handler, context));
    return true;
}

}  // namespace

// --- shared by the sources of the fake

QSMessage* FakeBusState::makeMessage(QSHandle* handle) {
    messages.push_back(std::make_unique<QSMessage>());
    messages.back()->handle = handle;
    messages.back()->references = 1;
    return messages.back().get();
}

QSHandle* FakeBusState::makeHandle(const std::string& name, bool isPublic) {
    handles.push_back(std::make_unique<QSHandle>());
    handles.back()->name = name;
    handles.back()->isPublic = isPublic;
    return handles.back().get();
}

bool failWith(QSError* error, int code, const std::string& text) {
    if (error) {
        QSErrorFree(error);
        error->code = code;
        error->message = strdup(text.c_str());
    }
    return false;
}

bool faultInjected(const std::string& operation, QSError* error) {
    auto& faults = fakeBus().state().faults;
    const auto found = faults.find(operation);
    if (found == faults.end())
        return false;
    if (found->second.after-- > 0)
        return false;
    failWith(error, found->second.code, found->second.text);
    if (--found->second.times == 0)
        faults.erase(found);
    return true;
}

bool usable(QSMessage* message, const char* operation) {
    if (message && message->references > 0)
        return true;
    if (message)
        ADD_FAILURE() << operation << " on a message that has been released: " << message->method << ' '
                      << message->payload;
    return false;
}

bool asksToSubscribe(const std::string& payload) {
    const JsonRef asked = parseJson(payload.c_str());
    json_object* subscribe = jsonMember(asked.get(), "subscribe");
    return subscribe && json_object_get_boolean(subscribe);
}

bool answerMessage(QSMessage* message, const char* payload, QSError* error) {
    if (!message || !message->isRequest)
        return failWith(error, -EINVAL, "not a request");
    if (message->handle->closed)
        return failWith(error, -ENOTCONN, "the bus connection is closed");
    if (message->clientGone)
        return failWith(error, -ENOTCONN, "client " + message->client + " is gone");
    if (!payload || !g_utf8_validate(payload, -1, nullptr))
        return failWith(error, -EILSEQ, "payload is not UTF-8");
    if (message->cancelled && !message->answers.empty())
        return failWith(error, -ECANCELED, "client " + message->client + " has cancelled the call");
    const std::string text = withoutNonCharacters(payload);
    if (!message->answers.empty())
        message->arrivals.push_back("answer " + text);
    else if (message->wantsReply)
        message->arrivals.push_back("reply " + text);
    message->answers.push_back(text);
    return true;
}

void runFilter(QSFilter filter, QSHandle* handle, QSMessage* message, void* context) {
    FakeBusState& state = fakeBus().state();
    ++state.callbackDepth;
    filter(handle, message, context);
    --state.callbackDepth;
}

std::string busName(const QSHandle* handle) {
    return handle->isPublic ? "public" : "private";
}

// --- errors

bool QSErrorInit(QSError* error) {
    error->code = 0;
    error->message = nullptr;
    return true;
}

void QSErrorPrint(QSError* error, FILE* stream) {
    std::fprintf(stream, "bus error %d: ", error->code);
    printEscaped(stream, error->message ? error->message : "");
    std::fputc('\n', stream);
}

void QSErrorFree(QSError* error) {
    if (!error)
        return;
    std::free(error->message);
    QSErrorInit(error);
}

// --- registration

bool QSRegisterZeltService(const char* name, QSZeltService** service, QSError* error) {
    if (faultInjected("QSRegisterZeltService", error))
        return false;
    if (!name || !g_dbus_is_name(name))
        return failWith(error, -EINVAL, "not a service name");
    QSZeltService* made = fakeBus().service(name);
    if (made->taken)
        return failWith(error, -EEXIST, std::string(name) + " is registered already");
    made->taken = true;
    *service = made;
    return true;
}

bool QSZeltServiceRegisterCategory(QSZeltService* service, const char* category,
                                   const QSMethod* publicMethods, const QSMethod* privateMethods,
                                   void* context, QSError* error) {
    if (faultInjected("QSZeltServiceRegisterCategory", error))
        return false;
    return addMethods(service->privateHandle, category, publicMethods, context) &&
           addMethods(service->privateHandle, category, privateMethods, context) &&
           addMethods(service->publicHandle, category, publicMethods, context);
}

bool QSGmainAttachZeltService(QSZeltService* service, GMainLoop* loop, QSError* error) {
    if (faultInjected("QSGmainAttachZeltService", error))
        return false;
    service->privateHandle->loop = service->publicHandle->loop = loop;
    return true;
}

QSHandle* QSZeltServiceGetPrivateConnection(QSZeltService* service) {
    return service->privateHandle;
}

QSHandle* QSZeltServiceGetPublicConnection(QSZeltService* service) {
    return service->publicHandle;
}

void QSZeltServiceReadReceived(QSZeltService*) {
    if (fakeBus().state().callbackDepth > 0)
        return;
    while (fakeBus().readOne()) {
    }
}

bool QSRegister(QSBus bus, const char* name, QSHandle** handle, QSError* error) {
    if (faultInjected("QSRegister", error))
        return false;
    *handle = fakeBus().state().makeHandle(name ? name : "", bus == QSBus::Public);
    return true;
}

bool QSRegisterCategory(QSHandle* handle, const char* category, const QSMethod* methods, void* context,
                        QSError* error) {
    if (faultInjected("QSRegisterCategory", error))
        return false;
    return addMethods(handle, category, methods, context);
}

bool QSGmainAttach(QSHandle* handle, GMainLoop* loop, QSError* error) {
    if (faultInjected("QSGmainAttach", error))
        return false;
    handle->loop = loop;
    return true;
}

bool QSUnregister(QSHandle* handle, QSError* error) {
    if (faultInjected("QSUnregister", error))
        return false;
    if (!handle || handle->closed)
        return failWith(error, -ENOTCONN, "the bus connection is closed");
    std::vector<QSMessage*> subscribed;
    for (QSMessage* message : fakeBus().state().subscribed)
        if (message->handle == handle)
            subscribed.push_back(message);
    cancelSubscriptions(subscribed, true);
    handle->closed = true;
    return true;
}

// --- calls

bool QSCall(QSHandle* handle, const char* uri, const char* payload, QSFilter callback, void* context,
            QSToken* token, QSError* error) {
    if (token)
        *token = 0;
    if (faultInjected("QSCall", error))
        return false;
    BusAddress address;
    if (!handle || !uri || !parseBusAddress(uri, address))
        return failWith(error, -EINVAL, "not a bus address: " + std::string(uri ? uri : "(none)"));
    if (handle->closed)
        return failWith(error, -ENOTCONN, "the bus connection is closed");
    if (!payload || !g_utf8_validate(payload, -1, nullptr))
        return failWith(error, -EILSEQ, "payload is not UTF-8");
    const bool watches = isServerStatus(address);
    if (watches && (watchedService(payload).empty() || !callback))
        return failWith(error, -EINVAL, "a server status needs a serviceName and a callback");
    FakeBusState& state = fakeBus().state();
    if (!watches && isMissing(state, address.service))
        return failWith(error, -EHOSTUNREACH, "no service " + address.service);
    const std::string text = withoutNonCharacters(payload);
    journal().add(std::string("bus.call ") + uri + ' ' + text);
    state.calls.push_back({handle, state.nextToken++, uri, text, callback, context,
                           watches || asksToSubscribe(text), callback != nullptr, false});
    if (token && callback)
        *token = state.calls.back().token;
    if (watches && state.knowsServices)
        reportPresence(state.calls.back().token, watchedService(payload));
    return true;
}

bool QSCallCancel(QSHandle*, QSToken token, QSError* error) {
    if (faultInjected("QSCallCancel", error))
        return false;
    for (PlacedCall& call : fakeBus().state().calls)
        if (call.token == token && call.open) {
            call.open = false;
            call.cancelled = true;
            return true;
        }
    return failWith(error, -ENOENT, "no such call");
}

// --- messages

const char* QSMessageGetPayload(QSMessage* message) {
    return usable(message, __func__) ? message->payload.c_str() : "";
}

const char* QSMessageGetMethod(QSMessage* message) {
    return usable(message, __func__) ? message->method.c_str() : "";
}

const char* QSMessageGetCategory(QSMessage* message) {
    return usable(message, __func__) ? message->category.c_str() : "";
}

const char* QSMessageGetApplicationID(QSMessage* message) {
    return usable(message, __func__) ? message->appId.c_str() : "";
}

const char* QSMessageGetSender(QSMessage* message) {
    return usable(message, __func__) ? message->client.c_str() : "";
}

bool QSMessageIsError(QSMessage* message) {
    return usable(message, __func__) && message->isError;
}

const char* QSMessageGetErrorName(QSMessage* message) {
    return usable(message, __func__) ? message->errorName.c_str() : "";
}

bool QSMessageIsCallerGone(QSMessage* message) {
    return usable(message, __func__) && message->clientGone;
}

void QSMessageRef(QSMessage* message) {
    if (usable(message, __func__))
        ++message->references;
}

void QSMessageUnref(QSMessage* message) {
    if (!usable(message, __func__) || --message->references > 0 || !message->isRequest)
        return;
    const bool reachable = !message->clientGone && !message->handle->closed;
    message->closedUnanswered = reachable && message->wantsReply && message->answers.empty();
    message->ended = reachable && message->wasSubscribed && !message->answers.empty();
    if (message->closedUnanswered)
        message->arrivals.emplace_back("error com.zelt.Error.NoAnswer");
    if (message->ended)
        message->arrivals.emplace_back("ended");
}

bool QSMessageReply(QSHandle*, QSMessage* message, const char* payload, QSError* error) {
    if (faultInjected("QSMessageReply", error) || (message && !usable(message, __func__)) ||
        !answerMessage(message, payload, error))
        return false;
    journal().add("bus.reply " + message->method + ' ' + message->answers.back());
    return true;
}

bool QSMessageRespond(QSMessage* message, const char* payload, QSError* error) {
    if (faultInjected("QSMessageRespond", error) || (message && !usable(message, __func__)) ||
        !answerMessage(message, payload, error))
        return false;
    journal().add("bus.respond " + message->method + ' ' + message->answers.back());
    return true;
}
