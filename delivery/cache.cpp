// SPDX-License-Identifier: GPL-3.0-only
// Files under the cache folder, named for the node; they survive a restart, until a client fetches the item.
//
// An item counts as cached, and is acknowledged, only when its file is on the disk: the text is synced before
// the file takes the old one's name, and the folder after it.
#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "session/pubsubsession.h"
#include "util/jsonref.h"
#include "util/log.h"
#include "util/paths.h"

namespace {

constexpr int kFileMode = 0666;  // less the umask

struct FreeError {
    void operator()(GError* error) const { g_error_free(error); }
};

}  // namespace

void PubSubSession::getFilePathFromNodeId(const std::string& node, std::string& path) {
    const std::size_t slash = node.find('/', 1);
    std::string name = slash == std::string::npos ? node : node.substr(slash + 1);
    std::replace(name.begin(), name.end(), '/', '-');
    path = cacheDir() + name;
}

bool PubSubSession::saveItemInCache(const std::string& node, json_object* item) {
    if (node.empty() || !item) {
        PrvPrintErr(__func__, __LINE__, "Invalid node or payload %s ", node.c_str());
        return false;
    }
    const char* text = json_object_to_json_string(item);
    if (!text) {
        PrvPrintErr(__func__, __LINE__, "String null - cache not updated");
        return false;
    }
    return updateFile(node, text);
}

bool PubSubSession::updateFile(const std::string& node, const std::string& text) {
    std::string path;
    getFilePathFromNodeId(node, path);
    GError* error = nullptr;
    // Durable: this file and its folder reach the disk, without waiting for what the rest of the system has
    // to write.
    const auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    if (g_file_set_contents_full(path.c_str(), text.data(), static_cast<gssize>(text.size()), flags,
                                 kFileMode, &error))
        return true;
    const std::unique_ptr<GError, FreeError> owned(error);
    PrvPrintErr(__func__, __LINE__, "Error saving item to cache %s", owned->message);
    return false;
}

json_object* PubSubSession::getItemFromCache(const std::string& node) {
    if (node.empty()) {
        PrvPrintErr(__func__, __LINE__, "Empty node passed %s ", node.c_str());
        return nullptr;
    }
    std::string path;
    getFilePathFromNodeId(node, path);
    gchar* text = nullptr;
    gsize length = 0;
    g_file_get_contents(path.c_str(), &text, &length, nullptr);
    const std::unique_ptr<gchar, decltype(&g_free)> owned(text, g_free);
    if (length == 0) {
        PrvPrintErr(__func__, __LINE__, "No content in the file? ");
        return nullptr;
    }
    JsonRef item = parseJson(text);
    if (!item)
        PrvPrintErr(__func__, __LINE__, "Malformed json packet in file? \n");
    return item.release();
}

void PubSubSession::deleteItemFromCache(const std::string& node) {
    if (node.empty()) {
        PrvPrintErr(__func__, __LINE__, "Invalid node %s ", node.c_str());
        return;
    }
    std::string path;
    getFilePathFromNodeId(node, path);
    // Never remove(): a node whose file name is empty would take the folder itself.
    unlink(path.c_str());
}
