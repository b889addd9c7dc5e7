// SPDX-License-Identifier: GPL-3.0-only
// Maps each node to the file with its cached item, and bounds the number of files.
//
// State on disk: the cache folder, with files named after nodes, and beside it the folder "cache.nodes".
// Different nodes can give the same file name. A file that is only in the cache folder belongs to the node
// that its name and content say, see cachefiles.cpp. The item of any other node is in cache.nodes, under a
// hash of the node's name, and has a second link in the cache folder when the name is free there.
#pragma once

#include <sys/stat.h>

#include <map>
#include <set>
#include <string>

#include "util/log.h"

class CacheFiles {
  public:
    // The files of the current state folder, including changes that other programs made.
    static CacheFiles& current();

    // The file with the node's item; "" when there is none.
    std::string find(const std::string& node) const;
    // Replaces the node's item atomically; true once it is on disk. Logs a failure.
    bool store(const std::string& node, const std::string& text, CallSite site = {});
    void remove(const std::string& node);

  private:
    struct Place;
    struct Count {
        std::size_t files = 0;
        std::size_t bytes = 0;
    };
    struct File {
        std::string owner;
        std::size_t bytes = 0;
    };

    bool hasRoom(const Place& place, const std::string& path, std::size_t bytes) const;
    bool storeApart(const Place& place, const std::string& text, CallSite site);
    void removeSecondLink(const Place& place) const;
    void refresh();
    void scan();
    void scanCacheFolder();
    void takeOver();
    void enter(const std::string& path, const std::string& owner, std::size_t bytes);
    void forget(const std::string& path);
    void noteChange();

    std::string m_folder;
    std::string m_apart;
    std::string m_resource;  // the device's resource when the files were listed
    timespec m_folderTime = {};
    timespec m_apartTime = {};
    bool m_takenOver = false;
    std::map<std::string, File> m_files;    // by path; without second links
    std::map<std::string, Count> m_owners;  // by application, "" for all nodes without one
    Count m_all;
};
