// SPDX-License-Identifier: GPL-3.0-only
// The QP calls. A handle buffers writes to the store of its application.
//
// A handle holds only this buffer; the store belongs to the process and outlives every handle.
#include "platform/prefs/qp.h"

#include <cstring>
#include <set>
#include <string>

#include "platform/prefs/store.h"
#include "util/log.h"

struct QPHandle {
    PrefsStore& store;
    PrefsWrites writes;
};

namespace {

bool isKey(const char* key) {
    return key && *key;
}

int readThrough(QPHandle* handle, const std::string& key, std::string& value) {
    const auto written = handle->writes.find(key);
    if (written == handle->writes.end())
        return handle->store.read(key, value);
    if (!written->second)
        return QP_NOT_FOUND;
    value = *written->second;
    return QP_OK;
}

int copyValue(QPHandle* handle, const char* key, char** copy) {
    if (!copy)
        return QP_BAD_ARGUMENT;
    *copy = nullptr;
    if (!handle || !isKey(key))
        return QP_BAD_ARGUMENT;
    std::string value;
    const int result = readThrough(handle, key, value);
    if (result == QP_OK)
        *copy = strdup(value.c_str());
    return result;
}

int setValue(QPHandle* handle, const char* key, const char* value) {
    if (!handle || !isKey(key) || !value)
        return QP_BAD_ARGUMENT;
    handle->writes[key] = value;
    return QP_OK;
}

}  // namespace

int QPAppGetHandle(const char* appId, QPHandle** handle) {
    if (!handle)
        return QP_BAD_ARGUMENT;
    *handle = nullptr;
    if (!isPrefsAppId(appId)) {
        PrvPrintErr({},
                    "Preferences of \"%s\": an application id is 1 to 200 letters, digits, '.', '_' and '-', "
                    "and does "
                    "not begin with '.'",
                    appId ? appId : "");
        return QP_BAD_ARGUMENT;
    }
    PrefsStore& store = prefsStoreOf(appId);
    if (const int result = store.open())
        return result;
    *handle = new QPHandle{store, {}};
    return QP_OK;
}

int QPAppCopyValue(QPHandle* handle, const char* key, char** json) {
    return copyValue(handle, key, json);
}

int QPAppCopyValueString(QPHandle* handle, const char* key, char** text) {
    return copyValue(handle, key, text);
}

int QPAppCopyKeysCJ(QPHandle* handle, json_object** keys) {
    if (!keys)
        return QP_BAD_ARGUMENT;
    *keys = nullptr;
    if (!handle)
        return QP_BAD_ARGUMENT;
    std::set<std::string> names;
    if (const int result = handle->store.readKeys(names))
        return result;
    for (const auto& [key, value] : handle->writes) {
        if (value)
            names.insert(key);
        else
            names.erase(key);
    }
    *keys = json_object_new_array();
    for (const std::string& name : names)
        json_object_array_add(*keys, json_object_new_string_len(name.data(), static_cast<int>(name.size())));
    return QP_OK;
}

int QPAppSetValue(QPHandle* handle, const char* key, const char* json) {
    return setValue(handle, key, json);
}

int QPAppSetValueString(QPHandle* handle, const char* key, const char* text) {
    return setValue(handle, key, text);
}

int QPAppRemoveValue(QPHandle* handle, const char* key) {
    if (!handle || !isKey(key))
        return QP_BAD_ARGUMENT;
    std::string value;
    const int result = readThrough(handle, key, value);
    if (result == QP_OK)
        handle->writes[key] = std::nullopt;
    return result;
}

int QPAppFreeHandle(QPHandle* handle, bool commit) {
    if (!handle)
        return QP_BAD_ARGUMENT;
    const int result = commit ? handle->store.commit(handle->writes) : QP_OK;
    delete handle;
    return result;
}
