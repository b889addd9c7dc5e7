// SPDX-License-Identifier: GPL-3.0-only
// Who is to be told about a node's items while its application is closed.
//
// Keeps PubSubSession::m_offlineMap, which mirrors the preferences of "pubsubservice.offlineMap" (node ->
// application id) and is loaded from them at start. A store that fails is logged; the map in memory keeps its
// change.
#include <cstdlib>

#include "platform/prefs/qp.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"

QPHandle* PubSubSession::getOfflinePrefHandle() {
    if (!m_offlinePrefHandle && QPAppGetHandle("pubsubservice.offlineMap", &m_offlinePrefHandle) != QP_OK)
        m_offlinePrefHandle = nullptr;
    return m_offlinePrefHandle;
}

void PubSubSession::commitOfflinePrefHandle() {
    if (m_offlinePrefHandle) {
        const int result = QPAppFreeHandle(m_offlinePrefHandle, true);
        if (result != QP_OK)
            PrvPrintErr({}, "Error: QPFreeHandle failed returned %d,", result);
        m_offlinePrefHandle = nullptr;
    }
    getOfflinePrefHandle();
}

void PubSubSession::persistOfflineMap(const std::string& node, const std::string& value) {
    QPHandle* handle = getOfflinePrefHandle();
    if (!handle || node.empty() || value.empty()) {
        PrvPrintErr({}, "Bad parameters %s %s", node.c_str(), value.c_str());
        return;
    }
    const int result = QPAppSetValueString(handle, node.c_str(), value.c_str());
    if (result != QP_OK)
        PrvPrintErr({}, "Error: QPAppSetValue returned %d, Failed to persist offlineMap %s", result,
                    node.c_str());
    commitOfflinePrefHandle();
}

void PubSubSession::deleteOfflineMap(const std::string& node) {
    QPHandle* handle = getOfflinePrefHandle();
    if (!handle || node.empty()) {
        PrvPrintErr({}, "Bad parameters %s", node.c_str());
        return;
    }
    if (QPAppRemoveValue(handle, node.c_str()) != QP_OK)
        PrvPrintErr({}, "Error removing value from prefs %s ", node.c_str());
    commitOfflinePrefHandle();
}

void PubSubSession::setOfflineMap(const std::string& node, const std::string& value) {
    if (m_offlineMap.emplace(node, value).second)
        persistOfflineMap(node, value);
}

void PubSubSession::checkOfflineMap(const std::string& node, bool& found, std::string& errorCode,
                                    std::string& errorText) {
    found = m_offlineMap.contains(node);
    if (!found)
        return;
    errorCode = "appErr";
    errorText = "Already subscribed for Offline notification";
}

void PubSubSession::removeOfflineMap(const std::string& node) {
    m_offlineMap.erase(node);
    deleteOfflineMap(node);
}

void PubSubSession::loadOfflineMapFromDisk() {
    json_object* listed = nullptr;
    QPHandle* store = getOfflinePrefHandle();
    if (!store || QPAppCopyKeysCJ(store, &listed) != QP_OK)
        return;
    const JsonRef keys(listed);
    const std::size_t count =
        json_object_is_type(keys.get(), json_type_array) ? json_object_array_length(keys.get()) : 0;
    for (std::size_t i = 0; i < count; ++i) {
        std::string node = json_object_to_json_string(json_object_array_get_idx(keys.get(), i));
        cleanSlashes(node);
        // Fetched anew: the entry before has replaced the handle.
        QPHandle* handle = getOfflinePrefHandle();
        char* value = nullptr;
        if (!handle || QPAppCopyValueString(handle, node.c_str(), &value) != QP_OK || !value) {
            PrvPrintErr({}, "Could not read value for node in offline store %s", node.c_str());
            continue;
        }
        setOfflineMap(node, value);
        free(value);
    }
}
