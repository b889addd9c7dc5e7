// SPDX-License-Identifier: GPL-3.0-only
// Which nodes each application owns, so that all of them can go with it.
//
// Kept in the preferences of the service, over restarts: "delete" + application id -> {"nodes": [...]} with
// its first nodes, the same with a blank and the node after it -> {"nodes": [NODE]} for each further one, so
// that the work of one creation does not grow with their number, and "delete" -> {"appid": [...]}, the keys
// of the records whose bulk deletion the server has not answered yet. In memory the further nodes
// (PubSubSession::m_furtherNodes, by the key of the record) and the bulk deletions in flight (m_deleteMap).
// Every write is committed at once, which replaces PubSubSession::m_prefsHandle.
#include <gloox/error.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "platform/prefs/qp.h"
#include "request/names.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"
#include "xmpp/manager.h"

namespace {

constexpr const char* kPrefsApp = "com.zelt.pubsubservice";
constexpr const char* kDelete = "delete";
constexpr const char* kNodes = "nodes";
constexpr const char* kAppId = "appid";
constexpr std::size_t kRecordNodes = 64;  // of an application, in its own record
constexpr std::size_t kEndpoints = 1000;  // of an application

constexpr char kOpenFailed[] = "Getting app handle failed. %d";
constexpr char kSetFailed[] = "Error: QPAppSetValue returned %d, On failed";
constexpr char kRemoveFailed[] = "Removing delete key failed %s";
constexpr char kRecordDamaged[] = "Parsing delete appid key value failed %s";
constexpr char kListDamaged[] = "Parsing delete key failed";
constexpr char kValueDamaged[] = "Parsing value failed";

bool openPrefs(QPHandle*& handle) {
    const int result = handle ? QP_OK : QPAppGetHandle(kPrefsApp, &handle);
    if (result != QP_OK)
        PrvPrintErr({}, kOpenFailed, result);
    return result == QP_OK;
}

void commitPrefs(QPHandle*& handle) {
    QPAppFreeHandle(handle, true);
    handle = nullptr;
    if (QPAppGetHandle(kPrefsApp, &handle) != QP_OK) {
        handle = nullptr;
        PrvPrintErr({}, "Getting app handle failed!");
    }
}

// False when the store cannot be read. A key that is not there is no failure and leaves `exists` false.
bool readValue(QPHandle* handle, const std::string& key, bool& exists, std::string& value) {
    char* stored = nullptr;
    const int result = QPAppCopyValue(handle, key.c_str(), &stored);
    exists = result == QP_OK && stored;
    if (exists)
        value = stored;
    free(stored);
    if (result == QP_OK || result == QP_NOT_FOUND)
        return true;
    PrvPrintErr({}, "Reading %s from the preferences failed. %d", key.c_str(), result);
    return false;
}

// As readValue, for a record of this store: a number that an earlier release kept there is moved away.
bool readRecord(QPHandle* handle, const std::string& key, bool& exists, std::string& value) {
    if (!readValue(handle, key, exists, value))
        return false;
    if (exists && PubSubSession::moveNumberAside(handle, key))
        exists = false;
    return true;
}

bool writeValue(QPHandle* handle, const std::string& key, json_object* value) {
    const int result = QPAppSetValue(handle, key.c_str(), json_object_to_json_string(value));
    if (result != QP_OK)
        PrvPrintErr({}, kSetFailed, result);
    return result == QP_OK;
}

bool removeValue(QPHandle* handle, const std::string& key) {
    if (QPAppRemoveValue(handle, key.c_str()) == QP_OK)
        return true;
    PrvPrintErr({}, kRemoveFailed, key.c_str());
    return false;
}

json_object* arrayMember(json_object* object, const char* key) {
    json_object* array = jsonMember(object, key);
    return json_object_is_type(array, json_type_array) ? array : nullptr;
}

JsonRef listObject(const char* member, json_object* array) {
    JsonRef object(json_object_new_object());
    json_object_object_add(object.get(), member, array);
    return object;
}

// The entries' texts: what the JSON holds without its backslashes and double quotes.
std::list<std::string> cleanedEntries(json_object* array) {
    std::list<std::string> entries;
    for (std::size_t i = 0; i < json_object_array_length(array); ++i) {
        std::string entry = json_object_to_json_string(json_object_array_get_idx(array, i));
        cleanSlashes(entry);
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::string furtherKey(const std::string& key, const std::string& node) {
    return key + ' ' + node;
}

bool writeFurtherNode(QPHandle* handle, const std::string& key, const std::string& node) {
    json_object* nodes = json_object_new_array();
    json_object_array_add(nodes, json_object_new_string(node.c_str()));
    return writeValue(handle, furtherKey(key, node), listObject(kNodes, nodes).get());
}

bool isFurtherNode(QPHandle* handle, const std::string& key) {
    bool exists = false;
    std::string text;
    const JsonRef record = readValue(handle, key, exists, text) && exists ? parseJson(text.c_str()) : nullptr;
    return arrayMember(record.get(), kNodes);
}

// An earlier release kept all nodes in the one record: what is more than it holds now moves to keys of their
// own.
bool shortenRecord(QPHandle* handle, const std::string& key, json_object* nodes,
                   std::set<std::string>& further) {
    const std::size_t count = json_object_array_length(nodes);
    if (count <= kRecordNodes)
        return true;
    const std::list<std::string> all = cleanedEntries(nodes);
    for (auto node = std::next(all.begin(), kRecordNodes); node != all.end(); ++node) {
        if (!writeFurtherNode(handle, key, *node))
            return false;
        further.insert(*node);
    }
    json_object_array_del_idx(nodes, kRecordNodes, count - kRecordNodes);
    return true;
}

// Writes the list under `key` without `gone`, or removes the key with the last entry.
bool writeWithout(QPHandle* handle, const std::string& key, const char* member, json_object* array,
                  const std::string& gone) {
    std::list<std::string> left = cleanedEntries(array);
    left.remove(gone);
    if (left.empty())
        return removeValue(handle, key);
    json_object* kept = json_object_new_array();
    for (const std::string& entry : left)
        json_object_array_add(kept, json_object_new_string(entry.c_str()));
    return writeValue(handle, key, listObject(member, kept).get());
}

// Enters `key` among the records whose deletion is under way. sic: it can be listed more than once.
bool listDeletion(QPHandle*& handle, const std::string& key) {
    bool exists = false;
    std::string text;
    if (!readRecord(handle, kDelete, exists, text))
        return false;
    JsonRef list = exists ? parseJson(text.c_str()) : listObject(kAppId, json_object_new_array());
    if (!list) {
        PrvPrintErr({}, kRecordDamaged, key.c_str());
        return false;
    }
    json_object* keys = arrayMember(list.get(), kAppId);
    if (!keys) {
        PrvPrintErr({}, kListDamaged);
        return false;
    }
    json_object_array_add(keys, json_object_new_string(key.c_str()));
    if (!writeValue(handle, kDelete, list.get()))
        return false;
    commitPrefs(handle);
    return true;
}

// Takes every listing of `key` out again.
void unlistDeletion(QPHandle* handle, const std::string& key) {
    bool exists = false;
    std::string text;
    if (!readValue(handle, kDelete, exists, text) || !exists)
        return;
    const JsonRef list = parseJson(text.c_str());
    json_object* keys = arrayMember(list.get(), kAppId);
    if (!keys)
        PrvPrintErr({}, kValueDamaged);
    else
        writeWithout(handle, kDelete, kAppId, keys, key);
}

}  // namespace

void removeSeqNo(const std::string& node, PubSubSession& session) {
    if (!openPrefs(session.m_prefsHandle))
        return;
    PubSubSession::dropSeqNo(session.m_prefsHandle, node);
    const int committed = QPAppFreeHandle(session.m_prefsHandle, true);
    if (committed != QP_OK)
        PrvPrintErr({}, "Commit failed %d ", committed);
    session.m_prefsHandle = nullptr;
    const int opened = QPAppGetHandle(kPrefsApp, &session.m_prefsHandle);
    if (opened == QP_OK)
        return;
    session.m_prefsHandle = nullptr;
    PrvPrintErr({}, "Getting app handle failed! %d ", opened);
}

std::set<std::string>& PubSubSession::furtherNodes(const std::string& key) {
    json_object* listed = nullptr;
    if (!m_furtherNodesRead && m_prefsHandle && QPAppCopyKeysCJ(m_prefsHandle, &listed) == QP_OK) {
        m_furtherNodesRead = true;
        const JsonRef keys(listed);
        for (std::size_t i = 0; i < json_object_array_length(keys.get()); ++i) {
            const std::string name = json_object_get_string(json_object_array_get_idx(keys.get(), i));
            const std::size_t blank = name.find(' ');
            if (blank != std::string::npos && name.starts_with(kDelete) && isFurtherNode(m_prefsHandle, name))
                m_furtherNodes[name.substr(0, blank)].insert(name.substr(blank + 1));
        }
    }
    return m_furtherNodes[key];
}

bool PubSubSession::mayOwnNode(const std::string& node, const std::string& appId, bool* known) {
    const std::string key = kDelete + appId;
    bool exists = false;
    std::string text;
    // A store that cannot be read refuses nobody: the creation is told so where the node enters the record.
    if (!openPrefs(m_prefsHandle) || !readRecord(m_prefsHandle, key, exists, text))
        return true;
    const std::set<std::string>& further = furtherNodes(key);
    const JsonRef record = exists ? parseJson(text.c_str()) : nullptr;
    json_object* nodes = arrayMember(record.get(), kNodes);
    const std::list<std::string> entries = nodes ? cleanedEntries(nodes) : std::list<std::string>();
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
    bool exists = false;
    std::string text;
    if (!openPrefs(m_prefsHandle) || !readRecord(m_prefsHandle, key, exists, text))
        return false;
    JsonRef record = exists ? parseJson(text.c_str()) : listObject(kNodes, json_object_new_array());
    if (!record) {
        PrvPrintErr({}, kValueDamaged);
        return false;
    }
    json_object* nodes = arrayMember(record.get(), kNodes);
    if (!nodes) {
        PrvPrintErr({}, "Parsing nodes key failed");
        return false;
    }
    std::set<std::string>& further = furtherNodes(key);
    if (further.contains(node))
        return true;
    for (const std::string& entry : cleanedEntries(nodes))
        if (entry == node)
            return true;
    if (json_object_array_length(nodes) < kRecordNodes) {
        json_object_array_add(nodes, json_object_new_string(node.c_str()));
        if (!writeValue(m_prefsHandle, key, record.get()))
            return false;
    } else {
        const bool longRecord = json_object_array_length(nodes) > kRecordNodes;
        if (!shortenRecord(m_prefsHandle, key, nodes, further) ||
            (longRecord && !writeValue(m_prefsHandle, key, record.get())) ||
            !writeFurtherNode(m_prefsHandle, key, node))
            return false;
        further.insert(node);
    }
    commitPrefs(m_prefsHandle);
    return true;
}

bool PubSubSession::removeNodeFromDeleteStore(const std::string& node, const std::string& appId) {
    const std::string key = kDelete + appId;
    bool exists = false;
    std::string text;
    if (!openPrefs(m_prefsHandle) || !readRecord(m_prefsHandle, key, exists, text))
        return false;
    std::set<std::string>& further = furtherNodes(key);
    if (further.contains(node)) {
        if (!removeValue(m_prefsHandle, furtherKey(key, node)))
            return false;
        further.erase(node);
        commitPrefs(m_prefsHandle);
        return true;
    }
    if (!exists) {
        PrvPrintErr({}, "Node %s not present in appid %s", node.c_str(), appId.c_str());
        return false;
    }
    const JsonRef record = parseJson(text.c_str());
    if (!record) {
        PrvPrintErr({}, kValueDamaged);
        return false;
    }
    json_object* nodes = arrayMember(record.get(), kNodes);
    if (!nodes) {
        PrvPrintErr({}, "Parsing nodes key failed");
        return false;
    }
    if (!shortenRecord(m_prefsHandle, key, nodes, further))
        return false;
    if (further.erase(node) != 0)
        QPAppRemoveValue(m_prefsHandle, furtherKey(key, node).c_str());
    if (!writeWithout(m_prefsHandle, key, kNodes, nodes, node))
        return false;
    commitPrefs(m_prefsHandle);
    return true;
}

bool PubSubSession::cleanupNodes(const std::string& appId, const std::string& storeKey) {
    const std::string key = storeKey.empty() ? kDelete + appId : storeKey;
    bool exists = false;
    std::string text;
    if (!openPrefs(m_prefsHandle) || !readRecord(m_prefsHandle, key, exists, text))
        return false;
    const std::set<std::string>& further = furtherNodes(key);
    if (!exists && further.empty())
        return true;
    const JsonRef record = exists ? parseJson(text.c_str()) : listObject(kNodes, json_object_new_array());
    if (!record) {
        PrvPrintErr({}, kRecordDamaged, key.c_str());
        return false;
    }
    json_object* listed = arrayMember(record.get(), kNodes);
    if (!listed) {
        PrvPrintErr({}, "Parsing nodes in key failed %s", key.c_str());
        return false;
    }
    if (!listDeletion(m_prefsHandle, key))
        return false;
    if (!m_connected)
        return true;

    gloox::StringList nodes = cleanedEntries(listed);
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
    bool exists = false;
    std::string text;
    if (!openPrefs(m_prefsHandle) || !readRecord(m_prefsHandle, kDelete, exists, text) || !exists)
        return;
    const JsonRef list = parseJson(text.c_str());
    json_object* keys = arrayMember(list.get(), kAppId);
    if (!keys) {
        PrvPrintErr({}, kListDamaged);
        return;
    }
    // sic: the entry goes on with its quotes, which no key has, so what was listed while disconnected stays.
    for (std::size_t i = 0; i < json_object_array_length(keys); ++i)
        cleanupNodes("", json_object_to_json_string(json_object_array_get_idx(keys, i)));
}

void PubSubSession::handleBulkDelete(const std::string& id, const gloox::JID&, const gloox::Error* error) {
    const auto deletion = m_deleteMap.extract(id);
    setPingTimer();
    // sic: a deletion that the server refused is forgotten like one that it did.
    printerror(error);
    if (!deletion || !openPrefs(m_prefsHandle))
        return;
    const std::string& key = deletion.mapped();
    const std::set<std::string> further = std::move(furtherNodes(key));
    m_furtherNodes.erase(key);
    for (const std::string& node : further)
        removeValue(m_prefsHandle, furtherKey(key, node));
    bool exists = false;
    std::string ignored;
    if (further.empty() || (readValue(m_prefsHandle, key, exists, ignored) && exists))
        if (!removeValue(m_prefsHandle, key))
            return;
    unlistDeletion(m_prefsHandle, key);
    commitPrefs(m_prefsHandle);
}
