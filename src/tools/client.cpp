// SPDX-License-Identifier: GPL-3.0-only
// The bus client of the command line. The bus library quits the loop when the connection is lost; every other
// end of a wait sets a flag first, so an end without the flag means a lost bus.
#include "tools/client.h"

#include <cerrno>
#include <utility>

#include "platform/bus/qsraii.h"
#include "util/jsonref.h"

namespace {

constexpr char kNoMethod[] = "isAnybodyThere";

Reply refusedCall(const std::string& uri, const BusError& error) {
    const Exit code = error.code() == -EINVAL ? Exit::Usage : Exit::NotConnected;
    return {code, "", "cannot call " + uri + ": " + error.message()};
}

}  // namespace

std::string methodUri(const std::string& method) {
    if (method.find("://") != std::string::npos)
        return method;
    return std::string("zelt://") + kService + "/" + method;
}

std::string serviceOf(const std::string& uri) {
    size_t start = uri.find("://");
    start = start == std::string::npos ? 0 : start + 3;
    return uri.substr(start, uri.find('/', start) - start);
}

// One call in progress. Lives on the stack of its caller; the call is cancelled before it is destroyed.
struct BusClient::Exchange {
    BusClient* client;
    const OnAnswer& onAnswer;
    std::string service;
    Wait wait;
    Reply result = lostBus();
    guint firstTimer = 0;
    guint wholeTimer = 0;
    bool finished = false;  // the bus library has closed the call
    bool answered = false;  // at least once
    bool besides = false;   // only its own end is one
    bool ended = false;

    void end(Reply reply) {
        ended = true;
        result = std::move(reply);
        client->quit();
    }
    static gboolean onFirstTimer(gpointer data) {
        auto* self = static_cast<Exchange*>(data);
        self->firstTimer = 0;
        self->end(timedOut(self->service, self->wait.firstSeconds));
        return G_SOURCE_REMOVE;
    }
    static gboolean onWholeTimer(gpointer data) {
        auto* self = static_cast<Exchange*>(data);
        self->wholeTimer = 0;
        self->end(timedOut(self->service, self->wait.wholeSeconds));
        return G_SOURCE_REMOVE;
    }
    void startTimers() {
        if (wait.firstSeconds)
            firstTimer = g_timeout_add_seconds(wait.firstSeconds, onFirstTimer, this);
        if (wait.wholeSeconds)
            wholeTimer = g_timeout_add_seconds(wait.wholeSeconds, onWholeTimer, this);
    }
    static void stop(guint& timer) {
        if (timer)
            g_source_remove(timer);
        timer = 0;
    }
};

BusClient::BusClient() : m_alive(g_main_loop_new(nullptr, TRUE)) {}

BusClient::~BusClient() {
    close();
    BusError error;
    if (m_handle)
        QSUnregister(m_handle, error);
    g_main_loop_unref(m_alive);
}

bool BusClient::connect(QSBus bus, const char* name, std::string& problem) {
    BusError error;
    if (QSRegister(bus, name, &m_handle, error))
        return true;
    m_handle = nullptr;
    problem = error.message();
    return false;
}

bool BusClient::serve(const QSMethod* methods, void* context, std::string& problem) {
    BusError error;
    if (QSRegisterCategory(m_handle, "/", methods, context, error))
        return true;
    problem = error.message();
    return false;
}

bool BusClient::attach(std::string& problem) {
    BusError error;
    if (QSGmainAttach(m_handle, m_alive, error))
        return true;
    problem = error.message();
    return false;
}

Reply BusClient::call(const std::string& uri, const std::string& payload, unsigned timeoutSeconds) {
    const OnAnswer enough = [](const Reply&) { return false; };
    Exchange exchange{.client = this,
                      .onAnswer = enough,
                      .service = serviceOf(uri),
                      .wait = {.firstSeconds = timeoutSeconds}};
    return finish(exchange, uri, payload);
}

Reply BusClient::callBesides(const std::string& uri, const std::string& payload, unsigned timeoutSeconds) {
    const OnAnswer enough = [](const Reply&) { return false; };
    Exchange exchange{.client = this,
                      .onAnswer = enough,
                      .service = serviceOf(uri),
                      .wait = {.firstSeconds = timeoutSeconds},
                      .besides = true};
    return finish(exchange, uri, payload);
}

Reply BusClient::notify(const std::string& uri, const std::string& payload) {
    BusError error;
    if (!QSCall(m_handle, uri.c_str(), payload.c_str(), nullptr, nullptr, nullptr, error))
        return refusedCall(uri, error);
    return {Exit::Ok, "", ""};
}

Reply BusClient::send(const std::string& uri, const std::string& payload, unsigned timeoutSeconds) {
    Reply sent = notify(uri, payload);
    if (sent.exit != Exit::Ok)
        return sent;
    // A service asks the bus who a new caller is before it handles its calls, and drops those of a caller
    // that has left by then. So this waits for the answer to a second call: an error, since there is no such
    // method, but it comes after the first call was handled.
    const Reply proof = call("zelt://" + serviceOf(uri) + "/" + kNoMethod, "{}", timeoutSeconds);
    return proof.exit == Exit::Refused ? Reply{Exit::Ok, "", ""} : proof;
}

Reply BusClient::follow(const std::string& uri, const std::string& payload, Wait wait,
                        const OnAnswer& onAnswer) {
    Exchange exchange{.client = this, .onAnswer = onAnswer, .service = serviceOf(uri), .wait = wait};
    // The bus reports the death of the service for a call without an answer, but not for an answered one.
    watch(exchange.service, [&exchange](bool there) {
        if (!there && exchange.answered)
            exchange.end({Exit::NotConnected, "", exchange.service + " left the bus"});
    });
    Reply reply = finish(exchange, uri, payload);
    m_onPresence = nullptr;
    return reply;
}

bool BusClient::onReply(QSHandle*, QSMessage* message, void* context) {
    auto* exchange = static_cast<Exchange*>(context);
    if (exchange->ended || (exchange->client->m_quit && !exchange->besides))
        return true;
    Exchange::stop(exchange->firstTimer);
    exchange->answered = true;
    if (QSMessageIsError(message)) {
        exchange->finished = true;
        exchange->end(
            judgeBusError(exchange->service, QSMessageGetErrorName(message), QSMessageGetPayload(message)));
        return true;
    }
    Reply reply = judgeAnswer(QSMessageGetPayload(message));
    if (!exchange->onAnswer(reply) || reply.exit != Exit::Ok)
        exchange->end(std::move(reply));
    return true;
}

Reply BusClient::finish(Exchange& exchange, const std::string& uri, const std::string& payload) {
    QSToken token = 0;
    BusError error;
    if (!QSCall(m_handle, uri.c_str(), payload.c_str(), onReply, &exchange, &token, error))
        return refusedCall(uri, error);
    exchange.startTimers();
    while (run() && exchange.besides && !exchange.ended) {
    }
    Exchange::stop(exchange.firstTimer);
    Exchange::stop(exchange.wholeTimer);
    BusError gone;
    if (!exchange.finished)
        QSCallCancel(m_handle, token, gone);
    return exchange.result;
}

bool BusClient::onOpenReply(QSHandle*, QSMessage* message, void* context) {
    auto* client = static_cast<BusClient*>(context);
    const std::string payload = QSMessageGetPayload(message);
    client->m_onOpenAnswer(QSMessageIsError(message)
                               ? judgeBusError(client->m_openService, QSMessageGetErrorName(message), payload)
                               : judgeAnswer(payload));
    return true;
}

bool BusClient::onOpenEnd(QSHandle*, QSMessage* message, void* context) {
    const JsonRef end = parseWholeJson(QSMessageGetPayload(message));
    // A service that is gone did not end the call; the watch on the service reports that.
    if (textMember(end.get(), "reason") != "gone")
        static_cast<BusClient*>(context)->m_onOpenEnd();
    return true;
}

Reply BusClient::open(const std::string& uri, const std::string& payload, OnOpenAnswer onAnswer,
                      OnEnd onEnd) {
    close();
    m_onOpenAnswer = std::move(onAnswer);
    m_onOpenEnd = std::move(onEnd);
    m_openService = serviceOf(uri);
    BusError error;
    if (!QSCall(m_handle, uri.c_str(), payload.c_str(), onOpenReply, this, &m_open, error) ||
        !QSCallSetEndFunction(m_handle, m_open, onOpenEnd, this, error))
        return refusedCall(uri, error);
    return {Exit::Ok, "", ""};
}

void BusClient::close() {
    BusError ended;
    if (m_open)
        QSCallCancel(m_handle, std::exchange(m_open, 0), ended);
}

bool BusClient::run() {
    while (!m_quit && g_main_loop_is_running(m_alive))
        g_main_context_iteration(nullptr, TRUE);
    m_quit = false;
    return g_main_loop_is_running(m_alive);
}

void BusClient::quit() {
    m_quit = true;
}

bool BusClient::onServerStatus(QSHandle*, QSMessage* message, void* context) {
    const JsonRef status = parseWholeJson(QSMessageGetPayload(message));
    auto* client = static_cast<BusClient*>(context);
    if (client->m_onPresence)
        client->m_onPresence(boolMember(status.get(), "connected"));
    return true;
}

bool BusClient::watch(const std::string& service, OnPresence onPresence) {
    m_onPresence = std::move(onPresence);
    BusError error;
    return QSCall(m_handle, "zelt://com.zelt.bus/signal/registerServerStatus",
                  JsonObject().set("serviceName", service).line().c_str(), onServerStatus, this, nullptr,
                  error);
}
