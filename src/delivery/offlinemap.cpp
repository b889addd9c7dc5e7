// SPDX-License-Identifier: GPL-3.0-only
// Which application is notified of a node's items while it is closed.
//
// Keeps PubSubSession::m_offlineMap, which mirrors the preferences "pubsubservice.offlineMap" (node ->
// application id) and is loaded from them at start. A failure of the store is logged; the map in memory is
// changed all the same.
#include <cstdlib>

#include "platform/prefs/qp.h"
#include "session/preferences.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"

namespace {

Preferences offlineStore(QPHandle*& handle) {
    return {"pubsubservice.offlineMap", handle};
}

}  // namespace

QPHandle* PubSubSession::getOfflinePrefHandle() {
    offlineStore(m_offlinePrefHandle).open(nullptr);
    return m_offlinePrefHandle;
}

void PubSubSession::commitOfflinePrefHandle() {
    offlineStore(m_offlinePrefHandle)
        .commit({.commitFailed = "Error: QPFreeHandle failed returned %d,", .openFailed = nullptr});
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
    Preferences store = offlineStore(m_offlinePrefHandle);
    if (!store.open(nullptr))
        return;
    const JsonRef keys = store.keys();
    for (const std::string& node : cleanedEntries(keys.get())) {
        // Opened for each entry, because setOfflineMap() replaces it.
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
