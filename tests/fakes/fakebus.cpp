// SPDX-License-Identifier: GPL-3.0-only
// The verbs of the fake bus: what callers, other services and the bus itself do to the service.
#include "tests/fakes/fakebus.h"

#include <algorithm>

#include "tests/fakes/fakebusstate.h"
#include "tests/fakes/journal.h"
#include "util/jsonref.h"

namespace {

constexpr const char* kUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr const char* kLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr std::size_t kPublicPayloadLimit = 64 * 1024;
constexpr int kUnansweredLimit = 128;

std::string withoutScheme(const std::string& uri) {
    const std::size_t at = uri.find("://");
    return at == std::string::npos ? uri : uri.substr(at + 3);
}

FakeMessage* refused(FakeMessage* message, const char* errorName) {
    message->isError = true;
    message->errorName = errorName;
    message->references = 0;
    return message;
}

int unansweredOf(const FakeBusState& state, const QSMessage& request) {
    return static_cast<int>(
        std::count_if(state.messages.begin(), state.messages.end(), [&](const auto& other) {
            return other->isRequest && other->kept() && other->answers.empty() &&
                   other->client == request.client && other.get() != &request;
        }));
}

bool beyondBounds(const FakeBusState& state, const QSMessage& request) {
    return request.handle->isPublic &&
           (request.payload.size() > kPublicPayloadLimit || unansweredOf(state, request) >= kUnansweredLimit);
}

PlacedCall* findOpen(FakeBusState& state, const std::string& uri, const std::string* callPayload) {
    for (auto call = state.calls.rbegin(); call != state.calls.rend(); ++call)
        if (call->open && withoutScheme(call->uri) == withoutScheme(uri) &&
            (!callPayload || call->payload == *callPayload))
            return &*call;
    return nullptr;
}

bool deliver(FakeBusState& state, PlacedCall* placed, const std::string& payload,
             const std::string& errorName) {
    if (!placed)
        return false;
    const PlacedCall call = *placed;  // the callback may place further calls
    placed->open = call.subscribes && errorName.empty();
    QSMessage* reply = state.makeMessage(call.handle);
    reply->payload = payload;
    reply->isError = !errorName.empty();
    reply->errorName = errorName;
    call.callback(call.handle, reply, call.context);
    QSMessageUnref(reply);
    return true;
}

}  // namespace

FakeBus::FakeBus() : m_state(std::make_unique<FakeBusState>()) {}
FakeBus::~FakeBus() = default;

FakeBus& fakeBus() {
    static FakeBus bus;
    return bus;
}

FakeMessage* FakeBus::request(QSHandle* handle, const std::string& method, const std::string& payload,
                              const std::string& appId, const std::string& client) {
    FakeMessage* message = m_state->makeMessage(handle);
    message->isRequest = true;
    message->method = method;
    message->payload = payload;
    message->appId = appId;
    message->client = client.empty() ? ":1." + std::to_string(m_state->nextClient++) : client;
    return message;
}

FakeMessage* FakeBus::call(QSHandle* handle, const std::string& method, const std::string& payload,
                           const std::string& appId, const std::string& client) {
    for (const auto& [category, methods] : handle->categories) {
        const auto found = methods.find(method);
        if (found == methods.end())
            continue;
        FakeMessage* message = request(handle, method, payload, appId, client);
        message->category = category;
        if (beyondBounds(*m_state, *message))
            return refused(message, kLimitsExceeded);
        found->second.first(handle, message, found->second.second);
        QSMessageUnref(message);
        return message;
    }
    return refused(request(handle, method, payload, appId, client), kUnknownMethod);
}

FakeMessage* FakeBus::call(QSHandle* handle, QSFilter handler, const std::string& method,
                           const std::string& payload, const std::string& appId, const std::string& client) {
    FakeMessage* message = request(handle, method, payload, appId, client);
    if (beyondBounds(*m_state, *message))
        return refused(message, kLimitsExceeded);
    handler(handle, message, nullptr);
    QSMessageUnref(message);
    return message;
}

void FakeBus::clientDies(FakeMessage* message) {
    const std::string client = message->client;
    std::vector<QSMessage*> requests;
    for (const auto& other : m_state->messages)
        if (other->isRequest && other->client == client)
            requests.push_back(other.get());
    for (QSMessage* request : requests)
        request->clientGone = true;
    for (QSMessage* request : requests)
        cancelSubscriptions(request, true);
}

void FakeBus::clientDiesUnseen(FakeMessage* message) {
    m_state->unseenDeaths.push_back(message);
}

bool FakeBus::cancel(FakeMessage* message) {
    return cancelSubscriptions(message, true);
}

bool FakeBus::replyTo(const std::string& uri, const std::string& payload) {
    return deliver(*m_state, findOpen(*m_state, uri, nullptr), payload, "");
}

bool FakeBus::replyTo(const std::string& uri, const std::string& callPayload, const std::string& payload) {
    return deliver(*m_state, findOpen(*m_state, uri, &callPayload), payload, "");
}

bool FakeBus::replyErrorTo(const std::string& uri, const std::string& errorName, const std::string& text) {
    JsonRef error(json_object_new_object());
    json_object_object_add(error.get(), "returnValue", json_object_new_boolean(false));
    json_object_object_add(error.get(), "errorCode", json_object_new_int(-1));
    json_object_object_add(error.get(), "errorText", json_object_new_string(text.c_str()));
    return deliver(*m_state, findOpen(*m_state, uri, nullptr), json_object_to_json_string(error.get()),
                   errorName);
}

bool FakeBus::serverStatus(const std::string& service, bool connected) {
    const std::string payload = connected ? "{\"connected\":true}" : "{\"connected\":false}";
    std::vector<QSToken> watches;
    for (const PlacedCall& call : m_state->calls) {
        const JsonRef asked = parseJson(call.payload.c_str());
        json_object* name = jsonMember(asked.get(), "serviceName");
        if (call.open && withoutScheme(call.uri) == "com.zelt.bus/signal/registerServerStatus" && name &&
            json_object_get_string(name) == service)
            watches.push_back(call.token);
    }
    for (QSToken token : watches)
        for (PlacedCall& call : m_state->calls)
            if (call.token == token) {
                deliver(*m_state, &call, payload, "");
                break;
            }
    return !watches.empty();
}

void FakeBus::serviceMissing(const std::string& service) {
    m_state->missing.insert(service);
}

const std::vector<PlacedCall>& FakeBus::calls() const {
    return m_state->calls;
}

std::vector<std::string> FakeBus::payloadsTo(const std::string& uri) const {
    std::vector<std::string> payloads;
    for (const PlacedCall& call : m_state->calls)
        if (withoutScheme(call.uri) == withoutScheme(uri))
            payloads.push_back(call.payload);
    return payloads;
}

void FakeBus::failNext(const std::string& operation, int code, const std::string& text, int times,
                       int after) {
    m_state->faults[operation] = {code, text, times, after};
}

bool FakeBus::faultPending(const std::string& operation) const {
    return m_state->faults.contains(operation);
}

void FakeBus::loseConnection(QSHandle* handle) {
    handle->closed = true;
    if (handle->loop)
        g_main_loop_quit(handle->loop);
}

std::vector<FakeMessage*> FakeBus::subscribers(QSHandle* handle, const std::string& key) const {
    const auto found = handle->byKey.find(key);
    if (found == handle->byKey.end())
        return {};
    return {found->second.begin(), found->second.end()};
}

std::vector<FakeMessage*> FakeBus::methodSubscribers(QSHandle* handle, const std::string& category,
                                                     const std::string& method) const {
    const auto found = handle->byMethod.find({category, method});
    if (found == handle->byMethod.end())
        return {};
    return {found->second.begin(), found->second.end()};
}

std::vector<FakeMessage*> FakeBus::liveMessages() const {
    std::vector<FakeMessage*> live;
    for (const auto& message : m_state->messages)
        if (message->kept())
            live.push_back(message.get());
    return live;
}

QSZeltService* FakeBus::service(const std::string& name) {
    for (const auto& service : m_state->services)
        if (service->name == name && !service->privateHandle->closed)
            return service.get();
    auto made = std::make_unique<QSZeltService>();
    made->name = name;
    made->privateHandle = m_state->makeHandle(name, false);
    made->publicHandle = m_state->makeHandle(name, true);
    m_state->services.push_back(std::move(made));
    return m_state->services.back().get();
}

bool FakeBus::registered(const std::string& name) const {
    return std::any_of(m_state->handles.begin(), m_state->handles.end(),
                       [&](const auto& handle) { return handle->name == name && !handle->closed; });
}

void FakeBus::dropSubscriptions() {
    std::vector<QSMessage*> all;
    for (const auto& message : m_state->messages)
        all.push_back(message.get());
    for (QSMessage* message : all)
        cancelSubscriptions(message, false);
}

void FakeBus::reset() {
    m_state = std::make_unique<FakeBusState>();
}
