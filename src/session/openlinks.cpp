// SPDX-License-Identifier: GPL-3.0-only
// What the server is told of nodes with a receiver or confirming handlers: one item of each at a time, or none.
//
// Keeps the link states in PubSubSession::m_openNodes, in memory only: a disconnect ends them. An item is
// accepted only from a node whose activation has been answered (session/openitems.cpp), since before that an
// older one may follow it.
#include <gloox/error.h>
#include <gloox/tag.h>

#include <memory>

#include "session/pubsubsession.h"
#include "util/log.h"
#include "xmpp/manager.h"

std::string PubSubSession::urgencyOf(const _openNodeStruct& entry) {
    return entry.receiver ? entry.receiver->urgency : std::string();
}

void PubSubSession::openWantedNodes() {
    rejoinReceivers();
    for (const auto& [node, handlers] : m_confirming)
        m_openNodes[node];
    std::vector<std::string> nodes;
    for (const auto& [node, entry] : m_openNodes)
        if (entry.link == NodeLink::Off)
            nodes.push_back(node);
    openNodes(nodes);
}

// What is open stays with whoever has it: the server sends the same item again, which is not handed out twice.
void PubSubSession::forgetOpenLinks() {
    for (auto& [node, entry] : m_openNodes) {
        entry.link = NodeLink::Off;
        entry.request.clear();
        entry.missed = false;
        entry.next.reset();
    }
    std::erase_if(m_openNodes, [this](const auto& each) { return !isWanted(each.first, each.second); });
}

void PubSubSession::openNode(const std::string& node, _openNodeStruct& entry) {
    if (isPushNode(node))
        return;
    // The server is told no number that is not on disk.
    commitSeqNos();
    std::string seqNo;
    getSeqNo(node, seqNo);
    entry.missed = false;
    entry.request =
        m_pubsub ? m_pubsub->activateNode(pubsubService(), node, seqNo, this, true, urgencyOf(entry)) : "";
    entry.link = entry.request.empty() ? NodeLink::Off : NodeLink::Opening;
}

void PubSubSession::openNodes(const std::vector<std::string>& nodes) {
    if (nodes.size() == 1)
        return openNode(nodes.front(), m_openNodes[nodes.front()]);
    std::map<std::string, gloox::StringList> byUrgency;
    for (const std::string& node : nodes)
        if (!isPushNode(node))
            byUrgency[urgencyOf(m_openNodes[node])].push_back(node);
    for (const auto& [urgency, names] : byUrgency) {
        const std::string id =
            m_pubsub ? m_pubsub->bulkActivate(pubsubService(), names, this, true, urgency) : "";
        for (const std::string& node : names) {
            _openNodeStruct& entry = m_openNodes[node];
            entry.missed = false;
            entry.request = id;
            entry.link = id.empty() ? NodeLink::Off : NodeLink::Opening;
        }
    }
}

void PubSubSession::closeNode(const std::string& node, _openNodeStruct& entry) {
    entry.request = m_pubsub ? m_pubsub->deActivateNode(pubsubService(), node, this) : "";
    entry.link = entry.request.empty() ? NodeLink::Off : NodeLink::Closing;
}

// The server is told also when the node stays wanted: what was open is given back and handed out anew.
void PubSubSession::releaseNode(const std::string& node) {
    _openNodeStruct& entry = m_openNodes[node];
    if (m_connected && entry.link != NodeLink::Off)
        closeNode(node, entry);
    else if (!isWanted(node, entry))
        m_openNodes.erase(node);
}

void PubSubSession::reopenNode(const std::string& node) {
    const auto found = m_openNodes.find(node);
    if (found != m_openNodes.end() && found->second.link != NodeLink::Closing &&
        isWanted(node, found->second))
        openNode(node, found->second);
}

bool PubSubSession::openNodeAnswered(const std::string& id, const std::string& node,
                                     const gloox::Error* error) {
    const auto found = m_openNodes.find(node);
    if (found == m_openNodes.end() || found->second.request != id)
        return false;
    _openNodeStruct& entry = found->second;
    if (entry.link == NodeLink::Opening) {
        activationAnswered(node, entry, error);
        return true;
    }
    entry.request.clear();
    entry.link = NodeLink::Off;
    removeActivateMap(node);
    if (isWanted(node, entry)) {
        openNode(node, entry);
        return true;
    }
    m_openNodes.erase(found);
    activateForOthers(node);
    return true;
}

void PubSubSession::openNodesAnswered(const std::string& bulkId, const xmpp::NodeErrors& failed) {
    for (auto& [node, entry] : m_openNodes) {
        if (entry.request != bulkId)
            continue;
        const auto error = failed.find(node);
        activationAnswered(node, entry, error == failed.end() ? nullptr : error->second);
    }
}

// An error that does not pass is final until the node is created or its next item comes: asking again would
// have the same answer.
void PubSubSession::activationAnswered(const std::string& node, _openNodeStruct& entry,
                                       const gloox::Error* error) {
    entry.request.clear();
    entry.link = error ? NodeLink::Off : NodeLink::On;
    if (!error) {
        if (!entry.open)
            entry.failures = 0;
        if (entry.missed)
            closeNode(node, entry);
        return;
    }
    if (error->type() != gloox::StanzaErrorTypeWait) {
        const std::unique_ptr<gloox::Tag> element(error->tag());
        PrvPrintErr({}, "No items of %s are received, the server refused its activation: %s", node.c_str(),
                    element ? element->xml().c_str() : "no reason");
        return;
    }
    if (entry.due == 0)
        setDue(node, entry, retryPause(++entry.failures));
}
