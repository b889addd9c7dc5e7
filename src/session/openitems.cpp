// SPDX-License-Identifier: GPL-3.0-only
// The open items: of each node with a receiver or confirming handlers, the one item that they have.
//
// Keeps PubSubSession::m_openNodes, in memory only: what is open is not acknowledged, so the server still has
// it. The next item of a node follows when the open one is taken: its number is committed, then it is
// acknowledged, then whoever took it is answered. Items that are taken at the same time share a commit
// (m_takenItems). A node has at most one further item here; what else arrives is dropped, and the server is
// asked for it again. The receivers are those of endpoints/receive.cpp, the handlers those of
// delivery/confirm.cpp. What the server is told of these nodes is in openlinks.cpp.
#include "session/openitems.h"

#include <glib.h>

#include <algorithm>
#include <utility>

#include "session/pubsubsession.h"
#include "util/clock.h"
#include "util/jsonref.h"
#include "util/log.h"
#include "util/logsubject.h"

namespace {

constexpr std::size_t kMostTaken = 64;    // that share a commit: a client may wait for so many answers
constexpr int64_t kMicroseconds = 1000;   // of a millisecond
constexpr int64_t kHandlerTime = 60'000;  // milliseconds for the answers to a call
// Milliseconds: what is given back for longer goes back to its push provider, which waits for two minutes.
constexpr int64_t kLongestHeld = 60'000;
constexpr int64_t kPatience = 110 * G_USEC_PER_SEC;  // how long a push waits behind another one

guint attach(GSource* source, GSourceFunc callback, PubSubSession* session) {
    g_source_set_callback(source, callback, session, nullptr);
    GMainLoop* loop = session->m_mainLoop;
    const guint id = g_source_attach(source, loop ? g_main_loop_get_context(loop) : nullptr);
    g_source_unref(source);
    return id;
}

void destroy(guint& id, const PubSubSession& session) {
    if (id == 0)
        return;
    GMainLoop* loop = session.m_mainLoop;
    GMainContext* context = loop ? g_main_loop_get_context(loop) : nullptr;
    if (GSource* source = g_main_context_find_source_by_id(context, id))
        g_source_destroy(source);
    id = 0;
}

bool includesAll(const std::set<std::string>& set, const std::set<std::string>& part) {
    return std::includes(set.begin(), set.end(), part.begin(), part.end());
}

bool hasHandlerOf(const std::string& service, const std::set<std::string>& handlers) {
    return std::any_of(handlers.begin(), handlers.end(), [&](const std::string& handler) {
        return PubSubSession::serviceOfHandler(handler) == service;
    });
}

// Its sender wants nobody to have it any more.
bool isLate(const _itemStruct& item) {
    const int64_t expires = g_ascii_strtoll(item.expires.c_str(), nullptr, 10);
    return expires > 0 && expires <= g_get_real_time() / G_USEC_PER_SEC;
}

// The sender of one that has waited for too long was told that it failed, and may have sent it again.
std::optional<_itemStruct> nextPush(std::deque<_itemStruct>& pushed) {
    while (!pushed.empty()) {
        _itemStruct item = std::move(pushed.front());
        pushed.pop_front();
        if (bootTime() - item.push->since() < kPatience)
            return item;
    }
    return std::nullopt;
}

void answerTaken(const _takenItemStruct& taken, CallSite site = {}) {
    JsonObject answer;
    answer.set("returnValue", true).set("endpoint", taken.endpoint);
    BusError error;
    if (!QSMessageRespond(taken.message.get(), answer.text().c_str(), error))
        PrvPrintErr(site, "Sending response to acknowledge failed Error %s ", error.message());
}

}  // namespace

// --- who gets a node's items

bool PubSubSession::keepsOpenItem(const std::string& node) const {
    return m_openNodes.contains(node);
}

std::shared_ptr<_receiverStruct> PubSubSession::receiverOf(const std::string& node) const {
    const auto entry = m_openNodes.find(node);
    return entry == m_openNodes.end() ? nullptr : entry->second.receiver;
}

bool PubSubSession::isWanted(const std::string& node, const _openNodeStruct& entry) const {
    return entry.receiver || m_confirming.contains(node);
}

// A node that is active for others, or was a moment ago, is deactivated first, so that the server begins with
// the oldest item that it keeps.
void PubSubSession::setReceiver(const std::vector<std::string>& nodes,
                                const std::shared_ptr<_receiverStruct>& receiver) {
    settleItems();
    const std::string prefix = "/" + m_username + "/" + m_resource + "/" + receiver->appId + "/";
    std::vector<std::string> fresh;
    for (const std::string& node : nodes) {
        _openNodeStruct& entry = m_openNodes[node];
        forgetItems(node, entry);
        entry.receiver = receiver;
        entry.endpoint = node.starts_with(prefix) ? node.substr(prefix.size()) : node;
        tellAddress(node);
        if (!m_connected || entry.link == NodeLink::Closing || isPushNode(node))
            continue;
        if (entry.link == NodeLink::Off && !mayBeActive(node))
            fresh.push_back(node);
        else
            closeNode(node, entry);
    }
    openNodes(fresh);
}

std::vector<std::string> PubSubSession::nodesOf(const std::shared_ptr<_receiverStruct>& receiver) const {
    std::vector<std::string> nodes;
    for (const auto& [node, entry] : m_openNodes)
        if (entry.receiver == receiver)
            nodes.push_back(node);
    return nodes;
}

void PubSubSession::dropReceiver(const std::vector<std::string>& nodes) {
    settleItems();
    for (const std::string& node : nodes) {
        _openNodeStruct& entry = m_openNodes[node];
        forgetItems(node, entry);
        entry.receiver = nullptr;
        releaseNode(node);
    }
}

void PubSubSession::handlersChanged(const std::string& node) {
    settleItems();
    if (m_confirming.contains(node)) {
        _openNodeStruct& entry = m_openNodes[node];
        if (m_connected && entry.link == NodeLink::Off && !isPushNode(node))
            mayBeActive(node) ? closeNode(node, entry) : openNode(node, entry);
        return;
    }
    const auto found = m_openNodes.find(node);
    if (found == m_openNodes.end() || found->second.receiver)
        return;
    forgetItems(node, found->second);
    releaseNode(node);
}

void PubSubSession::forgetOpenNode(const std::string& node) {
    const auto found = m_openNodes.find(node);
    if (found == m_openNodes.end())
        return;
    settleItems();
    _openNodeStruct& entry = found->second;
    forgetItems(node, entry);
    entry.receiver = nullptr;
    entry.link = NodeLink::Off;
    entry.request.clear();
    if (!isWanted(node, entry))
        m_openNodes.erase(found);
}

void PubSubSession::forgetItems(const std::string& node, _openNodeStruct& entry) {
    clearDue(node, entry);
    cancelHandlerCalls(entry);
    if (entry.receiver && entry.receiver->unsent.erase(node) != 0 && !entry.receiver->unsent.empty()) {
        // It may have been the one that is due to be tried again.
        const std::string& other = *entry.receiver->unsent.begin();
        setDue(other, m_openNodes[other], retryPause(1));
    }
    entry.open.reset();
    entry.next.reset();
    entry.pushed.clear();
    entry.taken = false;
    entry.receipt.clear();
    entry.told = false;
    entry.confirmed.clear();
    entry.failures = 0;
}

// --- items

void PubSubSession::acceptItem(const std::string& node, _itemStruct item) {
    _openNodeStruct& entry = m_openNodes[node];
    if (isStalePacket(node, item.seqNo) || isLate(item)) {
        m_traces.append(item.id, isLate(item) ? "expired" : "known already");
        acknowledge(node, item.id, item.seqNo);
        return;
    }
    if (entry.link != NodeLink::On) {
        entry.missed = true;
        if (entry.link == NodeLink::Off && m_connected)
            openNode(node, entry);
        return;
    }
    if (!entry.open) {
        entry.open = std::move(item);
        handOut(node);
        return;
    }
    const uint64_t number = numberOf(item.seqNo);
    const uint64_t open = numberOf(entry.open->seqNo);
    if (number == open)
        return;
    if (!entry.next && number > open)
        entry.next = std::move(item);
    else if (!entry.next || number != numberOf(entry.next->seqNo))
        entry.missed = true;
}

bool PubSubSession::handOut(const std::string& node) {
    const auto found = m_openNodes.find(node);
    if (found == m_openNodes.end())
        return true;  // uncovered: a node that ends leaves its receiver and its times
    _openNodeStruct& entry = found->second;
    if (!entry.open || entry.taken || !entry.receipt.empty() || !entry.calls.empty())
        return true;
    const std::string itemId = entry.open->id;
    const LogSubject subject(node, itemId);
    clearDue(node, entry);
    if (isLate(*entry.open)) {
        takeOpenItem(node, entry.endpoint, nullptr);
        return true;
    }
    if (entry.receiver)
        return giveToReceiver(node, entry);
    if (askHandlers(node, entry)) {
        m_traces.append(itemId, "handed on", "confirming handlers");
        setDue(node, entry, kHandlerTime);
    } else {
        handlersDone(node, entry);
    }
    return true;
}

bool PubSubSession::holdsReceipt(const std::string& node, const std::string& receipt) const {
    const auto entry = m_openNodes.find(node);
    return entry != m_openNodes.end() && !receipt.empty() && entry->second.receipt == receipt;
}

void PubSubSession::takeOpenItem(const std::string& node, const std::string& endpoint, QSMessage* message) {
    _openNodeStruct& entry = m_openNodes[node];
    entry.taken = true;
    entry.receipt.clear();
    clearDue(node, entry);
    if (entry.open->push) {
        entry.open->push->take();
        finish({node, endpoint, KeptMessage(message)});
        return;
    }
    const std::string urgency = urgencyOf(entry);
    writeTakenSeqNo(node, entry.open->seqNo, urgency.empty() || urgency == kLeastUrgency);
    // Without a stream it is acknowledged when the server sends it again.
    if (m_connected)
        acknowledgeWhenSettled(node, entry.open->id, entry.open->seqNo);
    m_takenItems.push_back({node, endpoint, KeptMessage(message)});
    if (m_takenItems.size() >= kMostTaken)
        return settleItems();
    if (m_settleSource != 0)
        return;
    // At the priority of the bus: it runs after the messages that have arrived together.
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    m_settleSource = attach(source, settleTaken, this);
}

gboolean PubSubSession::settleTaken(gpointer context) {
    auto* session = static_cast<PubSubSession*>(context);
    session->m_settleSource = 0;
    session->settleItems();
    return G_SOURCE_REMOVE;
}

void PubSubSession::finishTaken() {
    for (const _takenItemStruct& taken : std::exchange(m_takenItems, {}))
        finish(taken);
}

void PubSubSession::finish(const _takenItemStruct& taken) {
    if (taken.message)
        answerTaken(taken);
    advance(taken.node);
}

void PubSubSession::advance(const std::string& node) {
    const auto found = m_openNodes.find(node);
    if (found == m_openNodes.end() || !found->second.taken)
        return;  // uncovered: what ends a node or its items settles what was taken before
    _openNodeStruct& entry = found->second;
    std::optional<_itemStruct> next = entry.next ? std::exchange(entry.next, {}) : nextPush(entry.pushed);
    std::deque<_itemStruct> pushed = std::exchange(entry.pushed, {});
    forgetItems(node, entry);
    entry.pushed = std::move(pushed);
    if (next) {
        entry.open = std::move(next);
        handOut(node);
    } else if (entry.missed && entry.link == NodeLink::On) {
        closeNode(node, entry);
    } else if (entry.link == NodeLink::Off && m_connected && !isPushNode(node)) {
        // Its activation was refused while the item had a time of its own.
        setDue(node, entry, retryPause(++entry.failures));
    }
}

void PubSubSession::putBack(const std::string& node, int64_t milliseconds) {
    _openNodeStruct& entry = m_openNodes[node];
    entry.receipt.clear();
    if (entry.open->push && milliseconds > kLongestHeld) {
        entry.taken = true;  // by nobody, which its provider is told
        advance(node);
        return;
    }
    setDue(node, entry, milliseconds);
}

// --- handlers

void PubSubSession::handlerAnswered(const _confirmCallStruct& call, bool confirmed) {
    const std::string node = call.node;
    const auto found = m_openNodes.find(node);
    if (found == m_openNodes.end())
        return;  // uncovered: a node's calls are cancelled before it ends
    _openNodeStruct& entry = found->second;
    const auto placed = entry.calls.find(call.endpoint);
    if (placed == entry.calls.end() || placed->second.get() != &call)
        return;  // uncovered: a call is cancelled before another one takes its place
    if (confirmed)
        entry.confirmed.insert(call.endpoint);
    entry.calls.erase(placed);
    if (entry.calls.empty())
        handlersDone(node, entry);
}

void PubSubSession::handlersDone(const std::string& node, _openNodeStruct& entry) {
    clearDue(node, entry);
    const auto handlers = m_confirming.find(node);
    if (handlers != m_confirming.end() && includesAll(entry.confirmed, handlers->second))
        takeOpenItem(node, "", nullptr);
    else
        setDue(node, entry, retryPause(++entry.failures));
}

void PubSubSession::retryHandlers(const std::string& service) {
    std::vector<std::string> nodes;
    for (const auto& [due, node] : m_dueNodes) {
        const _openNodeStruct& entry = m_openNodes[node];
        const auto handlers = m_confirming.find(node);
        if (!entry.receiver && entry.calls.empty() && handlers != m_confirming.end() &&
            hasHandlerOf(service, handlers->second))
            nodes.push_back(node);
    }
    for (const std::string& node : nodes)
        handOut(node);
}

// --- times

void PubSubSession::setDue(const std::string& node, _openNodeStruct& entry, int64_t milliseconds) {
    clearDue(node, entry);
    entry.due = g_get_monotonic_time() + milliseconds * kMicroseconds;
    m_dueNodes.emplace(entry.due, node);
    armDueTimer();
}

void PubSubSession::clearDue(const std::string& node, _openNodeStruct& entry) {
    if (entry.due == 0)
        return;
    m_dueNodes.erase({std::exchange(entry.due, 0), node});
    armDueTimer();
}

void PubSubSession::armDueTimer() {
    destroy(m_dueTimer, *this);
    if (m_dueNodes.empty())
        return;
    const int64_t left = std::max<int64_t>(0, m_dueNodes.begin()->first - g_get_monotonic_time());
    const auto milliseconds = static_cast<guint>((left + kMicroseconds - 1) / kMicroseconds);
    m_dueTimer = attach(g_timeout_source_new(milliseconds), handleDueNodes, this);
}

gboolean PubSubSession::handleDueNodes(gpointer context) {
    auto* session = static_cast<PubSubSession*>(context);
    session->m_dueTimer = 0;
    const int64_t now = g_get_monotonic_time();
    std::vector<std::string> nodes;
    std::vector<std::string> refused;  // whose activation was
    for (const auto& [due, node] : session->m_dueNodes)
        if (due <= now)
            nodes.push_back(node);
    for (const std::string& node : nodes) {
        const auto found = session->m_openNodes.find(node);
        if (found == session->m_openNodes.end() || found->second.due == 0 || found->second.due > now)
            continue;  // uncovered: only what is done for a node before it could end that of another
        _openNodeStruct& entry = found->second;
        session->clearDue(node, entry);
        if (entry.link == NodeLink::Off && session->m_connected)
            refused.push_back(node);
        if (entry.calls.empty()) {
            if (session->handOut(node) && entry.receiver)
                session->writeUnsent(*entry.receiver);
            continue;
        }
        PrvPrintErr({}, "Handlers of %s have not answered within 60 s", node.c_str());
        session->cancelHandlerCalls(entry);
        session->handlersDone(node, entry);
    }
    session->openNodes(refused);
    session->armDueTimer();
    return G_SOURCE_REMOVE;
}

void PubSubSession::dropTimers() {
    destroy(m_dueTimer, *this);
    destroy(m_settleSource, *this);
}
