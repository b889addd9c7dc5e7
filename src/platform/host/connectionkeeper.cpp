// SPDX-License-Identifier: GPL-3.0-only
// Deciding when to ask, asking, and what is learnt from the answers.
//
// An attempt asks the account service first. With an account there, the service is told to log in, which
// takes a new token. Without one it is told to connect with what it has, from its credentials file or from
// before; but not when the account service had an account earlier and has it no longer.
#include "platform/host/connectionkeeper.h"

#include <utility>

#include "platform/bus/qsraii.h"
#include "platform/host/log.h"
#include "util/clock.h"
#include "util/jsonref.h"

namespace {

constexpr char kService[] = "com.zelt.pubsubservice";
constexpr char kConnectionManager[] = "com.zelt.connectionmanager";
constexpr char kStatusUri[] = "quor://com.zelt.pubsubservice/subscribeConnStatus";
// The service and the platform act on the same events; what they do in this time need not be asked for.
constexpr int64_t kMoment = 1'000;
// The service gives an attempt up after a minute.
constexpr int64_t kAttempt = 65'000;

bool isThere(QSMessage* message) {
    return boolMember(parseJson(QSMessageGetPayload(message)).get(), "connected");
}

}  // namespace

ConnectionKeeper::ConnectionKeeper(const HostConfig& config, PowerSupply& supply)
    : m_supply(supply),
      m_keeps(config.keepsConnection),
      m_onBattery(config.reconnectsOnBattery),
      m_file(config.stateDir + "/connection.json"),
      m_backoff(config.reconnectDelays) {}

ConnectionKeeper::~ConnectionKeeper() {
    stop();
}

StartResult ConnectionKeeper::start(GMainLoop* loop) {
    static constexpr QSMethod methods[] = {
        {.name = "keep", .handler = onKeep}, {.name = "status", .handler = onStatusAsked}, {}};
    const StartResult result = m_bus.take("com.zelt.host");
    if (result != StartResult::Started)
        return result;
    loadEnded();
    if (!m_bus.serve("/connection", methods, this) || !m_bus.attach(loop))
        return StartResult::Failed;
    if (m_keeps) {
        follow(kConnectionManager, onConnectionManager);
        follow(kService, onService);
    }
    return StartResult::Started;
}

void ConnectionKeeper::resumed() {
    askSoon();
}

void ConnectionKeeper::accountChanged() {
    // An account that was removed is not used any longer.
    m_accountGiven = true;
    askSoon();
}

// --- when to ask

bool ConnectionKeeper::mayAsk() const {
    return m_statusKnown && !m_connected && m_online && !m_ended && !m_endedThere;
}

void ConnectionKeeper::askSoon() {
    stop();
    if (mayAsk())
        arm(Timer::Moment, kMoment);
}

void ConnectionKeeper::askLater() {
    stop();
    if (!mayAsk())
        return;
    if (!m_onBattery && !m_supply.onMains()) {
        m_supply.watch([this] {
            if (m_supply.onMains())
                askLater();
        });
        // It may have been plugged in before the watch was there.
        if (!m_supply.onMains())
            return;
        m_supply.unwatch();
    }
    arm(Timer::Delay, m_backoff.draw());
}

void ConnectionKeeper::stop() {
    if (m_timer)
        g_source_remove(m_timer);
    m_timer = 0;
    m_supply.unwatch();
    cancel(m_accountCall);
}

void ConnectionKeeper::arm(Timer what, int64_t milliseconds) {
    m_timerOf = what;
    m_timer = g_timeout_add(static_cast<guint>(milliseconds), onTimer, this);
}

gboolean ConnectionKeeper::onTimer(gpointer data) {
    auto* self = static_cast<ConnectionKeeper*>(data);
    self->m_timer = 0;
    const bool unplugged = self->m_timerOf == Timer::Delay && !self->m_onBattery && !self->m_supply.onMains();
    if (self->m_timerOf == Timer::Answer || unplugged)
        self->askLater();
    else
        self->attempt();
    return G_SOURCE_REMOVE;
}

// --- asking

void ConnectionKeeper::attempt() {
    m_backoff.attempted();
    arm(Timer::Answer, kAttempt);
    if (!call("quor://com.zelt.accountservices/getAccountToken", "{}", onAccount, &m_accountCall))
        ask(false);
}

bool ConnectionKeeper::onAccount(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<ConnectionKeeper*>(context);
    self->m_accountCall = 0;
    const JsonRef answer = parseJson(QSMessageGetPayload(message));
    self->ask(!textMember(answer.get(), "jabberId").empty() && !textMember(answer.get(), "uniqueId").empty());
    return true;
}

void ConnectionKeeper::ask(bool hasAccount) {
    m_accountGiven = m_accountGiven || hasAccount;
    if (hasAccount) {
        logLine("the push service is not connected: it is asked to log in");
        call("quor://com.zelt.pubsubservice/initializeAccount", R"({"unlessConnected":true})");
    } else if (m_hasSession && !m_accountGiven) {
        logLine("the push service is not connected: it is asked to connect");
        call("quor://com.zelt.pubsubservice/connectStatus", "{}");
    } else {
        askLater();
    }
}

// --- the service

void ConnectionKeeper::followService() {
    m_statusKnown = m_connected = m_hasSession = m_endedThere = m_accountGiven = false;
    m_byItself = true;
    call(kStatusUri, R"({"subscribe":true,"details":true})", onServiceStatus, &m_statusCall);
}

bool ConnectionKeeper::onService(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<ConnectionKeeper*>(context);
    self->stop();
    self->cancel(self->m_statusCall);
    // Its end is the end of its connection.
    if (std::exchange(self->m_connected, false))
        self->m_backoff.lost(bootTime());
    self->m_statusKnown = false;
    if (isThere(message))
        self->followService();
    return true;
}

// The first answer has all details. The later ones do not say whether the end was asked for.
bool ConnectionKeeper::onServiceStatus(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<ConnectionKeeper*>(context);
    const JsonRef status = parseJson(QSMessageGetPayload(message));
    if (!boolMember(status.get(), "returnValue"))
        return true;
    if (boolMember(status.get(), "connected"))
        self->isConnected();
    else if (!self->m_statusKnown)
        self->isNotConnected(status.get());
    else
        self->call(kStatusUri, R"({"details":true})", onServiceDetails);
    return true;
}

bool ConnectionKeeper::onServiceDetails(QSHandle*, QSMessage* message, void* context) {
    const JsonRef status = parseJson(QSMessageGetPayload(message));
    if (boolMember(status.get(), "returnValue") && !boolMember(status.get(), "connected"))
        static_cast<ConnectionKeeper*>(context)->isNotConnected(status.get());
    return true;
}

// The service connects by itself when it starts and when the network changes, also when somebody had ended the
// connection; that one is ended again. Any other connection was asked for.
void ConnectionKeeper::isConnected() {
    stop();
    if (!m_connected)
        m_backoff.connected(bootTime());
    m_statusKnown = m_connected = true;
    m_endedThere = false;
    const bool byItself = std::exchange(m_byItself, false);
    if (!m_ended)
        return;
    if (byItself) {
        logLine("the connection was ended on purpose, and is ended again");
        call("quor://com.zelt.pubsubservice/disconnect", "{}");
    } else {
        setEnded(false);
    }
}

void ConnectionKeeper::isNotConnected(json_object* status) {
    if (m_connected)
        m_backoff.lost(bootTime());
    m_statusKnown = true;
    m_connected = false;
    m_hasSession = boolMember(status, "session");
    m_endedThere = boolMember(status, "ended");
    askLater();
}

// --- the network

bool ConnectionKeeper::onConnectionManager(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<ConnectionKeeper*>(context);
    self->cancel(self->m_networkCall);
    self->m_network.clear();
    self->m_online = false;
    self->stop();
    if (isThere(message))
        self->call("quor://com.zelt.connectionmanager/getstatus", R"({"subscribe":true})", onNetwork,
                   &self->m_networkCall);
    return true;
}

bool ConnectionKeeper::onNetwork(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<ConnectionKeeper*>(context);
    const std::string text = QSMessageGetPayload(message);
    if (text == self->m_network)
        return true;
    self->m_network = text;
    self->m_byItself = self->m_byItself || !self->m_connected;
    self->m_online = boolMember(parseJson(text.c_str()).get(), "isInternetConnectionAvailable");
    self->askSoon();
    return true;
}

// --- an end on purpose

bool ConnectionKeeper::onKeep(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<ConnectionKeeper*>(context);
    const JsonRef request = parseWholeJson(QSMessageGetPayload(message));
    json_object* keep = jsonMember(request.get(), "keep");
    if (!json_object_is_type(keep, json_type_boolean)) {
        self->m_bus.refuse(message,
                           "\"keep\" must be true, or false when the connection is ended on purpose");
        return true;
    }
    self->m_endedThere = false;
    self->setEnded(!json_object_get_boolean(keep));
    self->m_bus.accept(message);
    // Whoever wants the connection back asks for it now.
    if (!self->m_connected)
        self->askLater();
    return true;
}

bool ConnectionKeeper::onStatusAsked(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<ConnectionKeeper*>(context);
    self->m_bus.reply(message, JsonObject()
                                   .set("returnValue", true)
                                   .set("keep", self->m_keeps)
                                   .set("ended", self->m_ended || self->m_endedThere)
                                   .line());
    return true;
}

void ConnectionKeeper::setEnded(bool ended) {
    if (ended == m_ended)
        return;
    m_ended = ended;
    GError* error = nullptr;
    auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    const std::string text = JsonObject().set("ended", ended).line() + "\n";
    logLine(ended ? "the connection is ended on purpose" : "the connection is wanted again");
    if (g_file_set_contents_full(m_file.c_str(), text.c_str(), static_cast<gssize>(text.size()), flags, 0600,
                                 &error))
        return;
    logLine("cannot save this: %s; it will not survive a restart", error->message);
    g_error_free(error);
}

void ConnectionKeeper::loadEnded() {
    gchar* text = nullptr;
    if (!g_file_get_contents(m_file.c_str(), &text, nullptr, nullptr))
        return;
    m_ended = boolMember(parseJson(text).get(), "ended");
    g_free(text);
}

// --- calls

bool ConnectionKeeper::call(const char* uri, const char* payload, QSFilter callback, QSToken* token) {
    BusError error;
    if (token)
        cancel(*token);
    return QSCall(m_bus.handle(), uri, payload, callback, this, token, error);
}

void ConnectionKeeper::cancel(QSToken& token) {
    BusError ended;
    if (token)
        QSCallCancel(m_bus.handle(), std::exchange(token, 0), ended);
}

void ConnectionKeeper::follow(const char* service, QSFilter onPresence) {
    const std::string payload = JsonObject().set("serviceName", service).line();
    if (!call("zelt://com.zelt.bus/signal/registerServerStatus", payload.c_str(), onPresence))
        logLine("%s cannot be followed; a lost connection is left to the push service", service);
}
