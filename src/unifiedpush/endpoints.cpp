// SPDX-License-Identifier: GPL-3.0-only
// The device's side: the endpoint of each registration, its address, its items, and its end.
//
// Each endpoint is asked for once for each connection of the device to the server, since the server may have
// forgotten it, or may be reached by another address. Until the service has been seen connected, one request
// at a time finds out whether it is; after that the service reports it.
#include <glib.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "unifiedpush/bridge.h"
#include "util/log.h"

namespace {

constexpr unsigned kLongestPause = 60;  // seconds
constexpr int64_t kSecond = 1000;       // milliseconds
constexpr int64_t kUnstoredPause = 60 * kSecond;
constexpr int64_t kRefusedPause = 3600 * kSecond;

int64_t pauseAfter(unsigned failures) {
    return (failures > 6 ? kLongestPause : 1U << (failures - 1)) * kSecond;
}

std::string decoded(const std::string& text) {
    gsize length = 0;
    guchar* bytes = g_base64_decode(text.c_str(), &length);
    std::string result(reinterpret_cast<const char*>(bytes), length);
    g_free(bytes);
    return result;
}

// What an application is told of a refusal: some need somebody to do something first.
const char* reasonOf(const DeviceAnswer& answer) {
    constexpr std::string_view kNeedAction[] = {"resource-constraint", "not-allowed", "policy-violation",
                                                "feature-not-implemented", "service-unavailable"};
    const bool needsAction =
        answer.code == "appErr" || answer.code == "libErr" ||
        std::any_of(std::begin(kNeedAction), std::end(kNeedAction),
                    [&](std::string_view each) { return answer.text.find(each) != std::string::npos; });
    return needsAction ? kActionRequired : kInternalError;
}

}  // namespace

void Bridge::appeared() {
    m_confirmed.clear();
    m_refused.clear();
    m_online = false;
    m_failures = 0;
    attend();
}

void Bridge::connected() {
    m_confirmed.clear();
    m_refused.clear();
    m_failures = 0;
    attend();
}

// Asks for what is not confirmed and deletes what is not registered any longer; only the first of it while it
// is not known that the server answers.
void Bridge::attend() {
    if (!m_device.isThere())
        return;
    for (const auto& [endpoint, registration] : m_state.registrations) {
        if (m_confirmed.contains(endpoint) || m_refused.contains(endpoint))
            continue;
        confirm(endpoint);
        if (!m_online)
            return;
    }
    for (const std::string& endpoint : m_state.deleting) {
        if (m_refused.contains(endpoint) || m_state.registrations.contains(endpoint))
            continue;
        erase(endpoint);
        if (!m_online)
            return;
    }
}

void Bridge::confirm(const std::string& endpoint) {
    m_refused.erase(endpoint);
    if (!m_device.isThere() || m_confirmed.contains(endpoint) || !m_confirming.insert(endpoint).second)
        return;
    // What was unregistered before the server heard of it begins anew.
    if (m_state.deleting.contains(endpoint))
        erase(endpoint);
    JsonObject payload;
    payload.set("endpoint", endpoint).set("webPush", true);
    const std::string& vapid = m_state.registrations.at(endpoint).vapid;
    if (!vapid.empty())
        payload.set("vapid", vapid);
    m_device.call("createEndpoint", payload,
                  [this, endpoint](const DeviceAnswer& answer) { created(endpoint, answer); });
}

void Bridge::created(const std::string& endpoint, const DeviceAnswer& answer) {
    m_confirming.erase(endpoint);
    if (answer.offline) {
        offline();
        return;
    }
    if (m_state.registrations.contains(endpoint))
        takeAnswer(endpoint, answer);
    online();
}

void Bridge::takeAnswer(const std::string& endpoint, const DeviceAnswer& answer) {
    Registration& registration = m_state.registrations.at(endpoint);
    const std::string url = textMember(answer.json.get(), "url");
    if (!answer.ok) {
        refused(endpoint, answer, reasonOf(answer));
    } else if (url.empty() || !isUrl(url)) {
        DeviceAnswer nowhere;
        nowhere.text = "the server names no address for senders; its option push_url has to be set";
        refused(endpoint, nowhere, kActionRequired);
    } else {
        m_confirmed.insert(endpoint);
        m_device.receive(endpoint);
        if (registration.url != url)
            takeAddress(endpoint, registration, url);
    }
}

// The service has renewed it. One that it asks for itself comes with the answer.
void Bridge::addressChanged(const std::string& endpoint, const std::string& url) {
    const auto found = m_state.registrations.find(endpoint);
    if (found != m_state.registrations.end() && isUrl(url) && found->second.url != url)
        takeAddress(endpoint, found->second, url);
}

void Bridge::takeAddress(const std::string& endpoint, Registration& registration, const std::string& url) {
    const std::string before = std::exchange(registration.url, url);
    registration.announced = false;
    save([this, endpoint, before](bool stored) {
        const bool told = m_waiters.contains(endpoint);
        const auto found = m_state.registrations.find(endpoint);
        if (found == m_state.registrations.end())
            return;  // uncovered: a registration that ends while its address is written
        if (!stored) {
            found->second.url = before;
            m_confirmed.erase(endpoint);
            m_attend.start(kUnstoredPause, [this] { attend(); });
        }
        answerWaiters(endpoint, stored ? nullptr : kInternalError);
        if (stored && !told)
            announce(endpoint, "");
    });
}

// A registration that never had an address goes; the application registers again.
void Bridge::refused(const std::string& endpoint, const DeviceAnswer& answer, const char* reason) {
    const Registration& registration = m_state.registrations.at(endpoint);
    PrvPrintErr({}, "The endpoint of %s is refused: %s", registration.service.c_str(), answer.text.c_str());
    answerWaiters(endpoint, reason);
    if (registration.url.empty()) {
        remove(endpoint);
        save(nullptr);
        return;
    }
    m_refused.insert(endpoint);
    attendAgain();
}

// What the server refuses is asked for again.
void Bridge::attendAgain() {
    if (!m_refusedTimer.isRunning())
        m_refusedTimer.start(kRefusedPause, [this] {
            // uncovered: after an hour
            m_refused.clear();
            attend();
        });
}

void Bridge::erase(const std::string& endpoint) {
    if (!m_erasing.insert(endpoint).second)
        return;
    m_device.call("deleteEndpoint", JsonObject().set("endpoint", endpoint),
                  [this, endpoint](const DeviceAnswer& answer) { erased(endpoint, answer); });
}

void Bridge::erased(const std::string& endpoint, const DeviceAnswer& answer) {
    m_erasing.erase(endpoint);
    if (answer.offline) {
        offline();
        return;
    }
    online();
    if (answer.ok) {
        if (m_state.deleting.erase(endpoint) > 0)
            save(nullptr);
    } else {
        PrvPrintErr({}, "Deleting an endpoint is refused, it is tried again: %s", answer.text.c_str());
        m_refused.insert(endpoint);
        attendAgain();
    }
}

// The server has answered.
void Bridge::online() {
    m_failures = 0;
    if (std::exchange(m_online, true))
        return;
    m_attend.stop();
    m_device.followConnection();
    m_device.call("listEndpoints", JsonObject(),
                  [this](const DeviceAnswer& answer) { countUnclaimed(answer); });
    attend();
}

void Bridge::offline() {
    m_online = false;
    // A connection that is followed is reported when it is there again.
    if (m_device.isThere() && !m_device.isKnownOffline() && !m_attend.isRunning())
        m_attend.start(pauseAfter(++m_failures), [this] { attend(); });
}

void Bridge::takeItem(const std::string& endpoint, json_object* json) {
    const auto found = m_state.registrations.find(endpoint);
    if (found == m_state.registrations.end())
        return;  // uncovered: an item that crosses the end of its registration
    Item item;
    item.id = textMember(json, "itemid");
    item.receipt = textMember(json, "receipt");
    item.bytes = textMember(json, "item");
    if (textMember(json, "encoding") == "base64")
        item.bytes = decoded(item.bytes);
    item.expires = json_object_get_int64(jsonMember(json, "expires"));
    m_delivery.deliver(endpoint, std::move(item));
    watchAge(found->second.service);
}

// An acknowledgement that is not accepted changes nothing: the item comes again, and is acknowledged then.
void Bridge::taken(const std::string& endpoint, const Item& item) {
    m_device.call("acknowledge", JsonObject().set("endpoint", endpoint).set("receipt", item.receipt),
                  [this, endpoint, id = item.id](const DeviceAnswer& answer) {
                      if (answer.ok)
                          m_delivery.acknowledged(endpoint, id);
                  });
}
