// SPDX-License-Identifier: GPL-3.0-only
// Maps each node to the file with its cached item, and bounds the number of files.
//
// A node is plain when no other plain node has its file name: "/U/R/APP/ENDPOINT" of this device with no '-'
// in APP and no '/' in ENDPOINT, or a name whose rest is one segment without '-'. Its item is that file, as
// in every earlier release; the "endpoint" in the file says where APP ends. The items of all other nodes, two
// of which can have the same file name, are in cache.nodes. A file with one link that belongs to no plain
// node was written by an earlier release: it is assigned to the node of the deletion store that matches it,
// if there is exactly one.
//
// Order, for a kill at any point: a second link is removed on disk before its file is replaced or removed, so
// that it never looks like a file of its own.
#include "delivery/cachefiles.h"

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "platform/prefs/qp.h"
#include "session/preferences.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"
#include "util/paths.h"

namespace {

constexpr int kFileMode = 0666;  // less the umask
constexpr mode_t kFolderMode = 0744;
constexpr std::size_t kOwnerFiles = 1000;  // of one application, and of all nodes without one
constexpr std::size_t kOwnerBytes = 16 << 20;
constexpr std::size_t kFiles = 10000;  // of all
constexpr std::size_t kBytes = 128 << 20;
constexpr std::size_t kHashLength = 64;
constexpr std::size_t kTemporaryEnding = 7;  // GLib's "." and six characters
constexpr std::size_t kLongestOwner = 100;   // longer than any application id that forms a node name

struct FreeError {
    void operator()(GError* error) const { g_error_free(error); }
};

std::string fileNameOf(std::string rest) {
    std::replace(rest.begin(), rest.end(), '/', '-');
    return rest;
}

// A node's name without its first segment. Nodes that differ only in that segment share a file on purpose.
std::string restOf(const std::string& node) {
    const std::size_t slash = node.find('/', 1);
    return slash == std::string::npos ? node : node.substr(slash + 1);
}

// The application of "R/APP/..." where R is this device's resource; "" for any other name.
std::string ownerOf(const std::string& rest) {
    const std::string start = gCurrentSession.m_resource + '/';
    const std::size_t end = rest.find('/', start.size());
    if (!rest.starts_with(start) || end == std::string::npos || end - start.size() > kLongestOwner)
        return "";
    return rest.substr(start.size(), end - start.size());
}

// The same for a file name, which cannot tell application "a" from "a-b".
std::string ownerOfFile(const std::string& name) {
    const std::string start = gCurrentSession.m_resource + '-';
    const std::size_t end = name.find('-', start.size());
    if (!name.starts_with(start) || end == std::string::npos || end - start.size() > kLongestOwner)
        return "";
    return name.substr(start.size(), end - start.size());
}

std::string lastSegmentOf(const std::string& rest) {
    return rest.substr(rest.rfind('/') + 1);
}

bool isOneWord(const std::string& rest) {
    return rest.find_first_of("-/") == std::string::npos;
}

bool isPlain(const std::string& rest) {
    if (isOneWord(rest))
        return true;
    const std::string owner = ownerOf(rest);
    const std::size_t start = gCurrentSession.m_resource.size() + owner.size() + 2;
    return !owner.empty() && owner.find('-') == std::string::npos && rest.size() > start &&
           rest.find('/', start) == std::string::npos;
}

bool statusOf(const std::string& path, struct stat& status) {
    return lstat(path.c_str(), &status) == 0;
}

bool isFile(const std::string& path) {
    struct stat status;
    return statusOf(path, status) && S_ISREG(status.st_mode);
}

bool isSameFile(const std::string& one, const std::string& other) {
    struct stat first;
    struct stat second;
    return statusOf(one, first) && statusOf(other, second) && first.st_ino == second.st_ino &&
           first.st_dev == second.st_dev;
}

void syncFolder(const std::string& folder) {
    const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    fsync(descriptor);
    close(descriptor);
}

// False for a file without an item.
bool readEndpoint(const std::string& path, std::string& endpoint) {
    gchar* text = nullptr;
    g_file_get_contents(path.c_str(), &text, nullptr, nullptr);
    const std::unique_ptr<gchar, decltype(&g_free)> owned(text, g_free);
    const JsonRef item = parseJson(text);
    json_object* member = jsonMember(item.get(), "endpoint");
    if (member)
        endpoint = json_object_get_string(member);
    return item != nullptr;
}

bool writeFile(const std::string& path, const std::string& text, CallSite site) {
    GError* error = nullptr;
    // Durable: syncs this file and its folder, but nothing else on the file system.
    const auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    if (g_file_set_contents_full(path.c_str(), text.data(), static_cast<gssize>(text.size()), flags,
                                 kFileMode, &error))
        return true;
    const std::unique_ptr<GError, FreeError> owned(error);
    PrvPrintErr(site, "Error saving item to cache %s", owned->message);
    return false;
}

bool isHash(const std::string& text) {
    return text.size() == kHashLength &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c); });
}

bool hasTemporaryEnding(const std::string& name) {
    return name.size() > kTemporaryEnding && name[name.size() - kTemporaryEnding] == '.' &&
           std::all_of(name.end() - kTemporaryEnding + 1, name.end(),
                       [](unsigned char c) { return std::isalnum(c); });
}

bool fitsName(const std::string& name, const std::string& endpoint) {
    return name == endpoint || name.ends_with('-' + endpoint);
}

std::vector<std::filesystem::directory_entry> filesOf(const std::string& folder) {
    std::vector<std::filesystem::directory_entry> files;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(folder, none))
        if (std::error_code unknown;
            entry.symlink_status(unknown).type() == std::filesystem::file_type::regular)
            files.push_back(entry);
    return files;
}

// The nodes of all applications in the deletion store, without their first segments, by their file names.
std::multimap<std::string, std::string> knownNodes() {
    std::multimap<std::string, std::string> nodes;
    QPHandle* handle = gCurrentSession.m_prefsHandle;
    const bool borrowed = handle;
    Preferences store(kServicePreferences, handle);
    if (!store.open(nullptr))
        return nodes;
    const JsonRef keys = store.keys();
    const std::size_t count = keys ? json_object_array_length(keys.get()) : 0;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string key = json_object_get_string(json_object_array_get_idx(keys.get(), i));
        if (!key.starts_with("delete"))
            continue;
        const StoredValue record = store.read(key);
        for (const std::string& node : cleanedEntries(jsonMember(record.json.get(), "nodes"))) {
            const std::string rest = restOf(node);
            nodes.emplace(fileNameOf(rest), rest);
        }
    }
    if (!borrowed)
        QPAppFreeHandle(handle, false);
    return nodes;
}

bool isSameTime(const timespec& one, const timespec& other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

timespec timeOf(const std::string& folder) {
    struct stat status;
    return statusOf(folder, status) ? status.st_mtim : timespec{};
}

}  // namespace

struct CacheFiles::Place {
    Place(const CacheFiles& files, const std::string& nodeName)
        : node(nodeName),
          rest(restOf(nodeName)),
          name(fileNameOf(rest)),
          owner(ownerOf(rest)),
          plain(isPlain(rest)),
          shared(files.m_folder + name),
          apart(files.m_apart + owner + '-' + hash(rest)) {}

    // The name is too long for a file, or something other than a file has it.
    bool isUnusable() const {
        struct stat status;
        return statusOf(shared, status) ? !S_ISREG(status.st_mode) : errno == ENAMETOOLONG;
    }
    // Whether the file in the cache folder is this plain node's own. A file without an item counts as
    // its own, too.
    bool isInShared() const {
        struct stat status;
        if (!plain || !statusOf(shared, status) || !S_ISREG(status.st_mode))
            return false;
        if (isOneWord(rest))
            return true;
        std::string endpoint;
        return status.st_nlink == 1 && (!readEndpoint(shared, endpoint) || endpoint == lastSegmentOf(rest));
    }

    static std::string hash(const std::string& rest) {
        const std::unique_ptr<gchar, decltype(&g_free)> text(
            g_compute_checksum_for_data(G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(rest.data()),
                                        rest.size()),
            g_free);
        return text.get();
    }

    std::string node;
    std::string rest;
    std::string name;
    std::string owner;
    bool plain;
    std::string shared;  // the path given by the node's name
    std::string apart;   // a path that no other node has
};

CacheFiles& CacheFiles::current() {
    static CacheFiles files;
    files.refresh();
    return files;
}

std::string CacheFiles::find(const std::string& node) const {
    const Place place(*this, node);
    if (isFile(place.apart))
        return place.apart;
    return place.isInShared() ? place.shared : "";
}

bool CacheFiles::store(const std::string& node, const std::string& text, CallSite site) {
    const Place place(*this, node);
    const bool apart = isFile(place.apart) ||
                       (place.plain ? isFile(place.shared) && !place.isInShared() : !place.isUnusable());
    const std::string& path = apart ? place.apart : place.shared;
    if (!hasRoom(place, path, text.size())) {
        PrvPrintErr(site, "Item of %s stays with the server, too many items wait in the cache", node.c_str());
        return false;
    }
    const bool stored = apart ? storeApart(place, text, site) : writeFile(path, text, site);
    if (stored)
        enter(path, place.owner, text.size());
    noteChange();
    return stored;
}

bool CacheFiles::storeApart(const Place& place, const std::string& text, CallSite site) {
    if (mkdir(m_apart.c_str(), kFolderMode) == 0)
        syncFolder(stateDir());
    removeSecondLink(place);
    if (!writeFile(place.apart, text, site))
        return false;
    // For programs that look for the item under the node's name; it is not read from there.
    if (!place.plain && link(place.apart.c_str(), place.shared.c_str()) != 0 && errno != EEXIST)
        PrvPrintErr(site, "Linking the item of %s in the cache failed: %s", place.node.c_str(),
                    strerror(errno));
    return true;
}

void CacheFiles::removeSecondLink(const Place& place) const {
    if (!isSameFile(place.apart, place.shared))
        return;
    unlink(place.shared.c_str());
    syncFolder(m_folder);
}

void CacheFiles::remove(const std::string& node) {
    const Place place(*this, node);
    const std::string path = find(node);
    if (path.empty())
        return;
    removeSecondLink(place);
    // Never remove(): a node whose file name is empty would take the folder itself.
    if (unlink(path.c_str()) == 0)
        forget(path);
    noteChange();
}

bool CacheFiles::hasRoom(const Place& place, const std::string& path, std::size_t bytes) const {
    const auto known = m_files.find(path);
    const bool isNew = known == m_files.end();
    const std::size_t before = isNew ? 0 : known->second.bytes;
    if (!isNew && bytes <= before)
        return true;
    const auto owner = m_owners.find(place.owner);
    const Count own = owner == m_owners.end() ? Count() : owner->second;
    return own.files + isNew <= kOwnerFiles &&
           own.bytes - std::min(before, own.bytes) + bytes <= kOwnerBytes && m_all.files + isNew <= kFiles &&
           m_all.bytes - before + bytes <= kBytes;
}

void CacheFiles::enter(const std::string& path, const std::string& owner, std::size_t bytes) {
    forget(path);
    m_files[path] = {owner, bytes};
    for (Count* count : {&m_owners[owner], &m_all}) {
        ++count->files;
        count->bytes += bytes;
    }
}

void CacheFiles::forget(const std::string& path) {
    const auto file = m_files.find(path);
    if (file == m_files.end())
        return;
    const auto owner = m_owners.find(file->second.owner);
    for (Count* count : {&owner->second, &m_all}) {
        --count->files;
        count->bytes -= file->second.bytes;
    }
    if (owner->second.files == 0)
        m_owners.erase(owner);
    m_files.erase(file);
}

void CacheFiles::noteChange() {
    m_folderTime = timeOf(m_folder);
    m_apartTime = timeOf(m_apart);
}

void CacheFiles::refresh() {
    const std::string& folder = cacheDir();
    if (folder != m_folder) {
        m_folder = folder;
        m_apart = stateDir() + "/cache.nodes/";
        m_takenOver = false;
    } else if (m_resource == gCurrentSession.m_resource && isSameTime(m_folderTime, timeOf(m_folder)) &&
               isSameTime(m_apartTime, timeOf(m_apart))) {
        return;
    }
    m_resource = gCurrentSession.m_resource;
    scan();
    noteChange();
}

void CacheFiles::scan() {
    m_files.clear();
    m_owners.clear();
    m_all = {};
    // Finding the owners takes the device's resource, which is unknown before the account details are.
    if (!m_takenOver && !m_resource.empty()) {
        m_takenOver = true;
        takeOver();
    }
    for (const auto& file : filesOf(m_apart)) {
        const std::string name = file.path().filename().string();
        std::error_code gone;
        if (name.size() > kHashLength && isHash(name.substr(name.size() - kHashLength)))
            enter(m_apart + name, name.substr(0, name.size() - kHashLength - 1), file.file_size(gone));
        else
            unlink(file.path().c_str());  // an unfinished file, left by a kill
    }
    scanCacheFolder();
}

void CacheFiles::scanCacheFolder() {
    for (const auto& file : filesOf(m_folder)) {
        std::error_code gone;
        const std::string name = file.path().filename().string();
        if (file.hard_link_count(gone) == 1)
            enter(m_folder + name, ownerOfFile(name), file.file_size(gone));
    }
}

// Once for each start: assigns or removes files that earlier releases or kills left in the cache folder.
void CacheFiles::takeOver() {
    std::multimap<std::string, std::string> nodes;
    bool nodesKnown = false;
    for (const auto& file : filesOf(m_folder)) {
        std::error_code gone;
        const std::string name = file.path().filename().string();
        if (file.hard_link_count(gone) != 1 || (isOneWord(name) && !hasTemporaryEnding(name)))
            continue;
        std::string endpoint;
        const bool holdsItem = readEndpoint(file.path().string(), endpoint);
        if (hasTemporaryEnding(name) && !(holdsItem && fitsName(name, endpoint))) {
            unlink(file.path().c_str());
            continue;
        }
        const std::string owner = ownerOfFile(name);
        if (!holdsItem || isOneWord(name) ||
            (!owner.empty() && name == fileNameOf(gCurrentSession.m_resource + '/' + owner + '/' + endpoint)))
            continue;
        if (!nodesKnown)
            nodes = knownNodes();
        nodesKnown = true;
        std::set<std::string> fitting;
        for (auto [next, end] = nodes.equal_range(name); next != end; ++next)
            if (lastSegmentOf(next->second) == endpoint)
                fitting.insert(next->second);
        if (fitting.size() != 1) {
            PrvPrintErr({},
                        "The item in %s may be that of several nodes, so it goes to none. Remove it by hand",
                        file.path().c_str());
            continue;
        }
        const std::string apart = m_apart + ownerOf(*fitting.begin()) + '-' + Place::hash(*fitting.begin());
        mkdir(m_apart.c_str(), kFolderMode);
        if (link(file.path().c_str(), apart.c_str()) != 0)
            PrvPrintErr({}, "Taking over the item in %s failed: %s", file.path().c_str(), strerror(errno));
    }
    syncFolder(m_apart);
}
