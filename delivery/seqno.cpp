// SPDX-License-Identifier: GPL-3.0-only
// The number of the last item that was handed on, for each node: what came before it is stale.
//
// Kept in the preferences of the service alone, under the node's name, as {"seqNo": "42"}; it survives a
// restart. Every commit replaces PubSubSession::m_prefsHandle, so the handle is fetched anew before each use.
#include <glib.h>

#include <cstdlib>

#include "platform/prefs/qp.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace {

constexpr const char* kPrefsApp = "com.zelt.pubsubservice";
constexpr int kDecimal = 10;

int openPrefs(QPHandle*& handle) {
    return handle ? QP_OK : QPAppGetHandle(kPrefsApp, &handle);
}

uint64_t numberOf(const std::string& text) {
    return g_ascii_strtoull(text.c_str(), nullptr, kDecimal);
}

}  // namespace

bool PubSubSession::getSeqNo(const std::string& node, std::string& seqNo) {
    seqNo = "0";
    if (const int result = openPrefs(m_prefsHandle); result != QP_OK) {
        PrvPrintErr(__func__, __LINE__, "Getting app handle failed. %d", result);
        return false;
    }
    char* stored = nullptr;
    if (QPAppCopyValue(m_prefsHandle, node.c_str(), &stored) != QP_OK || !stored)
        return false;
    const JsonRef record = parseJson(stored);
    free(stored);
    if (!record) {
        PrvPrintErr(__func__, __LINE__, "Parsing value failed");
        return false;
    }
    std::string ignored;
    getJSONStringV2(record.get(), "seqNo", ignored, seqNo);
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
    if (openPrefs(m_prefsHandle) != QP_OK)
        return;
    if (node.empty()) {
        // sic: the two values stand in each other's place.
        PrvPrintErr(__func__, __LINE__, "Item id not saved Node %s , SeqNo:%s", seqNo.c_str(), node.c_str());
        return;
    }
    const JsonRef record(json_object_new_object());
    json_object_object_add(record.get(), "seqNo", json_object_new_string(seqNo.c_str()));
    const int result = QPAppSetValue(m_prefsHandle, node.c_str(), json_object_to_json_string(record.get()));
    if (result != QP_OK)
        PrvPrintErr(__func__, __LINE__, "Error: QPAppSetValue returned %d, On failed", result);
    QPAppFreeHandle(m_prefsHandle, true);
    m_prefsHandle = nullptr;
    if (openPrefs(m_prefsHandle) != QP_OK) {
        PrvPrintErr(__func__, __LINE__, "Getting app handle failed!");
        m_prefsHandle = nullptr;
    }
}
