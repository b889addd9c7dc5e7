// SPDX-License-Identifier: GPL-3.0-only
// receive: one subscription for several endpoints of an application, whose items the server keeps until the
// application has acknowledged them.
//
// Keeps PubSubSession::m_receivers, in memory: a receiver ends with its client. Which item of a node is open
// is in m_openNodes (session/openitems.cpp). Each time that an item is handed out it gets a receipt, which
// never repeats, also over restarts.
#include <glib.h>

#include <algorithm>

#include "endpoints/methods.h"
#include "platform/bus/qsraii.h"
#include "request/itemmembers.h"
#include "request/request.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"

namespace {

constexpr char kSubscriptionFailed[] = "Processing subscription failed";
constexpr char kWrongUrgency[] = "urgency takes very-low, low, normal or high";
constexpr char kWrongEndpoints[] = "Malformed json - endpoints takes an array of endpoints";
constexpr int64_t kAwake = G_USEC_PER_SEC;  // an activity of the power service lasts twice as long
constexpr int64_t kFirstPause = 100;        // milliseconds until an item is written again; doubled
constexpr int64_t kLongestPause = 60'000;

std::string newReceipt() {
    static const std::string start = std::to_string(g_random_int()) + std::to_string(g_random_int()) + "-";
    static unsigned long count = 0;
    return start + std::to_string(++count);
}

int64_t pauseAfter(unsigned failures) {
    return failures > 10 ? kLongestPause : std::min(kLongestPause, kFirstPause << (failures - 1));
}

std::string endpointOf(const std::string& node, const std::string& prefix) {
    return node.substr(prefix.size());
}

// "/USER/RESOURCE/APPID/", of the account in use
std::string prefixOf(const PubSubSession& session, const std::string& appId) {
    return "/" + session.m_username + "/" + session.m_resource + "/" + appId + "/";
}

// `prefix` is that of the receiver's application.
bool asksFor(const _receiverStruct& receiver, const std::string& node, const std::string& prefix) {
    return receiver.all || (node.starts_with(prefix) && receiver.named.contains(endpointOf(node, prefix)));
}

// The endpoints of the request, each once; false when one of them is no name or is not the application's.
bool readEndpoints(Request& request, const std::vector<std::string>& owned, std::vector<std::string>& nodes) {
    json_object* list = jsonMember(request.json(), "endpoints");
    if (!json_object_is_type(list, json_type_array))
        return request.fail(kWrongEndpoints);
    for (std::size_t i = 0; i < json_object_array_length(list); ++i) {
        json_object* entry = json_object_array_get_idx(list, i);
        if (!json_object_is_type(entry, json_type_string))
            return request.fail(kWrongEndpoints);
        std::string endpoint = json_object_get_string(entry);
        cleanSlashes(endpoint);
        const std::string node = request.node + endpoint;
        if (std::find(owned.begin(), owned.end(), node) == owned.end())
            return request.fail("appErr", "No endpoint " + endpoint + ". Call createEndpoint first");
        if (std::find(nodes.begin(), nodes.end(), node) == nodes.end())
            nodes.push_back(node);
    }
    return !nodes.empty() || request.fail("Empty endpoints provided");
}

bool readUrgency(Request& request, std::string& urgency) {
    json_object* given = jsonMember(request.json(), "urgency");
    if (!given)
        return true;
    if (json_object_is_type(given, json_type_string))
        urgency = json_object_get_string(given);
    for (const char* known : {kLeastUrgency, "low", "normal", "high"})
        if (urgency == known)
            return true;
    return request.fail(kWrongUrgency);
}

// The nodes that the request asks for.
bool chooseNodes(PubSubSession& session, Request& request, std::vector<std::string>& nodes, bool& all) {
    const std::vector<std::string> owned = session.ownedNodes(request.appId, request.node);
    all = !jsonMember(request.json(), "endpoints");
    if (!all)
        return readEndpoints(request, owned, nodes);
    nodes = owned;
    return true;
}

bool areFree(const PubSubSession& session, Request& request, const std::vector<std::string>& nodes) {
    for (const std::string& node : nodes)
        if (const auto other = session.receiverOf(node))
            return request.fail("appErr", "Endpoint " + endpointOf(node, request.node) + " is received by " +
                                              other->client + ". End that receive, or name other endpoints");
    return true;
}

std::string itemAnswer(const std::string& endpoint, const _itemStruct& item, const std::string& receipt) {
    Reply answer = endpointReply(true, endpoint);
    answer.set("item", item.text.c_str()).set("itemid", item.id.c_str()).set("receipt", receipt);
    addItemMembers(answer, item);
    return answer.text();
}

}  // namespace

bool receive(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kParameterRefusal);
    std::vector<std::string> nodes;
    std::string urgency;
    bool all = false;
    if (!request.isReady(false) || !request.requireSubscribe() || !request.formNode() ||
        !readUrgency(request, urgency) || !chooseNodes(session, request, nodes, all) ||
        !areFree(session, request, nodes))
        return request.refuse();
    if (!request.processSubscription())
        return request.refuse("libErr", kSubscriptionFailed);
    const auto receiver = std::make_shared<_receiverStruct>();
    receiver->appId = request.appId;
    receiver->client = QSMessageGetSender(message);
    receiver->message = KeptMessage(message);
    receiver->urgency = urgency;
    receiver->all = all;
    JsonArray endpoints;
    for (const std::string& node : nodes) {
        const std::string endpoint = endpointOf(node, request.node);
        endpoints.add(endpoint);
        if (!all)
            receiver->named.insert(endpoint);
    }
    Reply reply(true);
    reply.set("endpoints", endpoints.release());
    request.reply(reply);
    session.addReceiver(receiver);
    session.setReceiver(nodes, receiver);
    return true;
}

void PubSubSession::addReceiver(const std::shared_ptr<_receiverStruct>& receiver) {
    m_receivers.push_back(receiver);
}

void PubSubSession::endReceiver(QSMessage* message) {
    const auto found = std::find_if(m_receivers.begin(), m_receivers.end(),
                                    [&](const auto& receiver) { return receiver->message.get() == message; });
    if (found == m_receivers.end())
        return;
    const std::shared_ptr<_receiverStruct> receiver = *found;
    m_receivers.erase(found);
    dropReceiver(nodesOf(receiver));
}

void PubSubSession::joinReceiver(const std::string& node, const std::string& appId) {
    if (const auto receiver = receiverOf(node)) {
        setReceiver({node}, receiver);
        return;
    }
    const std::string prefix = prefixOf(*this, appId);
    for (const auto& receiver : m_receivers)
        if (receiver->appId == appId && asksFor(*receiver, node, prefix)) {
            setReceiver({node}, receiver);
            return;
        }
}

void PubSubSession::rejoinReceivers() {
    for (const auto& receiver : m_receivers) {
        const std::string prefix = prefixOf(*this, receiver->appId);
        std::vector<std::string> others = nodesOf(receiver);  // an earlier account's
        std::erase_if(others, [&](const std::string& node) { return node.starts_with(prefix); });
        dropReceiver(others);
        std::vector<std::string> nodes;
        for (const std::string& node : ownedNodes(receiver->appId, prefix))
            if (!receiverOf(node) && asksFor(*receiver, node, prefix))
                nodes.push_back(node);
        setReceiver(nodes, receiver);
    }
}

bool PubSubSession::giveToReceiver(const std::string& node, _openNodeStruct& entry) {
    _receiverStruct& receiver = *entry.receiver;
    // While one item waits to be written, so do all others: they would be refused as well.
    if (!receiver.unsent.empty() && receiver.failures > 0 && !receiver.unsent.contains(node)) {
        receiver.unsent.insert(node);
        return false;
    }
    const std::string receipt = newReceipt();
    const std::string answer = itemAnswer(entry.endpoint, *entry.open, receipt);
    BusError error;
    if (QSMessageRespond(receiver.message.get(), answer.c_str(), error)) {
        m_traces.append(entry.open->id, "handed on", "receiver " + receiver.appId);
        entry.receipt = receipt;
        receiver.unsent.erase(node);
        receiver.failures = 0;
        const int64_t now = g_get_monotonic_time();
        if (m_awakeSince == 0 || now - m_awakeSince >= kAwake) {
            m_awakeSince = now;
            setPowerOn();
        }
        return true;
    }
    if (receiver.failures == 0)
        PrvPrintErr({}, "Sending item to the receiver %s failed, it is tried again. Bus error %s ",
                    receiver.client.c_str(), error.message());
    receiver.unsent.insert(node);
    ++receiver.failures;
    setDue(node, entry, pauseAfter(receiver.failures));
    return false;
}

void PubSubSession::writeUnsent(_receiverStruct& receiver) {
    while (!receiver.unsent.empty()) {
        const std::string node = *receiver.unsent.begin();
        if (!handOut(node))
            return;
        receiver.unsent.erase(node);
    }
}
