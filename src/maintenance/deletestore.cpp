// SPDX-License-Identifier: GPL-3.0-only
// Which nodes each application owns, so that they can be deleted when the application is removed.
//
// Stored in the service's preferences; it survives a restart. The keys:
//   "delete" + application id -> {"nodes": [...]}, the record with the application's first nodes
//   that key, a blank and a node -> {"nodes": [NODE]}, one key for each further node, so that the cost of
//     adding a node does not grow with their number
//   "delete" -> {"appid": [...]}, the keys of the records whose bulk deletion the server has not answered
// In memory: the further nodes (PubSubSession::m_furtherNodes, by the key of the record) and the pending bulk
// deletions (m_deleteMap). Every change is committed immediately.
#include <gloox/error.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "request/names.h"
#include "session/preferences.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "xmpp/manager.h"

namespace {

constexpr char kDelete[] = "delete";
constexpr char kNodes[] = "nodes";
constexpr char kAppId[] = "appid";
constexpr std::size_t kNodesPerRecord = 64;
constexpr std::size_t kEndpointsPerApplication = 1000;

// A stored list of names, {MEMBER: [NAME, ...]}; an empty list when nothing is stored.
struct StoredList {
    bool exists = false;
    JsonRef object;                // null when the stored text is not JSON
    json_object* names = nullptr;  // in `object`; null when `object` has no such list
};

// Log formats; each may take the key of the record.
struct ListErrors {
    const char* noJson;
    const char* noList;
};
constexpr char kValueDamaged[] = "Parsing value failed";
constexpr char kRecordDamaged[] = "Parsing delete appid key value failed %s";
constexpr char kListDamaged[] = "Parsing delete key failed";
constexpr ListErrors kChangeErrors{kValueDamaged, "Parsing nodes key failed"};
constexpr ListErrors kCleanupErrors{kRecordDamaged, "Parsing nodes in key failed %s"};
constexpr ListErrors kListingErrors{kRecordDamaged, kListDamaged};
constexpr ListErrors kUnlistingErrors{kValueDamaged, kValueDamaged};
constexpr ListErrors kRetryErrors{kListDamaged, kListDamaged};

StoredList emptyList(const char* member) {
    StoredList list;
    JsonArray names;
    list.names = names.get();
    list.object = JsonObject().set(member, names.release()).release();
    return list;
}

// Logs when the store cannot be read.
StoredValue readValue(const Preferences& store, const std::string& key, CallSite site = {}) {
    StoredValue value = store.read(key);
    if (value.isUnreadable())
        PrvPrintErr(site, "Reading %s from the preferences failed. %d", key.c_str(), value.result);
    return value;
}

StoredList listOf(StoredValue value, const char* member) {
    if (!value.exists)
        return emptyList(member);
    StoredList list{true, std::move(value.json)};
    json_object* names = jsonMember(list.object.get(), member);
    list.names = json_object_is_type(names, json_type_array) ? names : nullptr;
    return list;
}

// False when the store cannot be read. A node's number that an earlier release stored under `key` is moved to
// its own key first.
bool readList(Preferences& store, const std::string& key, const char* member, StoredList& list,
              CallSite site = {}) {
    StoredValue value = readValue(store, key, site);
    if (value.isUnreadable())
        return false;
    if (value.exists && PubSubSession::moveNumberAside(store, key))
        value.exists = false;
    list = listOf(std::move(value), member);
    return true;
}

bool isSound(const StoredList& list, const ListErrors& errors, const std::string& key, CallSite site = {}) {
    if (!list.names)
        PrvPrintErr(site, list.object ? errors.noList : errors.noJson, key.c_str());
    return list.names;
}

void addName(const StoredList& list, const std::string& name) {
    json_object_array_add(list.names, json_object_new_string(name.c_str()));
}

bool removeValue(Preferences& store, const std::string& key, CallSite site = {}) {
    if (store.remove(key))
        return true;
    PrvPrintErr(site, "Removing delete key failed %s", key.c_str());
    return false;
}

std::string furtherKey(const std::string& key, const std::string& node) {
    return key + ' ' + node;
}

bool writeFurtherNode(Preferences& store, const std::string& key, const std::string& node,
                      CallSite site = {}) {
    const StoredList list = emptyList(kNodes);
    addName(list, node);
    return store.write(furtherKey(key, node), list.object.get(), kWriteFailed, site);
}

// An earlier release stored all nodes in the record: those beyond the limit are moved to keys of their own.
bool shortenRecord(Preferences& store, const std::string& key, json_object* nodes,
                   std::set<std::string>& further, CallSite site = {}) {
    const std::size_t count = json_object_array_length(nodes);
    if (count <= kNodesPerRecord)
        return true;
    const std::list<std::string> all = cleanedEntries(nodes);
    for (auto node = std::next(all.begin(), kNodesPerRecord); node != all.end(); ++node) {
        if (!writeFurtherNode(store, key, *node, site))
            return false;
        further.insert(*node);
    }
    json_object_array_del_idx(nodes, kNodesPerRecord, count - kNodesPerRecord);
    return true;
}

// Writes the list under `key` without `removed`, or removes the key when no other entry is left.
bool writeWithout(Preferences& store, const std::string& key, const char* member, json_object* names,
                  const std::string& removed, CallSite site = {}) {
    std::list<std::string> left = cleanedEntries(names);
    left.remove(removed);
    if (left.empty())
        return removeValue(store, key, site);
    const StoredList kept = emptyList(member);
    for (const std::string& entry : left)
        addName(kept, entry);
    return store.write(key, kept.object.get(), kWriteFailed, site);
}

// Adds `key` to the list of pending bulk deletions. sic: the list may contain it more than once.
bool listDeletion(Preferences& store, const std::string& key, CallSite site = {}) {
    StoredList listing;
    if (!readList(store, kDelete, kAppId, listing, site) || !isSound(listing, kListingErrors, key, site))
        return false;
    addName(listing, key);
    if (!store.write(kDelete, listing.object.get(), kWriteFailed, site))
        return false;
    store.commit({}, site);
    return true;
}

// Removes every entry of `key` from the list of pending bulk deletions.
void unlistDeletion(Preferences& store, const std::string& key, CallSite site = {}) {
    const StoredList listing = listOf(readValue(store, kDelete, site), kAppId);
    if (listing.exists && isSound(listing, kUnlistingErrors, key, site))
        writeWithout(store, kDelete, kAppId, listing.names, key, site);
}

}  // namespace

std::set<std::string>& PubSubSession::furtherNodes(const std::string& key) {
    const Preferences store = preferences();
    const JsonRef keys = !m_furtherNodesRead && store.isOpen() ? store.keys() : nullptr;
    if (keys)
        m_furtherNodesRead = true;
    const std::size_t count = keys ? json_object_array_length(keys.get()) : 0;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = json_object_get_string(json_object_array_get_idx(keys.get(), i));
        const std::size_t blank = name.find(' ');
        if (blank == std::string::npos || !name.starts_with(kDelete))
            continue;
        if (const StoredList record = listOf(readValue(store, name), kNodes); record.exists && record.names)
            m_furtherNodes[name.substr(0, blank)].insert(name.substr(blank + 1));
    }
    return m_furtherNodes[key];
}

bool PubSubSession::mayOwnNode(const std::string& node, const std::string& appId, bool* known) {
    const std::string key = kDelete + appId;
    Preferences store = preferences();
    StoredList record;
    // When the store cannot be read the creation is not refused here: it fails when the node is added.
    if (!store.open() || !readList(store, key, kNodes, record))
        return true;
    const std::set<std::string>& further = furtherNodes(key);
    const std::list<std::string> entries = cleanedEntries(record.names);
    const bool owned =
        further.contains(node) || std::find(entries.begin(), entries.end(), node) != entries.end();
    if (known)
        *known = owned;
    if (owned)
        return true;
    const auto creating = m_creating.find(appId);
    const long pending = creating == m_creating.end() ? 0 : creating->second.use_count();
    return entries.size() + further.size() + static_cast<std::size_t>(pending) < kEndpointsPerApplication;
}

std::vector<std::string> PubSubSession::ownedNodes(const std::string& appId, const std::string& prefix) {
    const std::string key = kDelete + appId;
    Preferences store = preferences();
    StoredList record;
    if (!store.open() || !readList(store, key, kNodes, record))
        return {};
    std::vector<std::string> nodes;
    for (const std::string& node : cleanedEntries(record.names))
        if (node.starts_with(prefix))
            nodes.push_back(node);
    for (const std::string& node : furtherNodes(key))
        if (node.starts_with(prefix))
            nodes.push_back(node);
    return nodes;
}

bool PubSubSession::addNodeToDeleteStore(const std::string& node, const std::string& appId) {
    const std::string key = kDelete + appId;
    Preferences store = preferences();
    StoredList record;
    if (!store.open() || !readList(store, key, kNodes, record) || !isSound(record, kChangeErrors, key))
        return false;
    std::set<std::string>& further = furtherNodes(key);
    const std::list<std::string> entries = cleanedEntries(record.names);
    if (further.contains(node) || std::find(entries.begin(), entries.end(), node) != entries.end())
        return true;
    if (entries.size() < kNodesPerRecord) {
        addName(record, node);
        if (!store.write(key, record.object.get()))
            return false;
    } else {
        const bool longRecord = entries.size() > kNodesPerRecord;
        if (!shortenRecord(store, key, record.names, further) ||
            (longRecord && !store.write(key, record.object.get())) || !writeFurtherNode(store, key, node))
            return false;
        further.insert(node);
    }
    store.commit();
    return true;
}

bool PubSubSession::removeNodeFromDeleteStore(const std::string& node, const std::string& appId) {
    const std::string key = kDelete + appId;
    Preferences store = preferences();
    StoredList record;
    if (!store.open() || !readList(store, key, kNodes, record))
        return false;
    std::set<std::string>& further = furtherNodes(key);
    if (further.contains(node)) {
        if (!removeValue(store, furtherKey(key, node)))
            return false;
        further.erase(node);
        store.commit();
        return true;
    }
    if (!record.exists) {
        PrvPrintErr({}, "Node %s not present in appid %s", node.c_str(), appId.c_str());
        return false;
    }
    if (!isSound(record, kChangeErrors, key) || !shortenRecord(store, key, record.names, further))
        return false;
    if (further.erase(node) != 0)
        store.remove(furtherKey(key, node));
    if (!writeWithout(store, key, kNodes, record.names, node))
        return false;
    store.commit();
    return true;
}

bool PubSubSession::cleanupNodes(const std::string& appId, const std::string& storeKey) {
    const std::string key = storeKey.empty() ? kDelete + appId : storeKey;
    Preferences store = preferences();
    StoredList record;
    if (!store.open() || !readList(store, key, kNodes, record))
        return false;
    const std::set<std::string>& further = furtherNodes(key);
    if (!record.exists && further.empty())
        return true;
    if (!isSound(record, kCleanupErrors, key) || !listDeletion(store, key))
        return false;
    gloox::StringList nodes = cleanedEntries(record.names);
    nodes.insert(nodes.end(), further.begin(), further.end());
    for (const std::string& node : nodes)
        forgetPush(node);
    if (!m_connected)
        return true;

    for (const std::string& node : nodes) {
        forgetOpenNode(node);
        removeOfflineMap(node);
        removeSubMap(node);
        removeSeqNo(node, *this);
        removeActivateMap(node);
    }
    const std::string id = m_pubsub ? m_pubsub->bulkDelete(pubsubService(), nodes, this) : std::string();
    if (id.empty())
        PrvPrintErr({}, "Bulk delete local call failed");
    else
        m_deleteMap[id] = key;
    return true;
}

void PubSubSession::deleteBulkNodes() {
    Preferences store = preferences();
    StoredList listing;
    if (!store.open() || !readList(store, kDelete, kAppId, listing) || !listing.exists ||
        !isSound(listing, kRetryErrors, kDelete))
        return;
    // sic: the key is passed with its JSON quotes and so matches no record: deletions that were added
    // while disconnected stay in the list.
    for (std::size_t i = 0; i < json_object_array_length(listing.names); ++i)
        cleanupNodes("", json_object_to_json_string(json_object_array_get_idx(listing.names, i)));
}

void PubSubSession::forgetBulkDeletions() {
    m_deleteMap.clear();
}

void PubSubSession::handleBulkDelete(const std::string& id, const gloox::JID&, const gloox::Error* error) {
    const auto deletion = m_deleteMap.extract(id);
    setPingTimer();
    // sic: a deletion that the server refused is forgotten like one that succeeded.
    printerror(error);
    Preferences store = preferences();
    if (!deletion || !store.open())
        return;
    const std::string& key = deletion.mapped();
    const std::set<std::string> further = std::move(furtherNodes(key));
    m_furtherNodes.erase(key);
    for (const std::string& node : further)
        removeValue(store, furtherKey(key, node));
    if ((further.empty() || readValue(store, key).exists) && !removeValue(store, key))
        return;
    unlistDeletion(store, key);
    store.commit();
}
