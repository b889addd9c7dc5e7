// SPDX-License-Identifier: GPL-3.0-only
// Which nodes each application owns, so that all of them can go with it.
//
// Kept in the preferences of the service, over restarts: "delete" + application id -> {"nodes": [...]} with
// its first nodes, the same with a blank and the node after it -> {"nodes": [NODE]} for each further one, so
// that the work of one creation does not grow with their number, and "delete" -> {"appid": [...]}, the keys
// of the records whose bulk deletion the server has not answered yet. In memory the further nodes
// (PubSubSession::m_furtherNodes, by the key of the record) and the bulk deletions in flight (m_deleteMap).
// Every change is committed at once.
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
constexpr std::size_t kRecordNodes = 64;  // of an application, in its own record
constexpr std::size_t kEndpoints = 1000;  // of an application

// A list of names as it is stored, {MEMBER: [NAME, ...]}; an empty one where nothing is.
struct StoredList {
    bool exists = false;
    JsonRef object;                // null when what is stored is no JSON
    json_object* names = nullptr;  // in `object`; null when it has no such list
};

// Formats for the key of the record at hand.
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

// A store that cannot be read is logged.
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

// False when the store cannot be read. A number that an earlier release kept under `key` is moved away.
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

// An earlier release kept all nodes in the one record: what is more than it holds now moves to keys of their
// own.
bool shortenRecord(Preferences& store, const std::string& key, json_object* nodes,
                   std::set<std::string>& further, CallSite site = {}) {
    const std::size_t count = json_object_array_length(nodes);
    if (count <= kRecordNodes)
        return true;
    const std::list<std::string> all = cleanedEntries(nodes);
    for (auto node = std::next(all.begin(), kRecordNodes); node != all.end(); ++node) {
        if (!writeFurtherNode(store, key, *node, site))
            return false;
        further.insert(*node);
    }
    json_object_array_del_idx(nodes, kRecordNodes, count - kRecordNodes);
    return true;
}

// Writes the list under `key` without `gone`, or removes the key with the last entry.
bool writeWithout(Preferences& store, const std::string& key, const char* member, json_object* names,
                  const std::string& gone, CallSite site = {}) {
    std::list<std::string> left = cleanedEntries(names);
    left.remove(gone);
    if (left.empty())
        return removeValue(store, key, site);
    const StoredList kept = emptyList(member);
    for (const std::string& entry : left)
        addName(kept, entry);
    return store.write(key, kept.object.get(), kWriteFailed, site);
}

// Enters `key` among the records whose deletion is under way. sic: it can be listed more than once.
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

// Takes every listing of `key` out again.
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
    // A store that cannot be read refuses nobody: the creation is told so where the node enters the record.
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
    const long asked = creating == m_creating.end() ? 0 : creating->second.use_count();
    return entries.size() + further.size() + static_cast<std::size_t>(asked) < kEndpoints;
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
    if (entries.size() < kRecordNodes) {
        addName(record, node);
        if (!store.write(key, record.object.get()))
            return false;
    } else {
        const bool longRecord = entries.size() > kRecordNodes;
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
    if (!m_connected)
        return true;

    gloox::StringList nodes = cleanedEntries(record.names);
    nodes.insert(nodes.end(), further.begin(), further.end());
    for (const std::string& node : nodes) {
        removeOfflineMap(node);
        removeSubMap(node);
        removeSeqNo(node, *this);
        removeActivateMap(node);
    }
    const std::string id =
        m_pubsub ? m_pubsub->bulkDelete(gloox::JID(m_pubsubService), nodes, this) : std::string();
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
    // sic: the entry goes on with its quotes, which no key has, so what was listed while disconnected stays.
    for (std::size_t i = 0; i < json_object_array_length(listing.names); ++i)
        cleanupNodes("", json_object_to_json_string(json_object_array_get_idx(listing.names, i)));
}

void PubSubSession::forgetBulkDeletions() {
    m_deleteMap.clear();
}

void PubSubSession::handleBulkDelete(const std::string& id, const gloox::JID&, const gloox::Error* error) {
    const auto deletion = m_deleteMap.extract(id);
    setPingTimer();
    // sic: a deletion that the server refused is forgotten like one that it did.
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
