// SPDX-License-Identifier: GPL-3.0-only
// The item cache: one file for each node, holding the newest item that nobody took.
#pragma once

#include <json-c/json.h>

#include <string>

// sic: the first segment of the name is dropped, so nodes that differ in it alone share one file.
void getFilePathFromNodeId(const std::string& node, std::string& path);
// Both replace the node's file as a unit; true once it is on the disk.
bool saveItemInCache(const std::string& node, json_object* item);
bool updateFile(const std::string& node, const std::string& text);
// The cached item, which the caller owns; null when there is none.
json_object* getItemFromCache(const std::string& node);
void deleteItemFromCache(const std::string& node);
