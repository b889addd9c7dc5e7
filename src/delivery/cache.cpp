// SPDX-License-Identifier: GPL-3.0-only
// Cached items: files in the cache folder, named after the node, which survive a restart until a client
// fetches the item. CacheFiles maps nodes to files.
//
// An item counts as cached, and is acknowledged, only when its file is on disk: the text is synced before the
// file is renamed over the old one, and the folder after that.
#include <glib.h>

#include <algorithm>
#include <memory>

#include "delivery/cachefiles.h"
#include "session/pubsubsession.h"
#include "util/jsonref.h"
#include "util/log.h"
#include "util/paths.h"

void PubSubSession::getFilePathFromNodeId(const std::string& node, std::string& path) {
    const std::size_t slash = node.find('/', 1);
    std::string name = slash == std::string::npos ? node : node.substr(slash + 1);
    std::replace(name.begin(), name.end(), '/', '-');
    path = cacheDir() + name;
}

bool PubSubSession::saveItemInCache(const std::string& node, json_object* item) {
    if (node.empty() || !item) {
        PrvPrintErr({}, "Invalid node or payload %s ", node.c_str());
        return false;
    }
    const char* text = json_object_to_json_string(item);
    if (!text) {
        PrvPrintErr({}, "String null - cache not updated");
        return false;
    }
    return updateFile(node, text);
}

bool PubSubSession::updateFile(const std::string& node, const std::string& text) {
    return CacheFiles::current().store(node, text);
}

json_object* PubSubSession::getItemFromCache(const std::string& node) {
    if (node.empty()) {
        PrvPrintErr({}, "Empty node passed %s ", node.c_str());
        return nullptr;
    }
    const std::string path = CacheFiles::current().find(node);
    gchar* text = nullptr;
    gsize length = 0;
    if (!path.empty())
        g_file_get_contents(path.c_str(), &text, &length, nullptr);
    const std::unique_ptr<gchar, decltype(&g_free)> owned(text, g_free);
    if (length == 0) {
        PrvPrintErr({}, "No content in the file? ");
        return nullptr;
    }
    JsonRef item = parseJson(text);
    if (!item)
        PrvPrintErr({}, "Malformed json packet in file? \n");
    return item.release();
}

bool PubSubSession::isCached(const std::string& node) {
    return !node.empty() && !CacheFiles::current().find(node).empty();
}

void PubSubSession::deleteItemFromCache(const std::string& node) {
    if (node.empty()) {
        PrvPrintErr({}, "Invalid node %s ", node.c_str());
        return;
    }
    CacheFiles::current().remove(node);
}
