// SPDX-License-Identifier: GPL-3.0-only
// The applications folder and the list of what was seen in it.
#include "platform/host/applications.h"

#include <dirent.h>
#include <glib.h>
#include <sys/stat.h>

#include "platform/host/log.h"
#include "util/jsonref.h"

namespace {

JsonRef arrayOf(const std::set<std::string>& names) {
    JsonArray array;
    for (const std::string& name : names)
        array.add(name);
    return array.release();
}

std::set<std::string> namesIn(json_object* array) {
    std::set<std::string> names;
    const size_t count = json_object_is_type(array, json_type_array) ? json_object_array_length(array) : 0;
    for (size_t i = 0; i < count; i++) {
        if (const char* name = json_object_get_string(json_object_array_get_idx(array, i)))
            names.insert(name);
    }
    return names;
}

bool isFolder(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

std::string applicationOf(const std::string& entry, bool isFolder) {
    constexpr std::string_view suffix = ".desktop";
    if (entry.empty() || entry[0] == '.')
        return "";
    if (isFolder)
        return entry;
    return entry.ends_with(suffix) ? entry.substr(0, entry.size() - suffix.size()) : "";
}

bool listApplications(const std::string& folder, std::set<std::string>& applications) {
    DIR* directory = opendir(folder.c_str());
    if (!directory)
        return false;
    while (const dirent* entry = readdir(directory)) {
        const bool nested = entry->d_type == DT_UNKNOWN || entry->d_type == DT_LNK
                                ? isFolder(folder + "/" + entry->d_name)
                                : entry->d_type == DT_DIR;
        const std::string application = applicationOf(entry->d_name, nested);
        if (!application.empty())
            applications.insert(application);
    }
    closedir(directory);
    return true;
}

void ApplicationList::load() {
    gchar* text = nullptr;
    if (!g_file_get_contents(m_file.c_str(), &text, nullptr, nullptr))
        return;
    const JsonRef object = parseJson(text);
    g_free(text);
    m_known = json_object_is_type(jsonMember(object.get(), "installed"), json_type_array);
    m_installed = namesIn(jsonMember(object.get(), "installed"));
    m_removed = namesIn(jsonMember(object.get(), "removed"));
    if (!m_known)
        logLine("%s is damaged; removals while the daemon was down are not detected this time",
                m_file.c_str());
}

void ApplicationList::update(const std::set<std::string>& applications) {
    if (m_known && applications == m_installed)
        return;
    for (const std::string& application : m_installed) {
        if (!applications.contains(application))
            m_removed.insert(application);
    }
    // An application that came back before its removal was announced keeps its data.
    for (const std::string& application : applications)
        m_removed.erase(application);
    m_installed = applications;
    m_known = true;
    save();
}

void ApplicationList::announced(const std::string& application) {
    if (m_removed.erase(application))
        save();
}

void ApplicationList::save() const {
    JsonObject object;
    object.set("installed", arrayOf(m_installed)).set("removed", arrayOf(m_removed));
    const std::string text = json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PRETTY);
    GError* error = nullptr;
    auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    if (g_file_set_contents_full(m_file.c_str(), text.c_str(), static_cast<gssize>(text.size()), flags, 0600,
                                 &error))
        return;
    logLine("cannot keep the list of applications: %s; removals during a restart are not detected",
            error->message);
    g_error_free(error);
}
