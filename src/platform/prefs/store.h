// SPDX-License-Identifier: GPL-3.0-only
// The store of one application: one SQLite database with write-ahead logging, open while the process runs.
//
// State on disk: FOLDER/ID.db with its -wal and -shm files, table prefs(key, value). A commit is one
// transaction and one data sync; once it has succeeded, it survives a kill and a power failure. Results are
// those of QPResult; a function that fails has logged the reason and a remedy.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

// Buffered writes by key; without a value the key is removed.
using PrefsWrites = std::map<std::string, std::optional<std::string>>;

class PrefsStore {
  public:
    PrefsStore(std::string appId, std::string file);
    ~PrefsStore();
    PrefsStore(const PrefsStore&) = delete;
    PrefsStore& operator=(const PrefsStore&) = delete;

    // Opens the database unless it is open; a damaged one is set aside and a new one created.
    int open();
    // QP_NOT_FOUND when there is no such key.
    int read(const std::string& key, std::string& value);
    int readKeys(std::set<std::string>& keys);
    // Writes all of it or nothing. Values that equal the stored ones are not written and cost no sync.
    int commit(const PrefsWrites& writes);
    // The next use opens the database again.
    void close();

  private:
    int tryOpen();
    int createFile();
    int checkVersion();
    int quickCheck();
    int prepareStatements();
    int writeAll(const PrefsWrites& writes);
    int write(const std::string& key, const std::optional<std::string>& value);
    int run(sqlite3_stmt* statement);
    int execute(const char* sql);
    int failure(const char* doing, int result);

    std::string m_appId;
    std::string m_file;
    sqlite3* m_database = nullptr;
    sqlite3_stmt* m_read = nullptr;
    sqlite3_stmt* m_keys = nullptr;
    sqlite3_stmt* m_set = nullptr;
    sqlite3_stmt* m_remove = nullptr;
    sqlite3_stmt* m_begin = nullptr;
    sqlite3_stmt* m_commit = nullptr;
};

// Whether this is an application id short enough for the file names of its store: at most 200 bytes.
bool isPrefsAppId(const char* appId);
// ZELT_PREFS_DIR, or /var/lib/zelt/prefs.
std::string prefsFolder();
// Creates the folder, accessible to its owner only, and missing folders above it. A failure shows when a file
// in it cannot be opened.
void makePrefsFolder(const std::string& folder);
// The store of an application, created at its first use and kept until the process ends.
PrefsStore& prefsStoreOf(const std::string& appId);
// Closes every database, as at the end of the process. Handles stay valid: their next use opens it again.
void closePrefsStores();
