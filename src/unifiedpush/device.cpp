// SPDX-License-Identifier: GPL-3.0-only
// One receive has many endpoints: an application of the device may have 1,000 of them, a client of the bus 64
// subscriptions, and a payload 4 KiB. A new endpoint gets a receive of its own, since naming it in one that is
// open would void the receipts of all others; when there are many, all are placed anew.
#include "unifiedpush/device.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/bus/qsraii.h"
#include "util/log.h"

namespace {

constexpr char kService[] = "com.zelt.pubsubservice";
constexpr std::size_t kRequestsAtOnce = 32;  // a client of the public bus may have 128
constexpr std::size_t kEndpointsOfReceive = 90;
constexpr std::size_t kReceives = 40;
constexpr int64_t kLongestPause = 60'000;  // milliseconds

int64_t pauseAfter(unsigned failures) {
    return failures > 6 ? kLongestPause : int64_t{1000} << (failures > 0 ? failures - 1 : 0);
}

std::string uriOf(const std::string& method) {
    return std::string("zelt://") + kService + "/" + method;
}

DeviceAnswer offlineAnswer() {
    DeviceAnswer answer;
    answer.offline = true;
    answer.text = "the push service is not there";
    return answer;
}

// A bus error that says nothing about the call itself.
bool isPassing(const std::string& errorName) {
    return errorName != "org.freedesktop.DBus.Error.UnknownMethod" &&
           errorName != "org.freedesktop.DBus.Error.AccessDenied";
}

DeviceAnswer readAnswer(QSMessage* message) {
    DeviceAnswer answer;
    answer.json = parseWholeJson(QSMessageGetPayload(message));
    answer.ok = boolMember(answer.json.get(), "returnValue");
    answer.code = textMember(answer.json.get(), "errorCode");
    answer.text = textMember(answer.json.get(), "errorText");
    answer.offline = QSMessageIsError(message)
                         ? isPassing(QSMessageGetErrorName(message))
                         : answer.code == "connectionErr" || answer.text == "Service not initialized" ||
                               answer.text == "pubsubservice library is not initialized";
    return answer;
}

// The endpoint in the refusal of one that does not exist; "" for any other.
std::string missingEndpoint(const std::string& refusal) {
    constexpr std::string_view kStart = "No endpoint ";
    const std::size_t end = refusal.find(". Call createEndpoint");
    return refusal.starts_with(kStart) && end != std::string::npos
               ? refusal.substr(kStart.size(), end - kStart.size())
               : "";
}

}  // namespace

struct Device::Watch {
    GSource base;
    Device* device;
};

Device::Device() {
    static GSourceFuncs functions = {prepareWatch, nullptr, dispatchWatch, nullptr, nullptr, nullptr};
    m_watch = g_source_new(&functions, sizeof(Watch));
    reinterpret_cast<Watch*>(m_watch)->device = this;
    g_source_attach(m_watch, nullptr);
}

Device::~Device() {
    g_source_destroy(m_watch);
    g_source_unref(m_watch);
    close();
}

gboolean Device::prepareWatch(GSource* source, gint* timeout) {
    *timeout = -1;
    const Device* device = reinterpret_cast<Watch*>(source)->device;
    return device->m_alive && !g_main_loop_is_running(device->m_alive);
}

gboolean Device::dispatchWatch(GSource* source, GSourceFunc, gpointer) {
    Device* device = reinterpret_cast<Watch*>(source)->device;
    PrvPrintErr({}, "The public bus is lost; connecting again");
    device->close();
    device->gone();
    device->connect();
    return G_SOURCE_CONTINUE;
}

void Device::start() {
    connect();
}

void Device::connect() {
    std::string problem;
    if (open(problem)) {
        m_failures = 0;
        return;
    }
    close();
    if (m_failures++ == 0)
        PrvPrintErr({}, "There is no public bus yet: %s", problem.c_str());
    m_again.start(pauseAfter(m_failures), [this] { connect(); });
}

bool Device::open(std::string& problem) {
    m_alive = g_main_loop_new(nullptr, TRUE);
    BusError error;
    const bool opened =
        QSRegister(QSBus::Public, nullptr, &m_handle, error) && QSGmainAttach(m_handle, m_alive, error) &&
        QSCall(m_handle, "zelt://com.zelt.bus/signal/registerServerStatus",
               JsonObject().set("serviceName", kService).line().c_str(), onService, this, nullptr, error);
    problem = error.message();
    return opened;
}

void Device::close() {
    BusError error;
    if (m_handle)
        QSUnregister(std::exchange(m_handle, nullptr), error);
    if (m_alive)
        g_main_loop_unref(std::exchange(m_alive, nullptr));
}

bool Device::onService(QSHandle*, QSMessage* message, void* context) {
    auto* device = static_cast<Device*>(context);
    const JsonRef status = parseWholeJson(QSMessageGetPayload(message));
    if (boolMember(status.get(), "connected"))
        device->appeared();
    else
        device->gone();
    return true;
}

void Device::appeared() {
    m_there = true;
    m_refusals = 0;
    onAppeared();
}

void Device::gone() {
    m_there = false;
    m_connection = 0;
    m_connectionKnown = m_connected = false;
    m_place.stop();
    m_wanted.clear();
    while (!m_receives.empty())
        endReceive(&m_receives.front());
    // What was sent is answered by the daemon, unless that is gone too.
    for (Request& request : m_waiting)
        fail(std::move(request));
    m_waiting.clear();
    if (m_handle)
        return;
    for (Request& request : m_sent)
        fail(std::move(request));  // uncovered: the bus library has answered them when the bus was lost
    m_sent.clear();
}

void Device::fail(Request request) {
    m_failed.push_back(std::move(request));
    m_fail.start(0, [this] {
        for (const Request& failed : std::exchange(m_failed, {}))
            failed.answered(offlineAnswer());
    });
}

void Device::call(const std::string& method, const JsonObject& payload, Answered answered) {
    Request request{this, method, payload.line(), std::move(answered)};
    if (!m_there) {
        // uncovered: the bridge calls a service that is there
        fail(std::move(request));
        return;
    }
    m_waiting.push_back(std::move(request));
    sendWaiting();
}

void Device::sendWaiting() {
    while (!m_waiting.empty() && m_sent.size() < kRequestsAtOnce) {
        m_sent.push_back(std::move(m_waiting.front()));
        m_waiting.pop_front();
        if (send(m_sent.back()))
            continue;
        // uncovered: as in send()
        fail(std::move(m_sent.back()));
        m_sent.pop_back();
    }
}

bool Device::send(Request& request) {
    BusError error;
    if (QSCall(m_handle, uriOf(request.method).c_str(), request.payload.c_str(), onAnswer, &request, nullptr,
               error))
        return true;
    // uncovered: the bus library takes calls while the bus is there
    PrvPrintErr({}, "Calling %s failed: %s", request.method.c_str(), error.message());
    return false;
}

bool Device::onAnswer(QSHandle*, QSMessage* message, void* context) {
    Device* device = static_cast<Request*>(context)->device;
    const auto sent = std::find_if(device->m_sent.begin(), device->m_sent.end(),
                                   [context](const Request& request) { return &request == context; });
    const Request request = std::move(*sent);
    device->m_sent.erase(sent);
    request.answered(readAnswer(message));
    device->sendWaiting();
    return true;
}

void Device::followConnection() {
    BusError error;
    if (m_connection || !m_there)
        return;  // uncovered: the service is asked once each time that it appears
    if (!QSCall(m_handle, uriOf("connectStatus").c_str(), R"({"subscribe":true})", onConnection, this,
                &m_connection, error))
        // uncovered: the bus library takes calls while the bus is there
        PrvPrintErr({}, "Asking for the connection's status failed: %s", error.message());
}

bool Device::onConnection(QSHandle*, QSMessage* message, void* context) {
    auto* device = static_cast<Device*>(context);
    const JsonRef status = parseWholeJson(QSMessageGetPayload(message));
    const bool isFirst = !std::exchange(device->m_connectionKnown, true);
    const bool before = std::exchange(device->m_connected, boolMember(status.get(), "connected"));
    if (device->m_connected && !before && !isFirst)
        device->onConnected();
    return true;
}

void Device::receive(const std::string& endpoint) {
    m_wanted.insert(endpoint);
    placeSoon();
}

void Device::placeSoon(int64_t milliseconds) {
    if (!m_place.isRunning())
        m_place.start(milliseconds, [this] { place(); });
}

void Device::place() {
    if (!m_there)
        return;  // uncovered: the timer ends with the service
    std::set<std::string> missing = m_wanted;
    for (const Receive& receive : m_receives)
        for (const std::string& endpoint : receive.endpoints)
            missing.erase(endpoint);
    if (missing.empty())
        return;
    if (m_receives.size() + missing.size() / kEndpointsOfReceive >= kReceives) {
        while (!m_receives.empty())
            endReceive(&m_receives.front());
        missing = m_wanted;
    }
    for (auto next = missing.begin(); next != missing.end();) {
        std::vector<std::string> some;
        while (next != missing.end() && some.size() < kEndpointsOfReceive)
            some.push_back(*next++);
        if (!placeReceive(std::move(some)))
            return;  // uncovered: as below
    }
}

bool Device::placeReceive(std::vector<std::string> endpoints) {
    JsonArray names;
    for (const std::string& endpoint : endpoints)
        names.add(endpoint);
    JsonObject payload;
    payload.set("subscribe", true).set("endpoints", names.release());
    Receive& receive = m_receives.emplace_back(Receive{this, 0, std::move(endpoints)});
    BusError error;
    if (QSCall(m_handle, uriOf("receive").c_str(), payload.line().c_str(), onReceived, &receive,
               &receive.token, error) &&
        QSCallSetEndFunction(m_handle, receive.token, onReceiveEnded, &receive, error))
        return true;
    // uncovered: the bus library takes calls while the bus is there
    PrvPrintErr({}, "Receiving failed: %s", error.message());
    endReceive(&receive);
    placeSoon(kLongestPause);
    return false;
}

bool Device::onReceived(QSHandle*, QSMessage* message, void* context) {
    auto* receive = static_cast<Receive*>(context);
    Device* device = receive->device;
    const DeviceAnswer answer = readAnswer(message);
    json_object* json = answer.json.get();
    if (!answer.ok)
        device->refused(receive, answer);
    else if (jsonMember(json, "receipt"))
        device->onItem(textMember(json, "endpoint"), json);
    else if (jsonMember(json, "url"))
        device->onAddress(textMember(json, "endpoint"), textMember(json, "url"));
    else
        device->m_refusals = 0;
    return true;
}

bool Device::onReceiveEnded(QSHandle*, QSMessage*, void* context) {
    auto* receive = static_cast<Receive*>(context);
    Device* device = receive->device;
    device->endReceive(receive);
    device->placeSoon(pauseAfter(1));
    return true;
}

// A refused call stays open in the bus library, as a receive that was answered.
void Device::refused(Receive* receive, const DeviceAnswer& answer) {
    const std::string missing = missingEndpoint(answer.text);
    endReceive(receive);
    if (missing.empty()) {
        ++m_refusals;
        if (m_refusals == 1)
            PrvPrintErr({}, "The push service refuses to receive, it is asked again: %s",
                        answer.text.c_str());
        placeSoon(pauseAfter(m_refusals));
        return;
    }
    m_wanted.erase(missing);
    placeSoon();
    onReceiveRefused(missing);
}

void Device::endReceive(Receive* receive) {
    const auto found = std::find_if(m_receives.begin(), m_receives.end(),
                                    [receive](const Receive& each) { return &each == receive; });
    if (found == m_receives.end())
        return;  // uncovered: a receive is ended once
    const Receive ended = std::move(*found);
    m_receives.erase(found);
    BusError error;
    if (m_handle && ended.token)
        QSCallCancel(m_handle, ended.token, error);
    for (const std::string& endpoint : ended.endpoints)
        onWithdrawn(endpoint);
}
