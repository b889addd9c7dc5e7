// SPDX-License-Identifier: GPL-3.0-only
// The start of the bridge, and what its other files share: the state's way to disk, owners of names,
// announcements.
#include "unifiedpush/bridge.h"

#include <glib.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "util/log.h"

namespace {

constexpr int64_t kWriteAgain = 60'000;  // milliseconds

}  // namespace

Bridge::Bridge(std::string folder)
    : unixTime([] { return g_get_real_time() / G_USEC_PER_SEC; }),
      m_file(std::move(folder)),
      m_names(m_bus),
      m_delivery(m_bus, m_names, m_state) {
    m_names.onChange = [this](const std::string& service) { nameChanged(service); };
    m_delivery.onTaken = [this](const std::string& endpoint, const Item& item) { taken(endpoint, item); };
    m_delivery.onAnnounced = [this](const std::string& endpoint) { announced(endpoint); };
    m_distributor.onRegister = [this](RegisterCall call) {
        const LogPayer payer(m_log);
        takeRegister(std::make_shared<RegisterCall>(std::move(call)));
    };
    m_distributor.onUnregister = [this](UnregisterCall call) {
        std::vector<std::string> services;
        for (const auto& [endpoint, registration] : m_state.registrations)
            if (registration.token == call.token)
                services.push_back(registration.service);
        takeUnregister(std::make_shared<UnregisterCall>(std::move(call)), std::move(services));
    };
    m_device.onAppeared = [this] { appeared(); };
    m_device.onConnected = [this] { connected(); };
    m_device.onItem = [this](const std::string& endpoint, json_object* json) { takeItem(endpoint, json); };
    m_device.onAddress = [this](const std::string& endpoint, const std::string& url) {
        addressChanged(endpoint, url);
    };
    m_device.onWithdrawn = [this](const std::string& endpoint) { m_delivery.withdraw(endpoint); };
    m_device.onReceiveRefused = [this](const std::string& endpoint) {
        m_confirmed.erase(endpoint);
        attend();
    };
}

bool Bridge::start(std::string& problem) {
    if (!m_bus.open(problem) || !m_file.load(m_state, problem) || !takeName(problem))
        return false;
    m_bus.onLost = [this] { onEnd(); };
    m_names.start();
    for (const auto& [endpoint, registration] : m_state.registrations) {
        m_names.follow(registration.service);
        if (!registration.announced && !registration.url.empty())
            announce(endpoint, "");
    }
    // Applications may look at the object as soon as the name is there: they are answered first.
    m_open.start(0, [this] {
        m_device.start();
        keepHouse();
    });
    return true;
}

// Whoever does not get the name writes nothing and receives nothing.
bool Bridge::takeName(std::string& problem) {
    int result = m_distributor.serve(m_bus.get());
    if (result >= 0)
        result = serveManagement();
    if (result >= 0)
        result = sd_bus_request_name(m_bus.get(), kDistributorName, 0);
    if (result >= 0)
        return true;
    problem = result == -EEXIST
                  ? std::string(kDistributorName) + " is on the session bus already; one is enough for a user"
                  : std::string("cannot take the name ") + kDistributorName + ": " + std::strerror(-result);
    return false;
}

void Bridge::askOwner(const std::string& service, Owned owned) {
    const auto query = m_asking.emplace(m_asking.end());
    const auto answered = [this, query, owned](sd_bus_message* answer) {
        const sd_bus_error* error = sd_bus_message_get_error(answer);
        const char* owner = "";
        const bool known = error ? sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0
                                 : sd_bus_message_read(answer, "s", &owner) > 0;
        m_asking.erase(query);
        owned(known, owner);
    };
    if (m_bus.askDaemon("GetNameOwner", service.c_str(), *query, answered))
        return;
    // uncovered: a call to the daemon is sent, or the bus is lost, which ends the bridge
    m_asking.erase(query);
    owned(false, "");
}

// What changes within a turn of the loop is written at once. The timer is not started anew, or it would not be
// due while further calls come in.
void Bridge::save(std::function<void(bool stored)> then) {
    if (then)
        m_written.push_back(std::move(then));
    if (!m_write.isRunning())
        m_write.start(0, [this] { writeState(); });
}

void Bridge::writeState() {
    const bool stored = m_file.save(m_state);
    for (const auto& then : std::exchange(m_written, {}))
        then(stored);
    // What is told to nobody, such as a removal, has to reach the disk at some time.
    if (!stored)
        m_writeAgain.start(kWriteAgain, [this] { writeState(); });
    else
        m_writeAgain.stop();
}

void Bridge::remove(const std::string& endpoint) {
    const auto found = m_state.registrations.find(endpoint);
    if (found == m_state.registrations.end())
        return;  // uncovered: whoever removes one has just found it
    const std::string service = found->second.service;
    m_delivery.forget(endpoint);
    m_device.stopReceiving(endpoint);
    m_state.registrations.erase(found);
    m_state.unclaimed.erase(endpoint);
    m_state.deleting.insert(endpoint);
    m_confirmed.erase(endpoint);
    m_confirming.erase(endpoint);
    answerWaiters(endpoint, kInternalError);
    for (const auto& [other, registration] : m_state.registrations)
        if (registration.service == service)
            return;
    m_names.unfollow(service);
    m_state.absent.erase(service);
}

void Bridge::announce(const std::string& endpoint, const std::string& to) {
    if (!m_state.registrations.at(endpoint).newest)
        return;
    m_delivery.announce(endpoint, to);
    watchAge(m_state.registrations.at(endpoint).service);
}

void Bridge::announced(const std::string& endpoint) {
    if (!std::exchange(m_state.registrations.at(endpoint).announced, true))
        save(nullptr);
}

void Bridge::nameChanged(const std::string& service) {
    m_delivery.nameChanged(service);
    watchAge(service);
}
