// SPDX-License-Identifier: GPL-3.0-only
// Which nodes each application owns, so that all of them can go with it.
//
// Kept in the preferences of the service, over restarts: "delete" + application id -> {"nodes": [...]}, and
// "delete" ->
// {"appid": [...]}, the keys of the records whose bulk deletion the server has not answered yet. In memory
// only PubSubSession::m_deleteMap, the bulk deletions in flight. Every write is committed at once, which
// replaces PubSubSession::m_prefsHandle.
#include <gloox/error.h>

#include <cstdlib>

#include "nodes/names.h"
#include "platform/prefs/qp.h"
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

constexpr char kOpenFailed[] = "Getting app handle failed. %d";
constexpr char kSetFailed[] = "Error: QPAppSetValue returned %d, On failed";
constexpr char kRemoveFailed[] = "Removing delete key failed %s";
constexpr char kRecordDamaged[] = "Parsing delete appid key value failed %s";
constexpr char kListDamaged[] = "Parsing delete key failed";
constexpr char kValueDamaged[] = "Parsing value failed";

bool openPrefs(QPHandle*& handle) {
    const int result = handle ? QP_OK : QPAppGetHandle(kPrefsApp, &handle);
    if (result != QP_OK)
        PrvPrintErr(__func__, __LINE__, kOpenFailed, result);
    return result == QP_OK;
}

void commitPrefs(QPHandle*& handle) {
    QPAppFreeHandle(handle, true);
    handle = nullptr;
    if (QPAppGetHandle(kPrefsApp, &handle) != QP_OK) {
        handle = nullptr;
        PrvPrintErr(__func__, __LINE__, "Getting app handle failed!");
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
    PrvPrintErr(__func__, __LINE__, "Reading %s from the preferences failed. %d", key.c_str(), result);
    return false;
}

bool writeValue(QPHandle* handle, const std::string& key, json_object* value) {
    const int result = QPAppSetValue(handle, key.c_str(), json_object_to_json_string(value));
    if (result != QP_OK)
        PrvPrintErr(__func__, __LINE__, kSetFailed, result);
    return result == QP_OK;
}

bool removeValue(QPHandle* handle, const std::string& key) {
    if (QPAppRemoveValue(handle, key.c_str()) == QP_OK)
        return true;
    PrvPrintErr(__func__, __LINE__, kRemoveFailed, key.c_str());
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
    if (!readValue(handle, kDelete, exists, text))
        return false;
    JsonRef list = exists ? parseJson(text.c_str()) : listObject(kAppId, json_object_new_array());
    if (!list) {
        PrvPrintErr(__func__, __LINE__, kRecordDamaged, key.c_str());
        return false;
    }
    json_object* keys = arrayMember(list.get(), kAppId);
    if (!keys) {
        PrvPrintErr(__func__, __LINE__, kListDamaged);
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
        PrvPrintErr(__func__, __LINE__, kValueDamaged);
    else
        writeWithout(handle, kDelete, kAppId, keys, key);
}

}  // namespace

void removeSeqNo(const std::string& node, PubSubSession& session) {
    if (!openPrefs(session.m_prefsHandle))
        return;
    QPAppRemoveValue(session.m_prefsHandle, node.c_str());
    const int committed = QPAppFreeHandle(session.m_prefsHandle, true);
    if (committed != QP_OK)
        PrvPrintErr(__func__, __LINE__, "Commit failed %d ", committed);
    session.m_prefsHandle = nullptr;
    const int opened = QPAppGetHandle(kPrefsApp, &session.m_prefsHandle);
    if (opened == QP_OK)
        return;
    session.m_prefsHandle = nullptr;
    PrvPrintErr(__func__, __LINE__, "Getting app handle failed! %d ", opened);
}

bool PubSubSession::addNodeToDeleteStore(const std::string& node, const std::string& appId) {
    const std::string key = kDelete + appId;
    bool exists = false;
    std::string text;
    if (!openPrefs(m_prefsHandle) || !readValue(m_prefsHandle, key, exists, text))
        return false;
    JsonRef record = exists ? parseJson(text.c_str()) : listObject(kNodes, json_object_new_array());
    if (!record) {
        PrvPrintErr(__func__, __LINE__, kValueDamaged);
        return false;
    }
    json_object* nodes = arrayMember(record.get(), kNodes);
    if (!nodes) {
        PrvPrintErr(__func__, __LINE__, "Parsing nodes key failed");
        return false;
    }
    for (const std::string& entry : cleanedEntries(nodes))
        if (entry == node)
            return true;
    json_object_array_add(nodes, json_object_new_string(node.c_str()));
    if (!writeValue(m_prefsHandle, key, record.get()))
        return false;
    commitPrefs(m_prefsHandle);
    return true;
}

bool PubSubSession::removeNodeFromDeleteStore(const std::string& node, const std::string& appId) {
    const std::string key = kDelete + appId;
    bool exists = false;
    std::string text;
    if (!openPrefs(m_prefsHandle) || !readValue(m_prefsHandle, key, exists, text))
        return false;
    if (!exists) {
        PrvPrintErr(__func__, __LINE__, "Node %s not present in appid %s", node.c_str(), appId.c_str());
        return false;
    }
    const JsonRef record = parseJson(text.c_str());
    if (!record) {
        PrvPrintErr(__func__, __LINE__, kValueDamaged);
        return false;
    }
    json_object* nodes = arrayMember(record.get(), kNodes);
    if (!nodes) {
        PrvPrintErr(__func__, __LINE__, "Parsing nodes key failed");
        return false;
    }
    if (!writeWithout(m_prefsHandle, key, kNodes, nodes, node))
        return false;
    commitPrefs(m_prefsHandle);
    return true;
}

bool PubSubSession::cleanupNodes(const std::string& appId, const std::string& storeKey) {
    const std::string key = storeKey.empty() ? kDelete + appId : storeKey;
    bool exists = false;
    std::string text;
    if (!openPrefs(m_prefsHandle) || !readValue(m_prefsHandle, key, exists, text))
        return false;
    if (!exists)
        return true;
    const JsonRef record = parseJson(text.c_str());
    if (!record) {
        PrvPrintErr(__func__, __LINE__, kRecordDamaged, key.c_str());
        return false;
    }
    json_object* listed = arrayMember(record.get(), kNodes);
    if (!listed) {
        PrvPrintErr(__func__, __LINE__, "Parsing nodes in key failed %s", key.c_str());
        return false;
    }
    if (!listDeletion(m_prefsHandle, key))
        return false;
    if (!m_connected)
        return true;

    const gloox::StringList nodes = cleanedEntries(listed);
    for (const std::string& node : nodes) {
        removeOfflineMap(node);
        removeSubMap(node);
        removeSeqNo(node, *this);
        removeActivateMap(node);
    }
    const std::string id =
        m_pubsub ? m_pubsub->bulkDelete(gloox::JID(m_pubsubService), nodes, this) : std::string();
    if (id.empty())
        PrvPrintErr(__func__, __LINE__, "Bulk delete local call failed");
    else
        m_deleteMap[id] = key;
    return true;
}

void PubSubSession::deleteBulkNodes() {
    bool exists = false;
    std::string text;
    if (!openPrefs(m_prefsHandle) || !readValue(m_prefsHandle, kDelete, exists, text) || !exists)
        return;
    const JsonRef list = parseJson(text.c_str());
    json_object* keys = arrayMember(list.get(), kAppId);
    if (!keys) {
        PrvPrintErr(__func__, __LINE__, kListDamaged);
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
    printerror(error, __func__);
    if (!deletion || !openPrefs(m_prefsHandle))
        return;
    const std::string& key = deletion.mapped();
    if (!removeValue(m_prefsHandle, key))
        return;
    unlistDeletion(m_prefsHandle, key);
    commitPrefs(m_prefsHandle);
}
