// SPDX-License-Identifier: GPL-3.0-only
// Endpoints of web push whose addresses come from a push provider: made, renewed when half of their time is over,
// and told when they change.
//
// Keeps PubSubSession::m_pushRenewal, in memory: a disconnect empties it but for the alarm. What providers have
// given is stored by session/pushregistrations.cpp.
#include <glib.h>
#include <gloox/error.h>
#include <gloox/presence.h>

#include <algorithm>

#include "endpoints/methods.h"
#include "endpoints/pushendpoint.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "xmpp/client.h"
#include "xmpp/manager.h"

namespace {

constexpr int64_t kDay = 86'400;  // seconds, as the next ones
constexpr int64_t kLongestHalf = 30 * kDay;
constexpr int64_t kFirstRetry = 900;
constexpr unsigned kMostDoublings = 4;
constexpr int64_t kSoonestAlarm = 60;
constexpr int64_t kLatestAlarm = kDay - 1;
constexpr char kRespondFailed[] = "Sending response to client failed id %s Error %s ";
constexpr char kNoBackend[] =
    "feature-not-implemented: the server has neither the device extension nor a push provider. Ask its "
    "operator "
    "for one of them, or name a provider in PUBSUB_PUSH_PROVIDER";
constexpr char kNotStored[] =
    "The endpoint's address could not be stored. Free space on the disk of the preferences";

int64_t unixTime() {
    return g_get_real_time() / G_USEC_PER_SEC;
}

// 0 for a text that is no time.
int64_t unixTimeOf(const std::string& text) {
    GTimeZone* utc = g_time_zone_new_utc();
    GDateTime* time = g_date_time_new_from_iso8601(text.c_str(), utc);
    const int64_t result = time ? g_date_time_to_unix(time) : 0;
    if (time)
        g_date_time_unref(time);
    g_time_zone_unref(utc);
    return result;
}

// When half of the time is over. A time that this clock finds over already, or none, counts as a day.
int64_t renewalOf(int64_t expires, int64_t now) {
    const int64_t lifetime = expires > now ? expires - now : kDay;
    return now + std::clamp<int64_t>(lifetime / 2, 1, kLongestHalf);
}

// The clock may have been set back since.
bool isPastHalf(const _pushRegistrationStruct& registration, int64_t now) {
    return registration.renew <= now || registration.renew > now + kLongestHalf;
}

Reply addressReply(const std::string& endpoint, const std::string& url) {
    Reply reply = endpointReply(true, endpoint);
    reply.set("url", url);
    return reply;
}

std::string refusalOf(const std::string& node, const gloox::JID& provider, const gloox::Error* error,
                      CallSite site = {}) {
    return error
               ? serverError(*error, node, provider, site).text
               : "undefined-condition: the push provider " + provider.full() + " answers without an address";
}

void refuse(const _endpointStruct& request, const std::string& code, const std::string& text,
            CallSite site = {}) {
    Reply reply = endpointReply(false, request.endpoint);
    reply.addError({code, text});
    reply.respond(request.message.get(), "", kRespondFailed, site);
}

// The full JID of this connection, which is what a provider sends to.
std::string fullJid(const PubSubSession& session) {
    return session.m_client ? session.m_client->jid().full() : session.m_jid.full();
}

// A directed presence, without which a server may keep its messages from this connection.
void tellProvider(PubSubSession& session, const std::string& provider) {
    if (session.m_client && session.m_connected && session.m_pushRenewal.presences.insert(provider).second)
        session.m_client->setPresence(gloox::JID(provider), gloox::Presence::Available, 0, "online");
}

std::string askProvider(PubSubSession& session, const _pushRegistrationStruct& registration) {
    return session.m_pubsub
               ? session.m_pubsub->registerPush(gloox::JID(registration.provider), registration.application,
                                                registration.instance, &session)
               : "";
}

// False when the store does not take it.
bool storeAddress(PubSubSession& session, const std::string& node, _pushRegistrationStruct& registration,
                  const std::string& url, const std::string& expiration) {
    registration.jid = fullJid(session);
    registration.url = url;
    registration.expires = unixTimeOf(expiration);
    registration.renew = renewalOf(registration.expires, unixTime());
    session.m_pushRenewal.tries.erase(node);
    return session.storePush(node, registration);
}

void answerAddress(PubSubSession& session, const _endpointStruct& request, const std::string& url) {
    session.addNodeToDeleteStore(request.node, request.appId);
    // One that is received already may have an open item.
    if (!session.receiverOf(request.node))
        session.joinReceiver(request.node, request.appId);
    addressReply(request.endpoint, url).respond(request.message.get(), "", kRespondFailed);
}

int64_t renewalTime(const PubSubSession& session, const std::string& node,
                    const _pushRegistrationStruct& registration) {
    const auto tries = session.m_pushRenewal.tries.find(node);
    const int64_t earliest = tries == session.m_pushRenewal.tries.end() ? 0 : tries->second.next;
    const bool isDue = registration.jid != fullJid(session) || isPastHalf(registration, unixTime());
    return std::max(earliest, isDue ? 0 : registration.renew);
}

void setRenewalAlarm(PubSubSession& session) {
    int64_t next = 0;
    for (const auto& [node, registration] : session.pushNodes()) {
        const int64_t time = renewalTime(session, node, registration);
        next = next == 0 ? time : std::min(next, time);
    }
    const int64_t now = unixTime();
    int64_t& alarm = session.m_pushRenewal.alarm;
    // One that is set stays when it is early enough.
    if (next == 0 || (alarm > now && alarm <= next))
        return;
    alarm = session.setRenewalTimer(std::clamp(next - now, kSoonestAlarm, kLatestAlarm)) ? next : 0;
}

// An answer that does not come counts as a refusal: it is tried again after a pause that grows.
void renew(PubSubSession& session, const std::string& node, int64_t now) {
    _pushRenewalStruct& renewal = session.m_pushRenewal;
    _pushTriesStruct& tries = renewal.tries[node];
    tries.next = now + (kFirstRetry << std::min(tries.count++, kMostDoublings));
    std::erase_if(renewal.requests, [&](const auto& each) { return each.second == node; });
    const std::string id = askProvider(session, *session.pushRegistration(node));
    if (!id.empty())
        renewal.requests[id] = node;
}

void renewPushes(PubSubSession& session) {
    const int64_t now = unixTime();
    std::vector<std::string> due;
    for (const auto& [node, registration] : session.pushNodes())
        if (renewalTime(session, node, registration) <= now)
            due.push_back(node);
    for (const std::string& node : due)
        renew(session, node, now);
    setRenewalAlarm(session);
}

}  // namespace

void backendFound(PubSubSession& session, _endpointStruct request, const std::string& refusal) {
    if (lacksExtension(session))
        return createAtProvider(session, std::move(request));
    BusError error;
    if (!QSMessageRespond(request.message.get(), refusal.c_str(), error))
        PrvPrintErr({}, kRespondFailed, "", error.message());
}

// What is registered keeps its address until half of its time is over: some providers give another one each
// time, and a new address has to be told to the application and to its sender.
void createAtProvider(PubSubSession& session, _endpointStruct request) {
    if (session.m_pushSearch.backend == PushBackend::None)
        return refuse(request, kServerRefused, kNoBackend);
    const _pushRegistrationStruct* known = session.pushRegistration(request.node);
    if (known && known->provider == session.m_pushSearch.provider && known->jid == fullJid(session) &&
        !isPastHalf(*known, unixTime()))
        return answerAddress(session, request, known->url);
    _pushRegistrationStruct registration;
    registration.provider = session.m_pushSearch.provider;
    if (!session.namesForProvider(request.node, request.appId, registration))
        return refuse(request, "libErr", kNotStored);
    const std::string id = askProvider(session, registration);
    if (id.empty())
        return refuse(request, "libErr", kLibraryNotInitialized);  // uncovered: there is a connection
    const std::string appId = request.appId;
    const bool counts = !known && !request.creation;
    session.keepEndpointRequest(id, std::move(request));
    if (counts)
        session.countCreation(id, appId);
}

// Providers have no request for this: what comes later is refused, which their senders are told.
bool deletePushEndpoint(PubSubSession& session, Request& request) {
    session.forgetPush(request.node);
    const std::string id = "push:" + request.node;
    request.waitForEndpoint(id);
    session.handleNodeDeletation(id, session.pubsubService(), request.node, nullptr);
    return true;
}

void PubSubSession::handlePushRegistration(const std::string& id, const gloox::JID& provider,
                                           const std::string& url, const std::string& expiration,
                                           const gloox::Error* error) {
    setPingTimer();
    if (const auto request = takeEndpointRequest(id)) {
        if (error || url.empty())
            return refuse(*request, kServerRefused, refusalOf(request->node, provider, error));
        _pushRegistrationStruct registration;
        registration.provider = provider.full();
        if (!namesForProvider(request->node, request->appId, registration) ||
            !storeAddress(*this, request->node, registration, url, expiration))
            return refuse(*request, "libErr", kNotStored);
        answerAddress(*this, *request, url);
        tellProvider(*this, registration.provider);
        return setRenewalAlarm(*this);
    }
    const auto renewal = m_pushRenewal.requests.extract(id);
    const _pushRegistrationStruct* before = renewal ? pushRegistration(renewal.mapped()) : nullptr;
    if (!before)
        return;
    const std::string node = renewal.mapped();
    if (error || url.empty()) {
        PrvPrintErr({}, "The address of %s is not renewed, it is tried again: %s", node.c_str(),
                    refusalOf(node, provider, error).c_str());
        return;
    }
    _pushRegistrationStruct registration = *before;
    registration.untold = before->untold || before->url != url;
    if (!storeAddress(*this, node, registration, url, expiration))
        return;
    tellAddress(node);
    setRenewalAlarm(*this);
}

void PubSubSession::tellAddress(const std::string& node) {
    const _pushRegistrationStruct* known = pushRegistration(node);
    const auto receiver = receiverOf(node);
    if (!known || !known->untold || !receiver)
        return;
    const std::size_t prefix = m_username.size() + m_resource.size() + receiver->appId.size() + 4;  // slashes
    const std::string endpoint = node.substr(prefix);
    BusError error;
    if (!QSMessageRespond(receiver->message.get(), addressReply(endpoint, known->url).text().c_str(),
                          error)) {
        PrvPrintErr({}, "Sending an address to the receiver %s failed. Bus error %s ",
                    receiver->client.c_str(), error.message());
        return;
    }
    _pushRegistrationStruct told = *known;
    told.untold = false;
    storePush(node, told);
}

// --- renewals

void PubSubSession::beginPushes() {
    std::set<std::string> providers;
    for (const auto& [node, registration] : pushNodes())
        providers.insert(registration.provider);
    for (const std::string& provider : providers)
        tellProvider(*this, provider);
    renewPushes(*this);
}

void PubSubSession::endPushes() {
    m_pushRenewal.requests.clear();
    m_pushRenewal.tries.clear();
    m_pushRenewal.presences.clear();
    forgetBackend(*this);
}

bool pushRenewalTimer(QSHandle*, QSMessage*, void*) {
    gCurrentSession.m_pushRenewal.alarm = 0;
    if (gCurrentSession.m_connected)
        renewPushes(gCurrentSession);
    return true;
}
