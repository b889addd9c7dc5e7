// SPDX-License-Identifier: GPL-3.0-only
// A preferences folder for one test, short functions to write and read in it, and a capture of the log.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/prefs/qp.h"
#include "platform/prefs/store.h"
#include "tests/fakes/logcapture.h"

class PrefsFolderTest : public ::testing::Test {
  protected:
    static constexpr const char* kApp = "com.zelt.pubsubservice";

    void SetUp() override {
        std::string name = (std::filesystem::temp_directory_path() / "prefs-XXXXXX").string();
        m_folder = mkdtemp(name.data());
        setenv("ZELT_PREFS_DIR", m_folder.c_str(), 1);
    }
    void TearDown() override {
        closePrefsStores();
        std::filesystem::remove_all(m_folder);
    }

    const std::filesystem::path& folder() const { return m_folder; }
    std::filesystem::path file(const std::string& ending = "") const {
        return m_folder / (std::string(kApp) + ".db" + ending);
    }
    static int get(QPHandle*& handle) { return QPAppGetHandle(kApp, &handle); }
    // Set and commit; the first result that is not QP_OK.
    static int store(const std::string& key, const std::string& value) {
        QPHandle* handle = nullptr;
        if (const int result = get(handle))
            return result;
        if (const int result = QPAppSetValue(handle, key.c_str(), value.c_str()))
            return result;
        return QPAppFreeHandle(handle, true);
    }
    // The value, or "(RESULT)" when there is none.
    static std::string stored(const std::string& key) {
        QPHandle* handle = nullptr;
        if (const int result = get(handle))
            return '(' + std::to_string(result) + ')';
        char* copy = nullptr;
        const int result = QPAppCopyValue(handle, key.c_str(), &copy);
        const std::string text = copy ? copy : '(' + std::to_string(result) + ')';
        std::free(copy);
        QPAppFreeHandle(handle, false);
        return text;
    }
    static void write(const std::filesystem::path& path, const std::string& bytes) {
        std::ofstream(path, std::ios::binary) << bytes;
    }
    static std::string read(const std::filesystem::path& path) {
        std::ostringstream bytes;
        bytes << std::ifstream(path, std::ios::binary).rdbuf();
        return bytes.str();
    }
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    std::filesystem::path m_folder;
};
