// SPDX-License-Identifier: GPL-3.0-only
// The functions of the fake bus for tests: actions of callers, of other services and of the bus itself.
#include "tests/fakes/fakebus.h"

#include <algorithm>

#include "tests/fakes/fakebusstate.h"
#include "tests/fakes/journal.h"
#include "util/jsonref.h"

namespace {

constexpr char kUnknownMethod[] = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr char kNoAnswer[] = "com.zelt.Error.NoAnswer";
constexpr char kLimitExceeded[] = "com.zelt.Error.LimitExceeded";
constexpr std::size_t kPublicPayloadLimit = 4 * 1024;
constexpr std::ptrdiff_t kWaitingLimit = 128;

std::string withoutScheme(const std::string& uri) {
    const std::size_t at = uri.find("://");
    return at == std::string::npos ? uri : uri.substr(at + 3);
}

// The bus answers instead of the service.
void refuseRequest(FakeMessage* message, const char* errorName) {
    message->isError = true;
    message->errorName = errorName;
    if (message->wantsReply)
        message->arrivals.push_back(std::string("error ") + errorName);
    message->references = 0;
}

bool isSubscribed(const FakeBusState& state, const QSMessage* message) {
    return std::count(state.subscribed.begin(), state.subscribed.end(), message) > 0;
}

std::ptrdiff_t waitingOf(const FakeBusState& state, const QSMessage& request) {
    return std::count_if(state.messages.begin(), state.messages.end(), [&](const auto& other) {
        return other->arrived && other->kept() && other->client == request.client &&
               !isSubscribed(state, other.get());
    });
}

bool beyondBounds(const FakeBusState& state, const QSMessage& request) {
    return request.handle->isPublic &&
           (request.payload.size() > kPublicPayloadLimit || waitingOf(state, request) >= kWaitingLimit);
}

void handOver(FakeBusState& state, FakeMessage* message, QSFilter handler, void* context) {
    if (beyondBounds(state, *message))
        return refuseRequest(message, kLimitExceeded);
    message->arrived = true;
    runFilter(handler, message->handle, message, context);
    QSMessageUnref(message);
}

PlacedCall* findOpen(FakeBusState& state, const std::string& uri, const std::string* callPayload) {
    for (auto call = state.calls.rbegin(); call != state.calls.rend(); ++call)
        if (call->open && withoutScheme(call->uri) == withoutScheme(uri) &&
            (!callPayload || call->payload == *callPayload))
            return &*call;
    return nullptr;
}

PlacedCall* findOpen(FakeBusState& state, QSToken token) {
    for (PlacedCall& call : state.calls)
        if (call.token == token && call.open)
            return &call;
    return nullptr;
}

bool deliver(FakeBusState& state, PlacedCall* placed, const std::string& payload,
             const std::string& errorName) {
    if (!placed)
        return false;
    const PlacedCall call = *placed;  // the callback may place further calls
    placed->open = call.subscribes && errorName.empty();
    if (errorName == kNoAnswer)
        return true;  // nothing to report
    QSMessage* reply = state.makeMessage(call.handle);
    reply->method = call.uri.substr(call.uri.rfind('/') + 1);
    reply->payload = payload;
    reply->isError = !errorName.empty();
    reply->errorName = errorName;
    runFilter(call.callback, call.handle, reply, call.context);
    QSMessageUnref(reply);
    return true;
}

std::string errorPayload(const std::string& text) {
    JsonObject error;
    error.set("returnValue", false).set("errorCode", -1).set("errorText", text);
    return json_object_to_json_string_ext(error.get(), JSON_C_TO_STRING_PLAIN);
}

bool isCallTo(const PlacedCall& call, const std::string& service) {
    return withoutScheme(call.uri).starts_with(service + '/');
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

void FakeBus::dispatch(FakeMessage* message) {
    const auto& categories = message->handle->categories;
    const auto category = categories.find(message->category);
    if (category == categories.end() || !category->second.contains(message->method))
        return refuseRequest(message, kUnknownMethod);
    const auto& [handler, context] = category->second.at(message->method);
    handOver(*m_state, message, handler, context);
}

FakeMessage* FakeBus::call(QSHandle* handle, const std::string& method, const std::string& payload,
                           const std::string& appId, const std::string& client) {
    FakeMessage* message = request(handle, method, payload, appId, client);
    for (const auto& [category, methods] : handle->categories)
        if (methods.contains(method))
            message->category = category;
    dispatch(message);
    return message;
}

FakeMessage* FakeBus::call(QSHandle* handle, QSFilter handler, const std::string& method,
                           const std::string& payload, const std::string& appId, const std::string& client) {
    FakeMessage* message = request(handle, method, payload, appId, client);
    handOver(*m_state, message, handler, nullptr);
    return message;
}

void FakeBus::clientDies(FakeMessage* message) {
    std::vector<QSMessage*> requests;
    for (const auto& other : m_state->messages)
        if (other->isRequest && other->client == message->client)
            requests.push_back(other.get());
    for (QSMessage* request : requests)
        request->clientGone = true;
    cancelSubscriptions(requests, false);
}

void FakeBus::clientDiesUnseen(FakeMessage* message) {
    queue([this, message] { clientDies(message); });
}

void FakeBus::queue(std::function<void()> arrival) {
    m_state->received.push_back(std::move(arrival));
}

bool FakeBus::readOne() {
    if (m_state->received.empty())
        return false;
    const std::function<void()> arrival = std::move(m_state->received.front());
    m_state->received.pop_front();
    arrival();
    return true;
}

bool FakeBus::cancel(FakeMessage* message) {
    return cancelSubscriptions({message}, false);
}

bool FakeBus::replyTo(const std::string& uri, const std::string& payload) {
    return deliver(*m_state, findOpen(*m_state, uri, nullptr), payload, "");
}

bool FakeBus::replyTo(const std::string& uri, const std::string& callPayload, const std::string& payload) {
    return deliver(*m_state, findOpen(*m_state, uri, &callPayload), payload, "");
}

bool FakeBus::replyErrorTo(const std::string& uri, const std::string& errorName, const std::string& text) {
    return deliver(*m_state, findOpen(*m_state, uri, nullptr), errorPayload(text), errorName);
}

bool FakeBus::reply(QSToken token, const std::string& payload) {
    return deliver(*m_state, findOpen(*m_state, token), payload, "");
}

bool FakeBus::refuse(QSToken token, const std::string& errorName, const std::string& text) {
    return deliver(*m_state, findOpen(*m_state, token), errorPayload(text), errorName);
}

void FakeBus::endCall(QSToken token) {
    if (PlacedCall* call = findOpen(*m_state, token))
        call->open = false;
}

bool FakeBus::serverStatus(const std::string& service, bool connected) {
    if (connected)
        m_state->present.insert(service);
    else
        m_state->present.erase(service);
    std::vector<QSToken> watches;
    for (PlacedCall& call : m_state->calls) {
        BusAddress address;
        if (call.open && parseBusAddress(call.uri, address) && isServerStatus(address) &&
            watchedService(call.payload) == service)
            watches.push_back(call.token);
        if (!connected && call.subscribes && isCallTo(call, service))
            call.open = false;
    }
    for (QSToken token : watches)
        reply(token, connected ? "{\"connected\":true}" : "{\"connected\":false}");
    return !watches.empty();
}

void FakeBus::knowServices() {
    m_state->knowsServices = true;
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
    cancelSubscriptions(m_state->subscribed, true);
}

// Messages that are still held must be releasable later, as after the real bus was unregistered.
void FakeBus::reset() {
    static std::vector<std::unique_ptr<FakeBusState>> retired;
    for (const auto& handle : m_state->handles)
        handle->closed = true;
    if (!liveMessages().empty())
        retired.push_back(std::move(m_state));
    m_state = std::make_unique<FakeBusState>();
}
