// SPDX-License-Identifier: GPL-3.0-only
// The number of each node's last delivered item: an item with this number or a lower one is stale. The numbers
// of those that were taken out of order, above it, are stored beside it.
//
// Stored only in the service's preferences, under the node's name, as {"seqNo": "42"} or
// {"seqNo": "42", "taken": ["45"]}; it survives a restart. The deletion store uses keys that begin with "delete" in the same preferences, so the number of a
// node whose name begins with that word is stored under another key. The numbers of items that arrive in one
// piece of input are committed together, any other at once.
#include <glib.h>

#include <algorithm>
#include <utility>

#include "session/preferences.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/log.h"

namespace {

constexpr int kDecimal = 10;
constexpr char kDelete[] = "delete";
constexpr char kPush[] = "push:";
constexpr char kSeqNo[] = "seqNo:";
// More than a server that is killed forgets: it then sends again what was acknowledged a moment before.
constexpr std::size_t kMostTaken = 64;

// The key of a node's number: its name, unless a record of the deletion store or a push registration may have
// that key. No two nodes
// share a key.
std::string keyOf(const std::string& node) {
    const bool isReserved = node.starts_with(kDelete) || node.starts_with(kPush) || node.starts_with(kSeqNo);
    return isReserved ? kSeqNo + node : node;
}

// Whether an earlier release stored the number of `node` under a key of the deletion store.
bool hasNumberUnderRecordKey(const Preferences& store, const std::string& node) {
    return node.starts_with(kDelete) && jsonMember(store.read(node).json.get(), "seqNo");
}

// In the order in which they were taken.
std::vector<std::string> takenOf(json_object* record) {
    std::vector<std::string> numbers;
    json_object* list = jsonMember(record, "taken");
    for (std::size_t i = 0; json_object_is_type(list, json_type_array) && i < json_object_array_length(list);
         ++i)
        if (const char* number = json_object_get_string(json_object_array_get_idx(list, i)))
            numbers.emplace_back(number);
    return numbers;
}

bool getSeqNo(PubSubSession& session, const std::string& node, std::string& seqNo,
              std::vector<std::string>& taken) {
    seqNo = "0";
    Preferences store = session.preferences();
    if (!store.open())
        return false;
    StoredValue record = store.read(keyOf(node));
    if (!record.exists && hasNumberUnderRecordKey(store, node))
        record = store.read(node);
    if (record.isDamaged())
        PrvPrintErr({}, "Parsing value failed");
    if (!record.json)
        return false;
    std::string ignored;
    getJSONStringV2(record.json.get(), "seqNo", ignored, seqNo);
    taken = takenOf(record.json.get());
    return true;
}

}  // namespace

uint64_t PubSubSession::numberOf(const std::string& seqNo) {
    return g_ascii_strtoull(seqNo.c_str(), nullptr, kDecimal);
}

bool PubSubSession::getSeqNo(const std::string& node, std::string& seqNo) {
    std::vector<std::string> ignored;
    return ::getSeqNo(*this, node, seqNo, ignored);
}

bool PubSubSession::getSeqNo(const std::string& node, uint64_t& seqNo) {
    std::string text;
    const bool found = getSeqNo(node, text);
    seqNo = numberOf(text);
    return found;
}

bool PubSubSession::isStalePacket(const std::string& node, const std::string& seqNo) {
    std::string last;
    std::vector<std::string> taken;
    if (!::getSeqNo(*this, node, last, taken))
        return false;
    const uint64_t number = numberOf(seqNo);
    return number <= numberOf(last) || std::any_of(taken.begin(), taken.end(), [&](const std::string& each) {
               return numberOf(each) == number;
           });
}

void PubSubSession::persistSeqNo(const std::string& node, const std::string& seqNo) {
    writeSeqNo(node, seqNo);
    if (!isHandlingInput())
        commitSeqNos();
}

void PubSubSession::writeSeqNo(const std::string& node, const std::string& seqNo, CallSite site) {
    Preferences store = preferences();
    if (!store.open(nullptr))
        return;
    if (node.empty()) {
        // sic: the two values are swapped.
        PrvPrintErr(site, "Item id not saved Node %s , SeqNo:%s", seqNo.c_str(), node.c_str());
        return;
    }
    JsonObject record;
    record.set("seqNo", seqNo.c_str());
    writeRecord(store, node, record.get(), site);
}

void PubSubSession::writeTakenSeqNo(const std::string& node, const std::string& seqNo, bool inOrder) {
    Preferences store = preferences();
    if (!store.open(nullptr))
        return;
    std::string last;
    std::vector<std::string> taken;
    ::getSeqNo(*this, node, last, taken);
    if (inOrder) {
        last = seqNo;
        std::erase_if(taken, [&](const std::string& each) { return numberOf(each) <= numberOf(last); });
    } else {
        taken.push_back(seqNo);
        if (taken.size() > kMostTaken)
            taken.erase(taken.begin());
    }
    if (inOrder && taken.empty())
        return writeSeqNo(node, seqNo);
    JsonArray numbers;
    for (const std::string& number : taken)
        numbers.add(number);
    JsonObject record;
    record.set("seqNo", last).set("taken", numbers.release());
    writeRecord(store, node, record.get());
}

void PubSubSession::writeRecord(Preferences& store, const std::string& node, json_object* record,
                                CallSite site) {
    if (store.write(keyOf(node), record, kWriteFailed, site) && hasNumberUnderRecordKey(store, node))
        store.remove(node);
    m_seqNosWritten = true;
}

void PubSubSession::commitSeqNos() {
    if (std::exchange(m_seqNosWritten, false))
        preferences().commit({}, "persistSeqNo");
}

bool PubSubSession::moveNumberAside(Preferences& store, const std::string& key) {
    if (!hasNumberUnderRecordKey(store, key))
        return false;
    const StoredValue record = store.read(key);
    if (!store.read(keyOf(key)).json)
        store.write(keyOf(key), record.json.get(), nullptr);
    store.remove(key);
    return true;
}

void removeSeqNo(const std::string& node, PubSubSession& session) {
    Preferences store = session.preferences();
    if (!store.open())
        return;
    if (hasNumberUnderRecordKey(store, node))
        store.remove(node);
    store.remove(keyOf(node));
    store.commit({.commitFailed = "Commit failed %d ", .openFailed = "Getting app handle failed! %d "});
}
