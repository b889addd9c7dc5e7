// SPDX-License-Identifier: GPL-3.0-only
// Register and Unregister. A registration is on disk, with the address that the server gave, before the call
// is answered, and the application is told the address after that, each time that it registers.
//
// Without the server a call waits for some time, then fails; the registration stays, and the application is
// told its address when there is one.
#include <algorithm>
#include <utility>

#include "unifiedpush/bridge.h"
#include "unifiedpush/connector.h"
#include "util/log.h"

namespace {

constexpr unsigned kMostQuestions = 100;  // of one caller, for the owners of names
constexpr std::size_t kMostWaiters = 8;   // for one registration

// What is wrong with the texts of a call, for the log; null when nothing is.
const char* faultOf(const RegisterCall& call) {
    if (!isServiceName(call.service))
        return "its service is no name of a service";
    if (!isToken(call.token))
        return "its token does not have 1 to 100 bytes";
    if (!isDescription(call.description))
        return "its description has more than 100 bytes";
    if (!call.vapid.empty() && !isVapidKey(call.vapid))
        return "its VAPID key is no P-256 key of 87 characters";
    return nullptr;
}

std::string endpointOf(const RegisterCall& call) {
    return endpointName(call.service, call.token, call.vapid);
}

}  // namespace

void Bridge::takeRegister(const RegisterRef& call) {
    const char* fault = faultOf(*call);
    if (!fault && m_questions[call->sender] >= kMostQuestions)
        fault = "too many others of this caller are under way";
    if (fault) {
        PrvPrintErr({}, "A registration by %s is refused: %s", call->sender.c_str(), fault);
        Distributor::fail(*call, kInternalError);
        return;
    }
    ++m_questions[call->sender];
    askOwner(call->service, [this, call](bool known, const std::string& owner) {
        const LogPayer payer(m_log);
        if (--m_questions[call->sender] == 0)
            m_questions.erase(call->sender);
        if (known && (owner.empty() || owner == call->sender)) {
            acceptRegister(call, owner.empty());
            return;
        }
        PrvPrintErr({}, "A registration of %s by %s is refused: the name belongs to another connection",
                    call->service.c_str(), call->sender.c_str());
        Distributor::fail(*call, known ? kUnauthorized : kInternalError);
    });
}

void Bridge::acceptRegister(const RegisterRef& call, bool ownerless) {
    bool isNew = false;
    if (const char* reason = enter(*call, isNew)) {
        PrvPrintErr({}, "A registration of %s is refused: there are too many", call->service.c_str());
        Distributor::fail(*call, reason);
        return;
    }
    save([this, call, ownerless, isNew](bool ok) { stored(call, ownerless, isNew, ok); });
}

// Enters it into the state; the reason when it must not be.
const char* Bridge::enter(const RegisterCall& call, bool& isNew) {
    const std::string endpoint = endpointOf(call);
    isNew = !m_state.registrations.contains(endpoint);
    const auto ofService =
        std::count_if(m_state.registrations.begin(), m_state.registrations.end(),
                      [&](const auto& entry) { return entry.second.service == call.service; });
    if (isNew && (m_state.registrations.size() >= kRegistrations ||
                  static_cast<std::size_t>(ofService) >= kRegistrationsOfService))
        return kActionRequired;
    for (auto& [other, registration] : m_state.registrations)
        if (registration.service == call.service && registration.token == call.token)
            registration.newest = false;
    Registration& registration = m_state.registrations[endpoint];
    registration.service = call.service;
    registration.token = call.token;
    registration.vapid = call.vapid;
    registration.description = call.description;
    registration.version = call.version;
    registration.announced = false;
    registration.newest = true;
    m_state.unclaimed.erase(endpoint);
    m_names.follow(call.service);
    return nullptr;
}

void Bridge::stored(const RegisterRef& call, bool ownerless, bool isNew, bool ok) {
    const std::string endpoint = endpointOf(*call);
    const auto found = m_state.registrations.find(endpoint);
    if (found == m_state.registrations.end()) {
        Distributor::fail(*call, kInternalError);  // uncovered: a registration that ends while it is written
    } else if (!ok && isNew) {                     // one that was there before is on disk already
        remove(endpoint);
        Distributor::fail(*call, kInternalError);
    } else if (found->second.url.empty() || isNew) {
        // The address of a new one may be there already, on its way to the disk.
        waitForServer(call, ownerless);
    } else {
        succeed(*call, ownerless);
    }
}

void Bridge::waitForServer(const RegisterRef& call, bool ownerless) {
    const std::string endpoint = endpointOf(*call);
    std::list<Waiter>& waiters = m_waiters[endpoint];
    if (waiters.size() >= kMostWaiters) {
        Distributor::fail(*call, kInternalError);
        return;
    }
    Waiter& waiter = waiters.emplace_back();
    waiter.call = call;
    waiter.ownerless = ownerless;
    waiter.timer.start(networkPatience, [this, endpoint, &waiters, &waiter] {
        Distributor::fail(*waiter.call, kNetwork);
        waiters.remove_if([&](const Waiter& each) { return &each == &waiter; });
        if (waiters.empty())
            m_waiters.erase(endpoint);
    });
    confirm(endpoint);
}

void Bridge::succeed(const RegisterCall& call, bool ownerless) {
    Distributor::succeed(call);
    announce(endpointOf(call), ownerless ? call.sender : "");
}

// A reason of null is success.
void Bridge::answerWaiters(const std::string& endpoint, const char* reason) {
    auto waiters = m_waiters.extract(endpoint);
    if (!waiters)
        return;
    for (const Waiter& waiter : waiters.mapped()) {
        if (reason)
            Distributor::fail(*waiter.call, reason);
        else
            succeed(*waiter.call, waiter.ownerless);
    }
}

// Removes what the token stands for, as far as the caller has the name of the application, or nobody has: the
// owners of the names are asked one after the other.
void Bridge::takeUnregister(const UnregisterRef& call, std::vector<std::string> services) {
    if (services.empty()) {
        if (call->removed)
            save([this, call](bool) { finishUnregister(*call); });
        else
            finishUnregister(*call);
        return;
    }
    const std::string service = services.back();
    services.pop_back();
    askOwner(service, [this, call, service, services](bool known, const std::string& owner) {
        std::vector<std::string> endpoints;
        for (const auto& [endpoint, registration] : m_state.registrations)
            if (registration.token == call->token && registration.service == service)
                endpoints.push_back(endpoint);
        if (known && (owner.empty() || owner == call->sender))
            for (const std::string& endpoint : endpoints) {
                remove(endpoint);
                call->removed = true;
            }
        takeUnregister(call, services);
    });
}

// Confirmed in any case, also an unknown token: an application waits for it. When the disk did not take the
// removal, it is written later.
void Bridge::finishUnregister(const UnregisterCall& call) {
    Distributor::acknowledge(call);
    const Wire confirmation =
        newUnregisteredCall(m_bus.get(), call.version, call.sender, call.version == 1 ? "" : call.token);
    if (confirmation && sd_bus_message_set_expect_reply(confirmation.get(), 0) >= 0)
        sd_bus_send(m_bus.get(), confirmation.get(), nullptr);
    attend();
}
