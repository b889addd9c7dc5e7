// SPDX-License-Identifier: GPL-3.0-only
// The number of the last item that was handed on, for each node: what came before it is stale.
//
// Kept in the preferences of the service alone, under the node's name, as {"seqNo": "42"}; it survives a
// restart. The deletion store keeps its records there too, under keys that begin with "delete", so the number
// of a node whose name begins so has a key of its own. Every commit replaces PubSubSession::m_prefsHandle, so
// the handle is fetched anew before each use.
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

constexpr const char* kDelete = "delete";
constexpr const char* kSeqNo = "seqNo:";

// The key of a node's number: its name, but never one that a record of the deletion store can have. No two
// nodes share one.
std::string keyOf(const std::string& node) {
    return node.starts_with(kDelete) || node.starts_with(kSeqNo) ? kSeqNo + node : node;
}

// The record of a number under `key`; null when there is none.
JsonRef readNumber(QPHandle* handle, const std::string& key, bool& damaged) {
    char* stored = nullptr;
    if (QPAppCopyValue(handle, key.c_str(), &stored) != QP_OK || !stored)
        return nullptr;
    JsonRef record = parseJson(stored);
    free(stored);
    damaged = !record;
    return record;
}

// Whether an earlier release kept the number of `node` where the deletion store keeps its records.
bool hasNumberAmongRecords(QPHandle* handle, const std::string& node) {
    bool damaged = false;
    return node.starts_with(kDelete) && jsonMember(readNumber(handle, node, damaged).get(), "seqNo");
}

uint64_t numberOf(const std::string& text) {
    return g_ascii_strtoull(text.c_str(), nullptr, kDecimal);
}

}  // namespace

bool PubSubSession::getSeqNo(const std::string& node, std::string& seqNo) {
    seqNo = "0";
    if (const int result = openPrefs(m_prefsHandle); result != QP_OK) {
        PrvPrintErr({}, "Getting app handle failed. %d", result);
        return false;
    }
    bool damaged = false;
    JsonRef record = readNumber(m_prefsHandle, keyOf(node), damaged);
    if (!record && !damaged && hasNumberAmongRecords(m_prefsHandle, node))
        record = readNumber(m_prefsHandle, node, damaged);
    if (damaged)
        PrvPrintErr({}, "Parsing value failed");
    if (!record)
        return false;
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
        PrvPrintErr({}, "Item id not saved Node %s , SeqNo:%s", seqNo.c_str(), node.c_str());
        return;
    }
    const JsonRef record(json_object_new_object());
    json_object_object_add(record.get(), "seqNo", json_object_new_string(seqNo.c_str()));
    const int result =
        QPAppSetValue(m_prefsHandle, keyOf(node).c_str(), json_object_to_json_string(record.get()));
    if (result != QP_OK)
        PrvPrintErr({}, "Error: QPAppSetValue returned %d, On failed", result);
    else if (hasNumberAmongRecords(m_prefsHandle, node))
        QPAppRemoveValue(m_prefsHandle, node.c_str());
    QPAppFreeHandle(m_prefsHandle, true);
    m_prefsHandle = nullptr;
    if (openPrefs(m_prefsHandle) != QP_OK) {
        PrvPrintErr({}, "Getting app handle failed!");
        m_prefsHandle = nullptr;
    }
}

void PubSubSession::dropSeqNo(QPHandle* handle, const std::string& node) {
    if (hasNumberAmongRecords(handle, node))
        QPAppRemoveValue(handle, node.c_str());
    QPAppRemoveValue(handle, keyOf(node).c_str());
}

bool PubSubSession::moveNumberAside(QPHandle* handle, const std::string& key) {
    if (!hasNumberAmongRecords(handle, key))
        return false;
    bool damaged = false;
    const JsonRef record = readNumber(handle, key, damaged);
    if (!readNumber(handle, keyOf(key), damaged))
        QPAppSetValue(handle, keyOf(key).c_str(), json_object_to_json_string(record.get()));
    QPAppRemoveValue(handle, key.c_str());
    return true;
}
