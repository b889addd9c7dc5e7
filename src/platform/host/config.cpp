// SPDX-License-Identifier: GPL-3.0-only
// Reads the key file. An unknown group or key is an error: a misspelled one would otherwise
// silently do nothing.
#include "platform/host/config.h"

#include <glib.h>

#include <cstdlib>
#include <memory>

namespace {

constexpr char kDefaultFile[] = "/etc/zelt/host.conf";

struct KeyFileFree {
    void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileFree>;

struct KnownKey {
    const char* group;
    const char* key;
};
constexpr KnownKey kKnownKeys[] = {
    {"network", "loopback-is-internet"},
    {"network", "interfaces"},
    {"account", "file"},
    {"applications", "folder"},
    {"applications", "settle-ms"},
    {"services", "enabled"},
    {"connection", "keep"},
    {"connection", "after"},
    {"connection", "battery"},
};

std::string take(char* text) {
    std::string copy = text ? text : "";
    g_free(text);
    return copy;
}

bool isKnown(const std::string& group, const std::string& key) {
    for (const KnownKey& known : kKnownKeys) {
        if (group == known.group && key == known.key)
            return true;
    }
    return false;
}

std::string unknownKey(GKeyFile* file) {
    std::string found;
    char** groups = g_key_file_get_groups(file, nullptr);
    for (char** group = groups; *group; group++) {
        char** keys = g_key_file_get_keys(file, *group, nullptr, nullptr);
        for (char** key = keys; key && *key; key++) {
            if (!isKnown(*group, *key))
                found = "[" + std::string(*group) + "] " + *key;
        }
        g_strfreev(keys);
    }
    g_strfreev(groups);
    return found;
}

// The values of one file; a value of the wrong form is reported as the problem.
class Values {
  public:
    Values(GKeyFile* file, std::string& problem) : m_file(file), m_problem(problem) {}

    void text(const char* group, const char* key, std::string& value) {
        if (has(group, key))
            value = take(g_key_file_get_string(m_file, group, key, nullptr));
    }
    void flag(const char* group, const char* key, bool& value) {
        if (!has(group, key))
            return;
        GError* error = nullptr;
        value = g_key_file_get_boolean(m_file, group, key, &error);
        note(group, key, "true or false", error);
    }
    void number(const char* group, const char* key, unsigned& value) {
        if (!has(group, key))
            return;
        GError* error = nullptr;
        const int read = g_key_file_get_integer(m_file, group, key, &error);
        if (!error && read < 0)
            g_set_error_literal(&error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE, "negative");
        note(group, key, "a whole number, 0 or more", error);
        value = static_cast<unsigned>(read);
    }
    void delays(const char* group, const char* key, DelayRange& value) {
        std::string delays, wanted;
        text(group, key, delays);
        if (has(group, key) && !parseDelayRange(delays, value, wanted))
            complain(group, key, wanted);
    }
    void names(const char* group, const char* key, std::set<std::string>& value) {
        char** list = g_key_file_get_string_list(m_file, group, key, nullptr, nullptr);
        for (char** name = list; name && *name; name++)
            value.insert(*name);
        g_strfreev(list);
    }

  private:
    bool has(const char* group, const char* key) { return g_key_file_has_key(m_file, group, key, nullptr); }
    void note(const char* group, const char* key, const char* wanted, GError* error) {
        if (!error)
            return;
        complain(group, key, wanted);
        g_error_free(error);
    }
    void complain(const char* group, const char* key, const std::string& wanted) {
        m_problem = "[" + std::string(group) + "] " + key + " must be " + wanted;
    }

    GKeyFile* m_file;
    std::string& m_problem;
};

void readValues(GKeyFile* file, HostConfig& config, std::string& problem) {
    Values values(file, problem);
    values.flag("network", "loopback-is-internet", config.loopbackIsInternet);
    values.names("network", "interfaces", config.interfaces);
    values.text("account", "file", config.accountFile);
    values.text("applications", "folder", config.applicationsFolder);
    values.number("applications", "settle-ms", config.settleMs);
    values.names("services", "enabled", config.services);
    values.flag("connection", "keep", config.keepsConnection);
    values.delays("connection", "after", config.reconnectDelays);
    values.flag("connection", "battery", config.reconnectsOnBattery);
    const std::string unknown = unknownKey(file);
    if (!unknown.empty())
        problem = unknown + " is not a known setting";
}

}  // namespace

bool readHostConfig(HostConfig& config, std::string& problem) {
    if (const char* folder = std::getenv("ZELT_HOST_STATE_DIR"))
        config.stateDir = folder;
    config.accountFile = config.stateDir + "/account.json";
    const char* named = std::getenv("ZELT_HOST_CONF");
    const std::string path = named ? named : kDefaultFile;
    const KeyFile file(g_key_file_new());
    GError* error = nullptr;
    if (g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, &error)) {
        readValues(file.get(), config, problem);
        if (!problem.empty())
            problem = path + ": " + problem + "; correct it and restart zelt-host";
        return problem.empty();
    }
    const bool absent = !named && g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT);
    if (!absent)
        problem = path + ": " + error->message;
    g_error_free(error);
    return absent;
}
