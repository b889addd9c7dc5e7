// SPDX-License-Identifier: GPL-3.0-only
// The steps of every access to the preferences, and the door to the service's own store.
//
// Keeps PubSubSession::m_prefsHandle, through the view that preferences() gives. What is committed survives a
// restart.
#include "session/preferences.h"

#include <cstdlib>
#include <utility>

#include "platform/prefs/qp.h"
#include "session/pubsubsession.h"

namespace {

bool succeeded(int result, const char* error, CallSite site) {
    if (result != QP_OK && error)
        PrvPrintErr(site, error, result);
    return result == QP_OK;
}

}  // namespace

bool Preferences::open(const char* error, CallSite site) {
    if (isOpen() || succeeded(QPAppGetHandle(m_application, &m_handle), error, site))
        return true;
    m_handle = nullptr;
    return false;
}

StoredValue Preferences::read(const std::string& key) const {
    char* text = nullptr;
    const int result = QPAppCopyValue(m_handle, key.c_str(), &text);
    StoredValue value{result == QP_NOT_FOUND ? QP_OK : result, result == QP_OK && text, nullptr};
    if (value.exists)
        value.json = parseJson(text);
    free(text);
    return value;
}

JsonRef Preferences::keys() const {
    json_object* listed = nullptr;
    const int result = QPAppCopyKeysCJ(m_handle, &listed);
    JsonRef keys(listed);
    return result == QP_OK ? std::move(keys) : nullptr;
}

bool Preferences::write(const std::string& key, json_object* value, const char* error, CallSite site) {
    return succeeded(QPAppSetValue(m_handle, key.c_str(), json_object_to_json_string(value)), error, site);
}

bool Preferences::remove(const std::string& key) {
    return QPAppRemoveValue(m_handle, key.c_str()) == QP_OK;
}

void Preferences::commit(const CommitErrors& errors, CallSite site) {
    if (isOpen())
        succeeded(QPAppFreeHandle(std::exchange(m_handle, nullptr), true), errors.commitFailed, site);
    open(errors.openFailed, site);
}

Preferences PubSubSession::preferences() {
    return {kServicePreferences, m_prefsHandle};
}
