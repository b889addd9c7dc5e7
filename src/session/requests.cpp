// SPDX-License-Identifier: GPL-3.0-only
// Bus requests that wait for the server's result; only this file inserts and removes them.
//
// m_msgMap holds the private requests and survives a disconnect. m_endpointMap holds the public ones, which a
// disconnect answers and removes. Replacing an entry releases its message. Nothing survives a restart.
#include <utility>

#include "platform/bus/qscaller.h"
#include "session/pubsubsession.h"
#include "util/log.h"

void PubSubSession::keepRequest(const std::string& id, QSMessage* message) {
    m_msgMap[id] = KeptMessage(message);
}

QSMessage* PubSubSession::keptRequest(const std::string& id) const {
    const auto kept = m_msgMap.find(id);
    return kept == m_msgMap.end() ? nullptr : kept->second.get();
}

KeptMessage PubSubSession::takeRequest(const std::string& id) {
    auto kept = m_msgMap.extract(id);
    return kept ? std::move(kept.mapped()) : KeptMessage();
}

void PubSubSession::setEndpointMap(const std::string& id, QSMessage* message, const std::string& endpoint,
                                   const std::string& node, const std::string& appId) {
    m_endpointMap[id] = {endpoint, appId, node, KeptMessage(message)};
}

void PubSubSession::keepEndpointRequest(const std::string& id, _endpointStruct request) {
    m_endpointMap[id] = std::move(request);
}

void PubSubSession::removeFromEndointMap(const std::string& id) {
    if (m_endpointMap.erase(id) == 0)
        PrvPrintErr({}, "Did not find %s in endpoint map", id.c_str());
}

std::optional<_endpointStruct> PubSubSession::takeEndpointRequest(const std::string& id) {
    auto kept = m_endpointMap.extract(id);
    return kept ? std::optional(std::move(kept.mapped())) : std::nullopt;
}

std::map<std::string, _endpointStruct> PubSubSession::takeEndpointRequests() {
    return std::exchange(m_endpointMap, {});
}

void PubSubSession::dropEndpointRequests(QSMessage* message) {
    std::erase_if(m_endpointMap, [&](const auto& entry) { return entry.second.message.get() == message; });
}

void PubSubSession::countCreation(const std::string& id, const std::string& appId) {
    std::weak_ptr<void>& creating = m_creating[appId];
    std::shared_ptr<void> held = creating.lock();
    if (!held)
        creating = held = std::make_shared<bool>(true);
    m_endpointMap[id].creation = held;
}

// Public requests are never held for the stream: they are only sent while it is up.
bool PubSubSession::isAwaited(const std::string& id) const {
    QSMessage* kept = keptRequest(id);
    return kept && !QSMessageIsCallerGone(kept);
}
