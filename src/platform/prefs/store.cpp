// SPDX-License-Identifier: GPL-3.0-only
// The store of one application over SQLite.
//
// The connection stays open between commits, so a commit costs one data sync and no opening. A connection
// whose transaction cannot be ended, or whose file turns out to be damaged, is closed; the next use opens
// and checks it again.
#include "platform/prefs/store.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/prefs/qp.h"
#include "platform/prefs/setaside.h"
#include "util/log.h"

namespace {

constexpr int kFormat = 1;      // PRAGMA user_version of the files that this source writes
constexpr int kBusyWait = 250;  // milliseconds: a commit of another process takes a few

constexpr char kSettings[] =
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=FULL;"
    "PRAGMA wal_autocheckpoint=256;"
    // More than 256 pages and their frame headers need. With less, every checkpoint truncates the log;
    // it then grows again with the next commits, and syncing a file that grew costs a write to the
    // file system's journal too.
    "PRAGMA journal_size_limit=4194304;"
    "PRAGMA cache_size=-256;"
    "PRAGMA trusted_schema=OFF;";
constexpr char kSchema[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS prefs(key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL) WITHOUT ROWID;"
    "PRAGMA user_version=1;"
    "COMMIT;";

// Resets a prepared statement at the end of its use, so that it holds no lock.
class Run {
  public:
    explicit Run(sqlite3_stmt* statement) : m_statement(statement) {}
    ~Run() {
        sqlite3_reset(m_statement);
        sqlite3_clear_bindings(m_statement);
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void bind(int index, const std::string& text) {
        sqlite3_bind_text(m_statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    }
    int step() { return sqlite3_step(m_statement); }
    std::string text(int column) const {
        const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(m_statement, column));
        return bytes ? std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(m_statement, column)))
                     : "";
    }

  private:
    sqlite3_stmt* m_statement;
};

int toOk(int stepped) {
    return stepped == SQLITE_DONE ? SQLITE_OK : stepped;
}

int toResult(int result) {
    switch (result & 0xff) {
        case SQLITE_OK:
        case SQLITE_ROW:
        case SQLITE_DONE:
            return QP_OK;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return QP_BUSY;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
        case SQLITE_ERROR:  // the statements are correct, so the file has other tables
            return QP_CORRUPT;
        case SQLITE_TOOBIG:
            return QP_BAD_ARGUMENT;
        default:
            return QP_IO;
    }
}

bool isDiskFull(int result, int systemError) {
    return (result & 0xff) == SQLITE_FULL || systemError == ENOSPC || systemError == EDQUOT ||
           systemError == EFBIG;
}

bool isNoPermission(int result, int systemError) {
    const int primary = result & 0xff;
    return primary == SQLITE_READONLY || primary == SQLITE_PERM || systemError == EACCES ||
           systemError == EPERM || systemError == EROFS || systemError == ENOENT || systemError == ENOTDIR;
}

std::string advice(int result, int systemError) {
    const std::string folder = prefsFolder();
    if (isDiskFull(result, systemError))
        return "Free some space under " + folder;
    if (isNoPermission(result, systemError))
        return "Make " + folder + " a folder that user id " + std::to_string(geteuid()) +
               " can write to, its files included";
    if (result == SQLITE_FORMAT)
        return "Install the newer release again, or move the file away";
    switch (toResult(result)) {
        case QP_BUSY:
            return "Another process holds the file: find out which has it open";
        case QP_CORRUPT:
            return "The file is damaged and will be set aside";
        case QP_BAD_ARGUMENT:
            return "The value is too long";
        default:
            return "Check the disk under " + folder;
    }
}

std::string reason(int result, int systemError) {
    const std::string text = result == SQLITE_FORMAT ? "a newer release wrote it" : sqlite3_errstr(result);
    return systemError == 0 ? text : text + " (" + strerror(systemError) + ')';
}

// The system error of a failed write or sync of the log is kept only with the log's file.
int logErrorOf(sqlite3* database) {
    sqlite3_file* log = nullptr;
    int systemError = 0;
    sqlite3_file_control(database, "main", SQLITE_FCNTL_JOURNAL_POINTER, &log);
    if (log && log->pMethods)
        log->pMethods->xFileControl(log, SQLITE_FCNTL_LAST_ERRNO, &systemError);
    return systemError;
}

// SQLite keeps the last system error; it explains this failure only if that is an I/O or open error.
int systemErrorOf(sqlite3* database, int result) {
    const int primary = result & 0xff;
    if (!database || (primary != SQLITE_IOERR && primary != SQLITE_CANTOPEN))
        return 0;
    const int systemError = sqlite3_system_errno(database);
    return systemError != 0 ? systemError : logErrorOf(database);
}

}  // namespace

PrefsStore::PrefsStore(std::string appId, std::string file)
    : m_appId(std::move(appId)), m_file(std::move(file)) {}

PrefsStore::~PrefsStore() {
    close();
}

int PrefsStore::open() {
    if (m_database)
        return QP_OK;
    int result = tryOpen();
    if (result == QP_CORRUPT && !setDamagedFileAside(m_appId, m_file).empty())
        result = tryOpen();
    return result;
}

void PrefsStore::close() {
    for (sqlite3_stmt** statement : {&m_read, &m_keys, &m_set, &m_remove, &m_begin, &m_commit})
        sqlite3_finalize(std::exchange(*statement, nullptr));
    sqlite3_close(std::exchange(m_database, nullptr));
}

int PrefsStore::tryOpen() {
    if (const int result = createFile())
        return result;
    int result =
        sqlite3_open_v2(m_file.c_str(), &m_database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (result == SQLITE_OK) {
        sqlite3_extended_result_codes(m_database, 1);
        sqlite3_busy_timeout(m_database, kBusyWait);
        result = execute(kSettings);
    }
    if (result == SQLITE_OK)
        result = quickCheck();
    if (result == SQLITE_OK)
        result = checkVersion();
    if (result == SQLITE_OK)
        result = prepareStatements();
    if (result == SQLITE_OK)
        return QP_OK;
    const int failed = failure("open", result);
    close();
    return failed;
}

// Created here rather than by SQLite, so that only the owner can read it; SQLite gives the -wal and -shm
// files the same mode.
int PrefsStore::createFile() {
    int descriptor = ::open(m_file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0 && errno == ENOENT) {
        makePrefsFolder(m_file.substr(0, m_file.rfind('/')));
        descriptor = ::open(m_file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    }
    if (descriptor >= 0) {
        ::close(descriptor);
        return QP_OK;
    }
    const int systemError = errno;
    PrvPrintErr("open", "Preferences of %s: cannot open %s: %s. %s", m_appId.c_str(), m_file.c_str(),
                strerror(systemError), advice(SQLITE_IOERR, systemError).c_str());
    return QP_IO;
}

int PrefsStore::quickCheck() {
    sqlite3_stmt* statement = nullptr;
    int result = sqlite3_prepare_v2(m_database, "PRAGMA quick_check(1)", -1, &statement, nullptr);
    if (result == SQLITE_OK) {
        Run check(statement);
        result = check.step();
        if (result == SQLITE_ROW)
            result = check.text(0) == "ok" ? SQLITE_OK : SQLITE_CORRUPT;
    }
    sqlite3_finalize(statement);
    return result;
}

int PrefsStore::checkVersion() {
    sqlite3_stmt* statement = nullptr;
    int format = 0;
    int result = sqlite3_prepare_v2(m_database, "PRAGMA user_version", -1, &statement, nullptr);
    if (result == SQLITE_OK && (result = sqlite3_step(statement)) == SQLITE_ROW) {
        format = sqlite3_column_int(statement, 0);
        result = SQLITE_OK;
    }
    sqlite3_finalize(statement);
    if (result != SQLITE_OK || format == kFormat)
        return result;
    return format == 0 ? execute(kSchema) : SQLITE_FORMAT;
}

int PrefsStore::prepareStatements() {
    const std::pair<sqlite3_stmt**, const char*> statements[] = {
        {&m_read, "SELECT value FROM prefs WHERE key=?1"},
        {&m_keys, "SELECT key FROM prefs"},
        // Writing the stored value again changes no page, and a commit without changed pages costs no sync.
        {&m_set,
         "INSERT INTO prefs VALUES(?1,?2) ON CONFLICT(key) DO UPDATE SET value=excluded.value"
         " WHERE value<>excluded.value"},
        {&m_remove, "DELETE FROM prefs WHERE key=?1"},
        {&m_begin, "BEGIN IMMEDIATE"},
        {&m_commit, "COMMIT"}};
    for (const auto& [statement, sql] : statements)
        if (const int result =
                sqlite3_prepare_v3(m_database, sql, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr))
            return result;
    return SQLITE_OK;
}

int PrefsStore::read(const std::string& key, std::string& value) {
    if (const int result = open())
        return result;
    int result;
    {
        Run read(m_read);
        read.bind(1, key);
        result = read.step();
        if (result == SQLITE_ROW)
            value = read.text(0);
    }
    if (result == SQLITE_DONE)
        return QP_NOT_FOUND;
    return result == SQLITE_ROW ? QP_OK : failure("read", result);
}

int PrefsStore::readKeys(std::set<std::string>& keys) {
    if (const int result = open())
        return result;
    int result;
    {
        Run list(m_keys);
        while ((result = list.step()) == SQLITE_ROW)
            keys.insert(list.text(0));
    }
    return result == SQLITE_DONE ? QP_OK : failure("list", result);
}

int PrefsStore::commit(const PrefsWrites& writes) {
    if (writes.empty())
        return QP_OK;
    if (const int result = open())
        return result;
    const int result = writeAll(writes);
    if (result == SQLITE_OK)
        return QP_OK;
    const int failed = failure("commit", result);
    if (m_database && !sqlite3_get_autocommit(m_database) && execute("ROLLBACK") != SQLITE_OK)
        close();
    return failed;
}

int PrefsStore::writeAll(const PrefsWrites& writes) {
    int result = run(m_begin);
    for (auto next = writes.begin(); result == SQLITE_OK && next != writes.end(); ++next)
        result = write(next->first, next->second);
    return result == SQLITE_OK ? run(m_commit) : result;
}

int PrefsStore::write(const std::string& key, const std::optional<std::string>& value) {
    Run change(value ? m_set : m_remove);
    change.bind(1, key);
    if (value)
        change.bind(2, *value);
    return toOk(change.step());
}

int PrefsStore::run(sqlite3_stmt* statement) {
    return toOk(Run(statement).step());
}

int PrefsStore::execute(const char* sql) {
    return sqlite3_exec(m_database, sql, nullptr, nullptr, nullptr);
}

int PrefsStore::failure(const char* doing, int result) {
    const int systemError = systemErrorOf(m_database, result);
    PrvPrintErr(doing, "Preferences of %s: cannot %s %s: %s. %s", m_appId.c_str(), doing, m_file.c_str(),
                reason(result, systemError).c_str(), advice(result, systemError).c_str());
    const int failed = toResult(result);
    if (failed == QP_CORRUPT)
        close();
    return failed;
}
