// SPDX-License-Identifier: GPL-3.0-only
// Reconnect, keep-alive and power: wake-up alarms of the power service, which call this
// service's own methods.
//
// The process has no timers of its own for these, so that the device can sleep. State in the session:
// m_reconnectPending (an alarm is believed to be set), m_retryCount, m_bootFinished; none of it survives a
// restart. The power service's alarms do, and setting an alarm under a key that is in use replaces it.
#include "session/alarms.h"

#include <fcntl.h>
#include <gloox/tag.h>
#include <json-c/json.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "session/methods.h"
#include "session/pubsubsession.h"
#include "util/jsonref.h"
#include "util/log.h"
#include "xmpp/client.h"

namespace {

constexpr char kTimeoutSet[] = "zelt://com.zelt.power/timeout/set";
constexpr char kTimeoutClear[] = "zelt://com.zelt.power/timeout/clear";

// The first four attempts after a lost connection come soon, later ones after an hour or more.
constexpr int kLastShortRetry = 3;
constexpr int32_t kShortMin = 300, kShortMax = 1200;
constexpr int32_t kLongMin = 3600, kLongMax = 5400;

constexpr char kPingAlarmFailed[] = "Setting Ping Alarm failed. Error %s ";
constexpr char kReconnectClearFailed[] = "Removing reconnect failed. Error %s ";

// The power service's "timeout/set". Formatted by hand, because json-c would escape the slashes.
std::string alarm(const std::string& key, const std::string& in) {
    return R"({"key":")" + key + R"(", "uri":"quor://com.zelt.pubsubservice/)" + key + R"(", "in":")" + in +
           R"(", "wakeup":true, "params":"{}"})";
}

unsigned randomSeed() {
    unsigned seed = 0;
    const int file = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    const bool filled = file >= 0 && read(file, &seed, sizeof seed) == sizeof seed;
    if (file >= 0)
        close(file);
    if (filled)
        return seed;
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned>(now.tv_usec);
}

// One XEP-0199 ping to the server. No answer is awaited: a dead stream shows up as a socket error.
void sendPing(PubSubSession& session) {
    auto* iq = new gloox::Tag("iq");
    iq->addAttribute("to", session.m_domain);
    iq->addAttribute("id", session.m_client->getID());
    iq->addAttribute("type", "get");
    new gloox::Tag(iq, "ping", gloox::XMLNS, gloox::XMLNS_XMPP_PING);
    session.m_client->send(iq);
}

// Reads a boolean member of a reply. Without one, logs `missing` and `failed` and returns false.
bool readReply(QSMessage* reply, const char* key, const char* missing, const char* failed, bool& value,
               CallSite site = {}) {
    const char* text = QSMessageGetPayload(reply);
    const JsonRef payload = parseJson(text);
    json_object* member = jsonMember(payload.get(), key);
    if (!payload)
        PrvPrintErr(site, "Malformed json packet? \n");
    else if (!member)
        PrvPrintErr(site, missing, text);
    if (!member) {
        PrvPrintErr(site, failed, text);
        return false;
    }
    value = json_object_get_boolean(member);
    return true;
}

// As the power service takes it.
std::string delayText(int64_t seconds) {
    char text[32];
    snprintf(text, sizeof text, "%02d:%02d:%02d", static_cast<int>(seconds / 3600),
             static_cast<int>(seconds % 3600 / 60), static_cast<int>(seconds % 60));
    return text;
}

}  // namespace

int32_t generateRandomDelay(int32_t min, int32_t max) {
    const int64_t width = int64_t{max} - min;
    if (width <= 0)
        return min;
    srand(randomSeed());
    return static_cast<int32_t>(min + rand() / (RAND_MAX / width + 1));
}

bool PubSubSession::setReconnectTimer(const std::string& in) {
    BusError error;
    if (QSCall(m_privateHandle, kTimeoutSet, alarm("reconnectTimer", in).c_str(), reconnectResponse, this,
               nullptr, error))
        return true;
    PrvPrintErr({}, "Setting Reconnect Alarm failed. Error %s ", error.message());
    return false;
}

void PubSubSession::setPingTimer() {
    BusError error;
    if (!QSCall(m_privateHandle, kTimeoutSet, alarm("keepAliveTimer", "00:25:00").c_str(), alarmResponse,
                nullptr, nullptr, error))
        PrvPrintErr({}, kPingAlarmFailed, error.message());
}

bool PubSubSession::setRenewalTimer(int64_t seconds) {
    BusError error;
    if (QSCall(m_privateHandle, kTimeoutSet, alarm("pushRenewalTimer", delayText(seconds)).c_str(),
               alarmResponse, nullptr, nullptr, error))
        return true;
    PrvPrintErr({}, "Setting the alarm for push addresses failed. Error %s ", error.message());
    return false;
}

void PubSubSession::removeReconnectTimer() {
    BusError error;
    if (!QSCall(m_privateHandle, kTimeoutClear, R"({"key":"reconnectTimer"})", nullptr, nullptr, nullptr,
                error))
        PrvPrintErr({}, kReconnectClearFailed, error.message());
}

void PubSubSession::removePingTimer() {
    BusError error;
    if (!QSCall(m_privateHandle, kTimeoutClear, R"({"key":"keepAliveTimer"})", nullptr, nullptr, nullptr,
                error))
        PrvPrintErr({}, kPingAlarmFailed, error.message());  // sic: the text of the set
}

void PubSubSession::setPowerOn() {
    BusError error;
    if (QSCall(m_privateHandle, "zelt://com.zelt.power/com/zelt/power/activityStart",
               R"({"duration_ms":2000})", nullptr, nullptr, nullptr, error))
        return;
    QSErrorPrint(error, stderr);
    PrvPrintErr({}, "QSCall to power failed!!!\n");
}

void PubSubSession::getBootStatus() {
    BusError error;
    if (!QSCall(m_privateHandle, "zelt://com.zelt.systemmanager/getBootStatus", R"({"subscribe":true})",
                bootStatusResponse, this, nullptr, error))
        PrvPrintErr({}, kReconnectClearFailed, error.message());  // sic: the reconnect's text
}

void PubSubSession::scheduleReconnect() {
    if (m_reconnectPending)
        return;
    ++m_retryCount;
    const bool shortWait = m_retryCount <= kLastShortRetry;
    const int32_t delay =
        shortWait ? generateRandomDelay(kShortMin, kShortMax) : generateRandomDelay(kLongMin, kLongMax);
    const std::string in = delayText(delay);
    if (!setReconnectTimer(in)) {
        PrvPrintErr({}, "Setting timer to reconnect failed");
        return;
    }
    PrvPrintErr({}, "We will try connecting after %s %d", in.c_str(), delay);
    m_reconnectPending = true;
}

void PubSubSession::reconnect() {
    m_reconnectPending = false;
    if (!m_connected && !m_connecting && !getLoginDetails())
        scheduleReconnect();
}

void PubSubSession::stopReconnecting() {
    m_retryCount = -1;
    if (!m_reconnectPending)
        return;
    removeReconnectTimer();
    m_reconnectPending = false;
}

bool PubSubSession::reconnectResponse(QSHandle*, QSMessage* reply, void* context) {
    bool accepted = false;
    if (!readReply(reply, "returnValue", "Could find returnValue? %s", "reconnectResponse failed.  %s",
                   accepted))
        return true;
    if (!accepted)
        PrvPrintErr({}, "Alarm set failed. This is bad %s", QSMessageGetPayload(reply));
    auto* session = static_cast<PubSubSession*>(context);
    if (!session)
        return true;
    // A confirmation that arrives after the connect is about an alarm that has been cleared already. Taking
    // it into account would prevent the alarm after the next loss.
    if (!accepted || !session->m_connected)
        session->m_reconnectPending = accepted;
    return true;
}

bool PubSubSession::alarmResponse(QSHandle*, QSMessage* reply, void*) {
    bool accepted = false;
    if (readReply(reply, "returnValue", "Could find returnValue? %s", "alarmResponse failed.  %s",
                  accepted) &&
        !accepted)
        PrvPrintErr({}, "Alarm set failed. This is bad %s", QSMessageGetPayload(reply));
    return true;
}

bool PubSubSession::bootStatusResponse(QSHandle*, QSMessage* reply, void* context) {
    auto* session = static_cast<PubSubSession*>(context);
    bool finished = false;
    if (!readReply(reply, "finished", "Couldnt find finished? %s", "bootStatusResponse failed.  %s",
                   finished) ||
        !session)
        return true;
    session->m_bootFinished = finished;
    if (finished && !session->m_activationDone && session->m_connected)
        session->activateNodes();
    return true;
}

bool PubSubSession::xmppPing(void* context) {
    auto* session = static_cast<PubSubSession*>(context);
    if (session && session->m_client && !session->m_domain.empty())
        sendPing(*session);
    else
        PrvPrintErr({}, "Client Empty? Not able to send ping");
    return true;
}

bool keepAliveTimer(QSHandle*, QSMessage*, void*) {
    if (!gCurrentSession.m_client || !gCurrentSession.m_connected || gCurrentSession.m_domain.empty())
        return true;
    sendPing(gCurrentSession);
    gCurrentSession.setPingTimer();
    return true;
}

bool reconnectTimer(QSHandle*, QSMessage*, void*) {
    gCurrentSession.reconnect();
    return true;
}
