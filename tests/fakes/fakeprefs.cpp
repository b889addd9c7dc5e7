// SPDX-License-Identifier: GPL-3.0-only
// The preferences store in memory.
#include "tests/fakes/fakeprefs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "tests/fakes/journal.h"

// The QP calls' access to the store.
struct FakePrefsCalls {
    static int injected(const std::string& operation) {
        auto& faults = fakePrefs().m_faults;
        const auto found = faults.find(operation);
        if (found == faults.end())
            return QP_OK;
        const int result = found->second.result;
        if (--found->second.times == 0)
            faults.erase(found);
        return result;
    }

    static bool usable(QPHandle* handle, const char* operation) {
        if (fakePrefs().m_handles.contains(handle))
            return true;
        if (handle)
            ADD_FAILURE() << operation << " on a preferences handle that is not open";
        return false;
    }

    static QPHandle* open(const std::string& app) {
        auto handle = std::make_unique<QPHandle>(QPHandle{app, {}});
        QPHandle* borrowed = handle.get();
        fakePrefs().m_handles[borrowed] = std::move(handle);
        return borrowed;
    }

    static void commit(QPHandle* handle) {
        FakePrefs::Values& values = fakePrefs().m_stored[handle->app];
        for (const auto& [key, value] : handle->writes) {
            if (value)
                values[key] = *value;
            else
                values.erase(key);
        }
    }

    static void close(QPHandle* handle) { fakePrefs().m_handles.erase(handle); }
    static std::string deviceId() { return fakePrefs().m_deviceId; }
};

namespace {

constexpr std::size_t kLongestAppId = 200;

bool isFileName(const char* appId) {
    if (!appId || !*appId || *appId == '.' || std::strlen(appId) > kLongestAppId)
        return false;
    return std::all_of(appId, appId + std::strlen(appId), [](unsigned char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
               c == '_' || c == '-';
    });
}

bool isKey(const char* key) {
    return key && *key;
}

std::optional<std::string> valueOf(QPHandle* handle, const std::string& key) {
    if (const auto written = handle->writes.find(key); written != handle->writes.end())
        return written->second;
    const FakePrefs::Values& stored = fakePrefs().stored(handle->app);
    const auto found = stored.find(key);
    return found == stored.end() ? std::nullopt : std::make_optional(found->second);
}

int copyValue(const char* operation, QPHandle* handle, const char* key, char** copy) {
    if (!copy)
        return QP_BAD_ARGUMENT;
    *copy = nullptr;
    if (const int fault = FakePrefsCalls::injected(operation))
        return fault;
    if (!FakePrefsCalls::usable(handle, operation) || !isKey(key))
        return QP_BAD_ARGUMENT;
    const auto value = valueOf(handle, key);
    if (!value)
        return QP_NOT_FOUND;
    *copy = strdup(value->c_str());
    return QP_OK;
}

int setValue(const char* operation, QPHandle* handle, const char* key, const char* value) {
    if (const int fault = FakePrefsCalls::injected(operation))
        return fault;
    if (!FakePrefsCalls::usable(handle, operation) || !isKey(key) || !value)
        return QP_BAD_ARGUMENT;
    handle->writes[key] = value;
    journal().add("prefs.set " + handle->app + ' ' + key + ' ' + value);
    return QP_OK;
}

}  // namespace

FakePrefs& fakePrefs() {
    static FakePrefs prefs;
    return prefs;
}

const FakePrefs::Values& FakePrefs::stored(const std::string& app) const {
    static const Values kNone;
    const auto found = m_stored.find(app);
    return found == m_stored.end() ? kNone : found->second;
}

void FakePrefs::store(const std::string& app, const std::string& key, const std::string& value) {
    m_stored[app][key] = value;
}

void FakePrefs::failNext(const std::string& operation, int result, int times) {
    m_faults[operation] = {result, times};
}

void FakePrefs::reset() {
    restart();
    m_stored.clear();
    m_faults.clear();
    m_deviceId = "0123456789abcdef0123456789abcdef";
}

int QPAppGetHandle(const char* appId, QPHandle** handle) {
    if (!handle)
        return QP_BAD_ARGUMENT;
    *handle = nullptr;
    if (const int fault = FakePrefsCalls::injected(__func__))
        return fault;
    if (!isFileName(appId))
        return QP_BAD_ARGUMENT;
    *handle = FakePrefsCalls::open(appId);
    return QP_OK;
}

int QPAppCopyValue(QPHandle* handle, const char* key, char** json) {
    return copyValue(__func__, handle, key, json);
}

int QPAppCopyValueString(QPHandle* handle, const char* key, char** text) {
    return copyValue(__func__, handle, key, text);
}

int QPAppCopyKeysCJ(QPHandle* handle, json_object** keys) {
    if (!keys)
        return QP_BAD_ARGUMENT;
    *keys = nullptr;
    if (const int fault = FakePrefsCalls::injected(__func__))
        return fault;
    if (!FakePrefsCalls::usable(handle, __func__))
        return QP_BAD_ARGUMENT;
    std::set<std::string> names;
    for (const auto& [key, value] : fakePrefs().stored(handle->app))
        names.insert(key);
    for (const auto& [key, value] : handle->writes)
        value ? (void)names.insert(key) : (void)names.erase(key);
    *keys = json_object_new_array();
    for (const std::string& name : names)
        json_object_array_add(*keys, json_object_new_string_len(name.data(), static_cast<int>(name.size())));
    return QP_OK;
}

int QPAppSetValue(QPHandle* handle, const char* key, const char* json) {
    return setValue(__func__, handle, key, json);
}

int QPAppSetValueString(QPHandle* handle, const char* key, const char* text) {
    return setValue(__func__, handle, key, text);
}

int QPAppRemoveValue(QPHandle* handle, const char* key) {
    if (const int fault = FakePrefsCalls::injected(__func__))
        return fault;
    if (!FakePrefsCalls::usable(handle, __func__) || !isKey(key))
        return QP_BAD_ARGUMENT;
    if (!valueOf(handle, key))
        return QP_NOT_FOUND;
    handle->writes[key] = std::nullopt;
    journal().add("prefs.remove " + handle->app + ' ' + key);
    return QP_OK;
}

int QPAppFreeHandle(QPHandle* handle, bool commit) {
    if (!FakePrefsCalls::usable(handle, __func__))
        return QP_BAD_ARGUMENT;
    const std::string app = handle->app;
    const int fault = FakePrefsCalls::injected(__func__);
    if (commit && fault == QP_OK)
        FakePrefsCalls::commit(handle);
    FakePrefsCalls::close(handle);
    if (fault == QP_OK)
        journal().add((commit ? "prefs.commit " : "prefs.drop ") + app);
    return fault;
}

int QPSystemCopyStringValue(const char* key, char** text) {
    if (!text)
        return QP_BAD_ARGUMENT;
    *text = nullptr;
    if (const int fault = FakePrefsCalls::injected(__func__))
        return fault;
    if (!isKey(key))
        return QP_BAD_ARGUMENT;
    if (std::string(key) != "com.zelt.properties.kduid")
        return QP_NOT_FOUND;
    *text = strdup(FakePrefsCalls::deviceId().c_str());
    return QP_OK;
}
