// SPDX-License-Identifier: GPL-3.0-only
// The number of each node's last delivered item: an item with this number or a lower one is stale.
//
// Stored only in the service's preferences, under the node's name, as {"seqNo": "42"}; it survives a
// restart. The deletion store uses keys that begin with "delete" in the same preferences, so the number of a
// node whose name begins with that word is stored under another key. The numbers of items that arrive in one
// piece of input are committed together, any other at once.
#include <glib.h>

#include <utility>

#include "session/preferences.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/log.h"

namespace {

constexpr int kDecimal = 10;
constexpr char kDelete[] = "delete";
constexpr char kSeqNo[] = "seqNo:";

// The key of a node's number: its name, unless a record of the deletion store may have that key. No two nodes
// share a key.
std::string keyOf(const std::string& node) {
    return node.starts_with(kDelete) || node.starts_with(kSeqNo) ? kSeqNo + node : node;
}

// Whether an earlier release stored the number of `node` under a key of the deletion store.
bool hasNumberUnderRecordKey(const Preferences& store, const std::string& node) {
    return node.starts_with(kDelete) && jsonMember(store.read(node).json.get(), "seqNo");
}

}  // namespace

uint64_t PubSubSession::numberOf(const std::string& seqNo) {
    return g_ascii_strtoull(seqNo.c_str(), nullptr, kDecimal);
}

bool PubSubSession::getSeqNo(const std::string& node, std::string& seqNo) {
    seqNo = "0";
    Preferences store = preferences();
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
    return true;
}

bool PubSubSession::getSeqNo(const std::string& node, uint64_t& seqNo) {
    std::string text;
    const bool found = getSeqNo(node, text);
    seqNo = numberOf(text);
    return found;
}

bool PubSubSession::isStalePacket(const std::string& node, const std::string& seqNo) {
    uint64_t stored = 0;
    return getSeqNo(node, stored) && numberOf(seqNo) <= stored;
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
    if (store.write(keyOf(node), record.get(), kWriteFailed, site) && hasNumberUnderRecordKey(store, node))
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
