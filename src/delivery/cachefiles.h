// SPDX-License-Identifier: GPL-3.0-only
// Which file holds the waiting item of a node, and how many there may be.
//
// State on disk: the cache folder, with one file under the name that a node's name gives, and beside it
// "cache.nodes". Nodes whose names differ after the first segment can give one file name. A file of the cache
// folder alone belongs to the node that its name and its content name, see cachefiles.cpp; every other node's
// item stands in cache.nodes, under a hash of the node's name, and has a second link in the cache folder as
// long as the name is free there.
#pragma once

#include <sys/stat.h>

#include <map>
#include <set>
#include <string>

#include "util/log.h"

class CacheFiles {
  public:
    // The files of the state folder of now. What somebody else added or removed is taken into account.
    static CacheFiles& current();

    // The file with the node's item; "" when there is none.
    std::string find(const std::string& node) const;
    // Replaces the node's item as a unit; true once it is on the disk. A failure is logged under `function`.
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
    std::string m_resource;  // of the device, when the files were looked at
    timespec m_folderTime = {};
    timespec m_apartTime = {};
    bool m_takenOver = false;
    std::map<std::string, File> m_files;    // by path; second links are not among them
    std::map<std::string, Count> m_owners;  // by application, "" for all nodes that are no application's
    Count m_all;
};
