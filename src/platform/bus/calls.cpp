// SPDX-License-Identifier: GPL-3.0-only
// Calls to other services. A call without a callback expects no reply, because a daemon limits the pending
// replies of a connection. A call with one has no timer: the daemon reports when the service disconnects. All
// of it lives with the connection.
#include "platform/bus/calls.h"

#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "platform/bus/error.h"
#include "platform/bus/guard.h"
#include "platform/bus/message.h"
#include "platform/bus/text.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace {

constexpr uint64_t kNoTimeout = std::numeric_limits<uint64_t>::max();

std::string errorPayload(const sd_bus_error* error) {
    JsonObject object;
    object.set("returnValue", false)
        .set("errorCode", -1)
        .set("errorText", error->message ? error->message : error->name);
    return json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PLAIN);
}

// Removed from the table before the callback runs, so that the token is invalid by then.
void endSubscribedCall(QSHandle* handle, QSToken token, const char* reason) {
    auto node = handle->calls.extract(token);
    if (!node || !node.mapped()->ended)
        return;
    Call& call = *node.mapped();
    call.callback = call.ended;
    call.context = call.endedContext;
    JsonObject object;
    object.set("reason", reason);
    busTell(call, nullptr, json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PLAIN), "");
}

// A later answer or the end of a subscription. It carries the serial of the call and is accepted only from
// the connection that sent the first answer.
int onSubscriptionSignal(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto* handle = static_cast<QSHandle*>(data);
    if (!sd_bus_message_is_signal(signal, kSubscriptionInterface, nullptr))
        return 0;
    uint32_t serial = 0;
    const char* text = nullptr;
    const char* sender = sd_bus_message_get_sender(signal);
    if (sd_bus_message_read(signal, "us", &serial, &text) < 0 || !sender)
        return 1;
    auto found = handle->answeredCalls.find(serial);
    if (found == handle->answeredCalls.end() || found->second->server != sender)
        return 1;
    if (std::strcmp(sd_bus_message_get_member(signal), "Ended") == 0)
        endSubscribedCall(handle, found->second->token, text);
    else
        busTell(*found->second, signal, text, "");
    return 1;
}

// After the first answer: waits for later ones until the server ends the subscription or disconnects.
bool awaitLaterAnswers(Call& call, sd_bus_message* reply) {
    QSHandle* handle = call.handle;
    const char* server = sd_bus_message_get_sender(reply);
    if (!server)
        return false;
    if (!handle->answerFilter &&
        sd_bus_add_filter(handle->bus, Receive(handle->answerFilter), onSubscriptionSignal, handle) < 0)
        return false;
    call.server = server;
    call.watch = NameWatch::start(handle, call.server, [handle, token = call.token](bool there) {
        if (!there)
            endSubscribedCall(handle, token, "gone");
    });
    if (!call.watch)
        return false;
    handle->answeredCalls[call.serial] = &call;
    return true;
}

int onReply(sd_bus_message* reply, void* data, sd_bus_error*) {
    auto* call = static_cast<Call*>(data);
    QSHandle* handle = call->handle;
    std::unique_ptr<Call> ended;
    const sd_bus_error* failure = sd_bus_message_get_error(reply);
    call->reply.reset();
    if (failure || !call->subscribes || !awaitLaterAnswers(*call, reply)) {
        // Removed from the table before the callback runs, so that the token is invalid by then.
        auto node = handle->calls.extract(call->token);
        ended = std::move(node.mapped());
    }
    if (failure && sd_bus_error_has_name(failure, kErrorNoAnswer))
        return 0;
    const char* payload = "";
    if (failure) {
        busTell(*call, nullptr, errorPayload(failure).c_str(), failure->name);
    } else if (sd_bus_message_read(reply, "s", &payload) > 0) {
        busTell(*call, reply, payload, "");
    } else {
        const sd_bus_error unreadable = {kErrorInvalidText, "The reply is no text", 0};
        busTell(*call, nullptr, errorPayload(&unreadable).c_str(), kErrorInvalidText);
    }
    return 0;
}

// The call as a D-Bus message; null, with the reason in `error`.
Wire newMethodCall(QSHandle* handle, const BusAddress& address, const char* payload, QSError* error) {
    std::string escaped;
    const char* text = busWireText(payload, escaped, error);
    if (!text)
        return nullptr;
    Wire wire;
    int result =
        sd_bus_message_new_method_call(handle->bus, Receive(wire), address.service.c_str(),
                                       address.path.c_str(), address.service.c_str(), address.method.c_str());
    if (result >= 0)
        result = sd_bus_message_append(wire.get(), "s", text);
    if (result >= 0)
        return wire;
    busFailErrno(error, result, "Making the call to " + address.service + " failed");
    return nullptr;
}

int sendForReply(QSHandle* handle, Call* call, sd_bus_message* wire) {
    int result = sd_bus_call_async(handle->bus, Receive(call->reply), wire, onReply, call, kNoTimeout);
    uint64_t cookie = 0;
    if (result >= 0)
        result = sd_bus_message_get_cookie(wire, &cookie);
    call->serial = static_cast<uint32_t>(cookie);
    return result;
}

void tellServerOfCancel(const Call& call) {
    if (!call.subscribes)
        return;
    const std::string& destination = call.server.empty() ? call.address.service : call.server;
    Wire wire;
    if (sd_bus_message_new_method_call(call.handle->bus, Receive(wire), destination.c_str(),
                                       call.address.path.c_str(), kSubscriptionInterface, "Cancel") < 0)
        return;
    sd_bus_message_append(wire.get(), "u", call.serial);
    sd_bus_message_set_expect_reply(wire.get(), 0);
    sd_bus_message_set_auto_start(wire.get(), 0);
    sd_bus_send(call.handle->bus, wire.get(), nullptr);
}

Call* openCall(QSHandle* handle, QSToken token, QSError* error) {
    if (!busIsOpen(handle, error))
        return nullptr;
    const auto found = handle->calls.find(token);
    if (found != handle->calls.end())
        return found->second.get();
    busFail(error, -ENOENT, "No call is open under this token; it was answered, ended or never placed");
    return nullptr;
}

}  // namespace

Call::~Call() {
    if (watch)
        watch->stop();
    auto awaited = handle->answeredCalls.find(serial);
    if (awaited != handle->answeredCalls.end() && awaited->second == this)
        handle->answeredCalls.erase(awaited);
}

Call* busNewCall(QSHandle* handle, QSFilter callback, void* context, const BusAddress& address) {
    QSToken token = ++handle->lastToken;
    std::unique_ptr<Call> call(new Call{handle, token, callback, context, address});
    return handle->calls.emplace(token, std::move(call)).first->second.get();
}

void busEndCall(QSHandle* handle, QSToken token) {
    handle->calls.erase(token);
}

void busTell(const Call& call, sd_bus_message* wire, const char* payload, const char* errorName) {
    QSMessage* message = busNewReply(call.handle, wire, payload, call.address.path, call.address.method);
    message->errorName = errorName;
    busRunGuarded(message->method, [&] { call.callback(call.handle, message, call.context); });
    QSMessageUnref(message);
}

bool QSCall(QSHandle* handle, const char* uri, const char* payload, QSFilter callback, void* context,
            QSToken* token, QSError* error) {
    if (token)
        *token = 0;
    BusAddress address;
    if (!busIsOpen(handle, error) || !busParseUri(uri, address, error))
        return false;
    if (busIsServerStatus(address))
        return busWatchServer(handle, address, payload, callback, context, token, error);
    if (handle->names.isDown(address.service)) {
        handle->names.refreshStartable();
        return busFail(error, -EHOSTUNREACH,
                       "The service " + address.service + " does not run, and the bus cannot start it");
    }
    const Wire wire = newMethodCall(handle, address, payload, error);
    if (!wire)
        return false;
    int result = 0;
    if (!callback) {
        sd_bus_message_set_expect_reply(wire.get(), 0);
        result = sd_bus_send(handle->bus, wire.get(), nullptr);
    } else {
        Call* call = busNewCall(handle, callback, context, address);
        call->subscribes = busAsksToSubscribe(payload);
        result = sendForReply(handle, call, wire.get());
        if (result < 0)
            busEndCall(handle, call->token);
        else if (token)
            *token = call->token;
    }
    return result < 0 ? busFailErrno(error, result, "Calling " + address.service + " failed") : true;
}

bool QSCallCancel(QSHandle* handle, QSToken token, QSError* error) {
    Call* call = openCall(handle, token, error);
    if (!call)
        return false;
    tellServerOfCancel(*call);
    busEndCall(handle, token);
    return true;
}

bool QSCallSetEndFunction(QSHandle* handle, QSToken token, QSFilter ended, void* context, QSError* error) {
    Call* call = openCall(handle, token, error);
    if (!call)
        return false;
    call->ended = ended;
    call->endedContext = context;
    return true;
}
