// SPDX-License-Identifier: GPL-3.0-only
// The item cache in a folder of its own, and nodes of the device whose names give the same file name.
#pragma once

#include <filesystem>
#include <string>

#include "tests/fakes/servicefixture.h"
#include "util/jsonref.h"

class Cache : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        std::filesystem::create_directory(folder());
    }
    std::filesystem::path folder() const { return stateFolder() / "cache"; }
    std::string pathOf(const std::string& node) const {
        std::string path;
        PubSubSession::getFilePathFromNodeId(node, path);
        return path;
    }
    std::size_t files() const {
        const std::filesystem::directory_iterator all(folder());
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }
    bool save(const std::string& node, const std::string& item) {
        return PubSubSession::saveItemInCache(node, parseJson(item.c_str()).get());
    }
    std::string cached(const std::string& node) {
        const JsonRef item(PubSubSession::getItemFromCache(node));
        return item ? json_object_to_json_string(item.get()) : "none";
    }
};

class SharedName : public Cache {
  protected:
    void SetUp() override {
        Cache::SetUp();
        setAccountDetails();
    }
    static std::string item(const std::string& text, const std::string& endpoint) {
        return R"({ "item": ")" + text + R"(", "endpoint": ")" + endpoint + R"(", "returnValue": true })";
    }
    bool saveItem(const std::string& node, const std::string& text) {
        return save(node, item(text, node.substr(node.rfind('/') + 1)));
    }
    std::string textOf(const std::string& node) {
        const JsonRef cachedItem(PubSubSession::getItemFromCache(node));
        json_object* text = jsonMember(cachedItem.get(), "item");
        return text ? json_object_get_string(text) : "none";
    }
    std::filesystem::path apart() const { return stateFolder() / "cache.nodes"; }
    std::size_t filesApart() const {
        if (!std::filesystem::exists(apart()))
            return 0;
        const std::filesystem::directory_iterator all(apart());
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }
    // The process starts again and reads the cache as files of an earlier one. The folder moves, because what
    // is known of its files belongs to the process, which the tests share.
    void startWithTheseFiles() {
        restartService();
        const std::filesystem::path state = stateFolder() / "next";
        std::filesystem::create_directories(state);
        for (const char* name : {"cache", "cache.nodes"})
            if (std::filesystem::exists(stateFolder() / name))
                std::filesystem::rename(stateFolder() / name, state / name);
        setenv("PUBSUB_STATE_DIR", state.c_str(), 1);
        setAccountDetails();
    }
    void recordNode(const std::string& node, const std::string& appId) {
        EXPECT_TRUE(session().addNodeToDeleteStore(node, appId));
    }

    const std::string kBank = "/u1234/dev42/com.example.bank/app-alerts";
    const std::string kBankApp = "/u1234/dev42/com.example.bank-app/alerts";
    const std::string kBankSlash = "/u1234/dev42/com.example.bank/app/alerts";
    const std::string kFile = "dev42-com.example.bank-app-alerts";
};
