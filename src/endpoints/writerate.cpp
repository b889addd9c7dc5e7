// SPDX-License-Identifier: GPL-3.0-only
// Rate limit on changes of an application's stored notices: each change costs a sync to disk, which blocks
// all other requests.
//
// Keeps PubSubSession::m_writeRates: for each application the time up to which its changes are accounted for,
// and its requests that wait. A waiting request is kept and handled later, in its order, so that its answer
// is the result of the change. Nothing survives a restart.
#include <glib.h>

#include <algorithm>
#include <utility>

#include "request/request.h"
#include "session/pubsubsession.h"

namespace {

constexpr gint64 kCost = G_USEC_PER_SEC / 10;  // of one change
constexpr gint64 kBurst = 128 * kCost;  // all notices of an application, recorded and withdrawn at once
constexpr guint kTurn = 50;             // milliseconds between two checks of the waiting requests
constexpr std::size_t kWaiting = 1024;  // requests of one application

bool isPaid(const _writeRateStruct& rate, gint64 now) {
    return rate.paidUntil + kCost <= now + kBurst;
}

void pay(_writeRateStruct& rate, gint64 now) {
    rate.paidUntil = std::max(rate.paidUntil, now) + kCost;
}

}  // namespace

WriteTurn PubSubSession::takeWriteTurn(const Request& request, bool writes, QSFilter handler) {
    // The request that is being handled has waited already.
    if (m_writing == request.message)
        return WriteTurn::Now;
    const gint64 now = g_get_monotonic_time();
    const auto known = m_writeRates.find(request.appId);
    const bool waits = known != m_writeRates.end() && !known->second.waiting.empty();
    if (!writes && !waits)
        return WriteTurn::Now;
    if (known == m_writeRates.end())
        std::erase_if(m_writeRates, [&](const auto& entry) {
            return entry.second.waiting.empty() && entry.second.paidUntil <= now;
        });
    _writeRateStruct& rate = m_writeRates[request.appId];
    if (!waits && isPaid(rate, now)) {
        pay(rate, now);
        return WriteTurn::Now;
    }
    if (rate.waiting.size() >= kWaiting)
        return WriteTurn::Never;
    rate.waiting.push_back({handler, request.handle, KeptMessage(request.message)});
    if (m_writeTimer == 0) {
        GSource* timer = g_timeout_source_new(kTurn);
        g_source_set_callback(timer, handleWaitingWrites, this, nullptr);
        m_writeTimer = g_source_attach(timer, m_mainLoop ? g_main_loop_get_context(m_mainLoop) : nullptr);
        g_source_unref(timer);
    }
    return WriteTurn::Later;
}

gboolean PubSubSession::handleWaitingWrites(gpointer context) {
    auto* session = static_cast<PubSubSession*>(context);
    const gint64 now = g_get_monotonic_time();
    bool more = false;
    for (auto& [appId, rate] : session->m_writeRates) {
        while (!rate.waiting.empty() && isPaid(rate, now)) {
            const _waitingWriteStruct next = std::move(rate.waiting.front());
            rate.waiting.pop_front();
            pay(rate, now);
            session->m_writing = next.message.get();
            next.handler(next.handle, next.message.get(), nullptr);
            session->m_writing = nullptr;
        }
        more = more || !rate.waiting.empty();
    }
    if (!more)
        session->m_writeTimer = 0;
    return more ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}
