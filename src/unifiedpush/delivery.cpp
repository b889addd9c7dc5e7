// SPDX-License-Identifier: GPL-3.0-only
// Order: what was taken is reported first, then the next call is made.
#include "unifiedpush/delivery.h"

#include <glib.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "unifiedpush/connector.h"
#include "util/log.h"

namespace {

constexpr unsigned kCallsOfApplication = 16;  // at once
constexpr unsigned kLongestPause = 60;        // seconds
constexpr unsigned kMostRefusals = 10;
constexpr int64_t kSecond = 1000;        // milliseconds
constexpr int64_t kLongestTimer = 3600;  // seconds; the wall clock may be set in the meantime

int64_t unixTime() {
    return g_get_real_time() / G_USEC_PER_SEC;
}

unsigned pauseAfter(unsigned failures) {
    return failures > 6 ? kLongestPause : 1U << (failures > 0 ? failures - 1 : 0);
}

bool isExpired(const Item& item) {
    return item.expires != 0 && item.expires <= unixTime();
}

}  // namespace

Delivery::Delivery(SessionBus& bus, Names& names, const State& state)
    : m_bus(bus), m_names(names), m_state(state) {
    m_starts.onPlace = [this](const std::string& service) { pump(service); };
}

void Delivery::Job::begin() {
    end();
    wanted = true;
}

void Delivery::Job::end() {
    wanted = false;
    failures = refusals = 0;
    pause.stop();
}

const Registration* Delivery::registrationOf(const std::string& endpoint) const {
    const auto found = m_state.registrations.find(endpoint);
    return found == m_state.registrations.end() ? nullptr : &found->second;
}

Delivery::Route& Delivery::routeOf(const std::string& endpoint) {
    Route& route = m_routes[endpoint];
    if (route.service.empty()) {
        route.endpoint = endpoint;
        route.service = registrationOf(endpoint)->service;
        m_applications[route.service].endpoints.insert(endpoint);
    }
    return route;
}

void Delivery::deliver(const std::string& endpoint, Item item) {
    if (!registrationOf(endpoint))
        return;  // uncovered: items come only for what is registered
    Route& route = routeOf(endpoint);
    if (item.id == route.taken && !item.id.empty()) {
        take(endpoint, item);
    } else if (route.message.call && route.item.id == item.id) {
        route.item = std::move(item);
        route.withdrawn = route.replaced = false;
    } else if (route.message.call) {
        route.next = std::move(item);
        route.replaced = true;
    } else {
        put(route, std::move(item));
    }
}

void Delivery::put(Route& route, Item item) {
    if (route.item.id != item.id || !route.message.wanted)
        route.message.begin();
    route.item = std::move(item);
    route.withdrawn = route.replaced = false;
    watchExpiry(route);
    const std::string service = route.service;
    pump(service);
}

void Delivery::watchExpiry(Route& route) {
    route.expiry.stop();
    if (route.item.expires == 0 || !route.message.wanted)
        return;
    const int64_t left = std::clamp<int64_t>(route.item.expires - unixTime(), 0, kLongestTimer);
    route.expiry.start(left * kSecond, [this, endpoint = route.endpoint, service = route.service] {
        pump(service);
        const auto found = m_routes.find(endpoint);
        if (found != m_routes.end() && !isExpired(found->second.item))
            watchExpiry(found->second);  // uncovered: the longest timer is one of days
    });
}

void Delivery::acknowledged(const std::string& endpoint, const std::string& id) {
    const auto found = m_routes.find(endpoint);
    if (found != m_routes.end() && found->second.taken == id)
        found->second.taken.clear();
}

void Delivery::withdraw(const std::string& endpoint) {
    const auto found = m_routes.find(endpoint);
    if (found == m_routes.end())
        return;
    Route& route = found->second;
    route.replaced = false;
    route.withdrawn = true;
    if (route.message.call)
        return;
    route.message.end();
    route.expiry.stop();
}

void Delivery::announce(const std::string& endpoint, const std::string& to) {
    if (!registrationOf(endpoint))
        return;  // uncovered: announced is what is registered
    Route& route = routeOf(endpoint);
    // A call that is not answered yet has the address of before, or went to a connection that may be gone.
    if (route.announcement.call) {
        route.announcement.call.reset();
        --m_applications[route.service].calls;
    }
    route.announcement.begin();
    const std::string service = route.service;
    if (!to.empty())
        callAnnouncement(endpoint, route, to);
    else
        pump(service);
}

void Delivery::forget(const std::string& endpoint) {
    const auto found = m_routes.find(endpoint);
    if (found == m_routes.end())
        return;
    const std::string service = found->second.service;
    Application& application = m_applications[service];
    application.calls -= (found->second.message.call ? 1 : 0) + (found->second.announcement.call ? 1 : 0);
    application.endpoints.erase(endpoint);
    m_routes.erase(found);
    if (!application.endpoints.empty())
        return;
    m_applications.erase(service);
    m_starts.release(service);
}

void Delivery::nameChanged(const std::string& service) {
    const auto found = m_applications.find(service);
    if (found == m_applications.end())
        return;
    if (m_names.stateOf(service) == Names::State::Running) {
        found->second.unstartable = false;
        for (const std::string& endpoint : found->second.endpoints)
            for (Job* job : {&m_routes[endpoint].announcement, &m_routes[endpoint].message}) {
                job->failures = 0;
                job->pause.stop();
            }
        m_starts.release(service);
    }
    pump(service);
}

bool Delivery::isBlocked(const std::string& service) const {
    const auto found = m_applications.find(service);
    if (found == m_applications.end())
        return false;
    const Names::State state = m_names.stateOf(service);
    if (state != Names::State::Absent && (state != Names::State::Startable || !found->second.unstartable))
        return false;
    const auto& endpoints = found->second.endpoints;
    return std::any_of(endpoints.begin(), endpoints.end(), [&](const std::string& endpoint) {
        const Route& route = m_routes.at(endpoint);
        return route.announcement.wanted || route.message.wanted;
    });
}

void Delivery::pump(const std::string& service) {
    const auto found = m_applications.find(service);
    if (found == m_applications.end())
        return;  // uncovered: an application goes with its last call and its timers
    // What is reported may remove a registration.
    const std::vector<std::string> endpoints(found->second.endpoints.begin(), found->second.endpoints.end());
    for (const std::string& endpoint : endpoints) {
        const auto application = m_applications.find(service);
        if (application == m_applications.end())
            return;  // uncovered: nothing that is reported in between removes the last registration
        pumpRoute(endpoint, application->second);
    }
}

void Delivery::pumpRoute(const std::string& endpoint, Application& application) {
    const auto found = m_routes.find(endpoint);
    if (found == m_routes.end())
        return;  // uncovered: nothing that is reported in between removes a registration
    Route& route = found->second;
    if (route.announcement.isDue() && mayCall(route.service, application))
        callAnnouncement(endpoint, route, route.service);
    if (dropExpired(endpoint, route))
        return;
    if (route.message.isDue() && mayCall(route.service, application))
        callMessage(endpoint, route);
}

bool Delivery::dropExpired(const std::string& endpoint, Route& route) {
    if (!route.message.wanted || route.message.call || !isExpired(route.item))
        return false;
    route.message.end();
    take(endpoint, Item(route.item));
    return true;
}

bool Delivery::mayCall(const std::string& service, Application& application) {
    const Names::State state = m_names.stateOf(service);
    if (state == Names::State::Unknown || state == Names::State::Absent ||
        application.calls >= kCallsOfApplication)
        return false;
    // With a call under way the daemon is starting it already.
    return state == Names::State::Running || application.calls > 0 || m_starts.take(service);
}

void Delivery::callAnnouncement(const std::string& endpoint, Route& route, const std::string& to) {
    place(endpoint, route.announcement, newEndpointCall(m_bus.get(), *registrationOf(endpoint), to),
          &Delivery::finishAnnouncement);
}

void Delivery::callMessage(const std::string& endpoint, Route& route) {
    place(endpoint, route.message,
          newMessageCall(m_bus.get(), *registrationOf(endpoint), route.item.id, route.item.bytes),
          &Delivery::finishMessage);
}

// A route and with it the job live until the registration is forgotten, which ends the call.
void Delivery::place(const std::string& endpoint, Job& job, Wire call, Finish finish) {
    const unsigned seconds = std::min(patience.longestAnswer, patience.answer << std::min(job.failures, 8U));
    const auto onAnswer = [this, endpoint, &job, finish](sd_bus_message* answer) {
        job.call.reset();
        answered(endpoint, job, outcomeOf(answer), finish);
    };
    if (call && m_bus.call(call.get(), seconds, job.call, onAnswer)) {
        ++m_applications[m_routes[endpoint].service].calls;
        return;
    }
    // uncovered: a call is sent, or the bus is lost, which ends the bridge
    PrvPrintErr({}, "A call to %s could not be sent", m_routes[endpoint].service.c_str());
    ++job.failures;
    job.pause.start(pauseAfter(job.failures) * kSecond,
                    [this, service = m_routes[endpoint].service] { pump(service); });
}

void Delivery::answered(const std::string& endpoint, Job& job, Outcome outcome, Finish finish) {
    const std::string service = m_routes[endpoint].service;
    Application& application = m_applications[service];
    --application.calls;
    application.unstartable = outcome == Outcome::Unstartable;
    if (outcome == Outcome::Absent)
        m_names.refresh();
    m_starts.release(service);
    if (isOver(job, outcome, service)) {
        job.end();
        (this->*finish)(endpoint);
    } else if (&job != &m_routes[endpoint].message || !giveWay(m_routes[endpoint])) {
        ++job.failures;
        job.pause.start(pauseAfter(job.failures) * kSecond, [this, service] { pump(service); });
    }
    pump(service);
}

// The item that was not taken is not the open one any longer.
bool Delivery::giveWay(Route& route) {
    const bool replaced = std::exchange(route.replaced, false);
    if (!replaced && !route.withdrawn)
        return false;
    route.message.end();
    route.expiry.stop();
    if (replaced)
        put(route, std::move(route.next));
    return true;
}

bool Delivery::isOver(Job& job, Outcome outcome, const std::string& service) const {
    if (outcome == Outcome::Refused && ++job.refusals == kMostRefusals) {
        PrvPrintErr({}, "%s answers with an error again and again; what it refuses is dropped",
                    service.c_str());
        return true;
    }
    return outcome == Outcome::Taken;
}

void Delivery::finishAnnouncement(const std::string& endpoint) {
    onAnnounced(endpoint);
}

// The item may have been replaced while its application was called with it.
void Delivery::finishMessage(const std::string& endpoint) {
    Route& route = m_routes[endpoint];
    route.expiry.stop();
    take(endpoint, Item(route.item));
    const auto found = m_routes.find(endpoint);
    if (found != m_routes.end())
        giveWay(found->second);
}

void Delivery::take(const std::string& endpoint, const Item& item) {
    m_routes[endpoint].taken = item.id;
    onTaken(endpoint, item);
}
