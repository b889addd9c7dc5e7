// SPDX-License-Identifier: GPL-3.0-only
// Where the stores are: the folder, which application ids can be file names in it, and the
// stores of this process.
#include <sys/stat.h>

#include <cstdlib>
#include <map>

#include "platform/prefs/store.h"
#include "util/applicationid.h"

namespace {

constexpr std::size_t kLongestAppId = 200;  // leaves room for the endings within the 255 bytes of a file name
constexpr char kDefaultFolder[] = "/var/lib/zelt/prefs";

std::map<std::string, PrefsStore>& stores() {
    static std::map<std::string, PrefsStore> byFile;
    return byFile;
}

}  // namespace

bool isPrefsAppId(const char* appId) {
    return appId && isApplicationId(appId, kLongestAppId);
}

std::string prefsFolder() {
    const char* folder = getenv("ZELT_PREFS_DIR");
    return folder && *folder ? folder : kDefaultFolder;
}

void makePrefsFolder(const std::string& folder) {
    for (std::size_t end = folder.find('/', 1); end != std::string::npos; end = folder.find('/', end + 1))
        mkdir(folder.substr(0, end).c_str(), 0755);
    mkdir(folder.c_str(), 0700);
}

// By file rather than by id: a process may change the folder between two uses.
PrefsStore& prefsStoreOf(const std::string& appId) {
    const std::string folder = prefsFolder();
    const std::string file = folder + '/' + appId + ".db";
    return stores().try_emplace(file, appId, file).first->second;
}

void closePrefsStores() {
    for (auto& [file, store] : stores())
        store.close();
}
