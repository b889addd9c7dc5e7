// SPDX-License-Identifier: GPL-3.0-only
// Damaged files: found when they are opened, set aside completely, and never in the way of a new one.
#include <sqlite3.h>
#include <sys/stat.h>

#include "platform/prefs/setaside.h"
#include "tests/unit/prefs/prefsfolder.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr int kKeys = 40;

std::string onlyValueOf(const std::filesystem::path& database, const char* query) {
    sqlite3* opened = nullptr;
    std::string value;
    sqlite3_open(database.c_str(), &opened);
    sqlite3_exec(
        opened, query,
        [](void* found, int, char** values, char**) {
            *static_cast<std::string*>(found) = values[0];
            return 0;
        },
        &value, nullptr);
    sqlite3_close(opened);
    return value;
}

class PrefsDamage : public PrefsFolderTest {
  protected:
    // A database with many pages, closed, so that all of it is in one file.
    std::string makeFile(std::size_t valueLength = 1000) {
        QPHandle* handle = nullptr;
        EXPECT_EQ(get(handle), QP_OK);
        for (int i = 0; i < kKeys; ++i)
            QPAppSetValue(handle, ("key" + std::to_string(i)).c_str(), std::string(valueLength, 'v').c_str());
        EXPECT_EQ(QPAppFreeHandle(handle, true), QP_OK);
        closePrefsStores();
        EXPECT_THAT(files(), ElementsAre("com.zelt.pubsubservice.db"));
        return read(file());
    }
    void expectFreshStore() {
        EXPECT_EQ(stored("key1"), "(1)");
        EXPECT_EQ(store("key1", "new"), QP_OK);
        closePrefsStores();
        EXPECT_EQ(stored("key1"), "new");
    }
    void expectSetAside(const std::string& bytes) {
        LogCapture log;
        write(file(), bytes);
        expectFreshStore();
        EXPECT_TRUE(read(file(".damaged-1")) == bytes) << "the old file must be kept as it was";
        EXPECT_THAT(log.texts(),
                    Contains("Preferences of com.zelt.pubsubservice: the file was damaged and begins "
                             "anew. The old one is kept as " +
                             file(".damaged-1").string()));
    }
};

}  // namespace

TEST_F(PrefsDamage, SetsAFileOfGarbageAside) {
    expectSetAside(std::string(5000, 'g'));
}

TEST_F(PrefsDamage, SetsAFileWithAGarbageHeaderAside) {
    std::string bytes = makeFile();
    bytes.replace(0, 100, std::string(100, '\x7f'));
    expectSetAside(bytes);
}

TEST_F(PrefsDamage, SetsATruncatedFileAside) {
    const std::string bytes = makeFile();
    expectSetAside(bytes.substr(0, bytes.size() / 2));
}

TEST_F(PrefsDamage, SetsAFileWithAGarbagePageAside) {
    std::string bytes = makeFile();
    bytes.replace(4096 * 3, 4096, std::string(4096, '\xff'));
    expectSetAside(bytes);
}

TEST_F(PrefsDamage, SetsADatabaseOfSomebodyElseAside) {
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "CREATE TABLE prefs(a,b,c);INSERT INTO prefs VALUES(1,2,3)", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(other);
    LogCapture log;
    expectFreshStore();
    EXPECT_EQ(onlyValueOf(file(".damaged-1"), "SELECT c FROM prefs"), "3");
}

TEST_F(PrefsDamage, TakesAnEmptyFileForAFreshOne) {
    LogCapture log;
    write(file(), "");
    EXPECT_EQ(store("key", "1"), QP_OK);
    EXPECT_EQ(stored("key"), "1");
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(PrefsDamage, NeverOverwritesAnEarlierDamagedFile) {
    LogCapture log;
    for (const char* bytes :
         {"first garbage, long enough to be no header", "second garbage", "third garbage"}) {
        write(file(), bytes);
        EXPECT_EQ(stored("key"), "(1)");
        closePrefsStores();
    }
    EXPECT_EQ(read(file(".damaged-1")), "first garbage, long enough to be no header");
    EXPECT_EQ(read(file(".damaged-2")), "second garbage");
    EXPECT_EQ(read(file(".damaged-3")), "third garbage");
}

TEST_F(PrefsDamage, MovesTheLogWithItsFile) {
    LogCapture log;
    write(file(), "garbage");
    write(file("-wal"), "log of the garbage");
    write(file("-shm"), "index");
    EXPECT_EQ(setDamagedFileAside(kApp, file()), file(".damaged-1").string());
    EXPECT_THAT(files(), ElementsAre("com.zelt.pubsubservice.db.damaged-1",
                                     "com.zelt.pubsubservice.db.damaged-1-wal"));
    EXPECT_EQ(read(file(".damaged-1-wal")), "log of the garbage");
}

TEST_F(PrefsDamage, LeavesANumberWhoseLogIsTaken) {
    LogCapture log;
    write(file(), "garbage");
    write(file(".damaged-1-wal"), "an earlier log");
    EXPECT_EQ(setDamagedFileAside(kApp, file()), file(".damaged-2").string());
    EXPECT_EQ(read(file(".damaged-1-wal")), "an earlier log");
}

TEST_F(PrefsDamage, SaysWhatToDoWhenTheFileCannotBeMoved) {
    LogCapture log;
    EXPECT_EQ(setDamagedFileAside(kApp, (folder() / "none.db").string()), "");
    EXPECT_THAT(log.texts(),
                ElementsAre("Preferences of com.zelt.pubsubservice: " + (folder() / "none.db").string() +
                            " is damaged and cannot be moved away: No such file or directory. Move it "
                            "away by hand"));
}

TEST_F(PrefsDamage, FoundWhileTheFileIsOpenIsSetAsideAtTheNextUse) {
    LogCapture log;
    makeFile(50000);  // far more than the engine keeps in memory
    QPHandle* handle = nullptr;
    ASSERT_EQ(get(handle), QP_OK);
    std::string bytes = read(file());
    for (std::size_t page = 1; page < bytes.size() / 4096; ++page)
        bytes.replace(page * 4096, 4096, std::string(4096, '\xff'));
    write(file(), bytes);
    char* copy = nullptr;
    int result = QP_OK;
    // What the engine still has in its cache reads well.
    for (int i = 0; i < kKeys && (result == QP_OK || result == QP_NOT_FOUND); ++i) {
        result = QPAppCopyValue(handle, ("key" + std::to_string(i)).c_str(), &copy);
        std::free(copy);
    }
    EXPECT_EQ(result, QP_CORRUPT);
    EXPECT_EQ(QPAppSetValue(handle, "key1", "new"), QP_OK);
    EXPECT_EQ(QPAppFreeHandle(handle, true), QP_OK) << "the handle works on with the fresh file";
    EXPECT_EQ(stored("key1"), "new");
    EXPECT_THAT(files(), Contains("com.zelt.pubsubservice.db.damaged-1"));
}

TEST_F(PrefsDamage, IsNotWhatANewerFormatIs) {
    makeFile();
    sqlite3* newer = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &newer), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(newer, "PRAGMA user_version=2", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(newer);
    LogCapture log;
    EXPECT_EQ(stored("key1"), "(3)");  // QP_IO
    EXPECT_THAT(log.texts(),
                ElementsAre("Preferences of com.zelt.pubsubservice: cannot open " + file().string() +
                            ": a newer release wrote it. Install the newer release again, or move the "
                            "file away"));
    EXPECT_THAT(files(), SizeIs(1));
}
