// SPDX-License-Identifier: GPL-3.0-only
// What a commit costs, and what it leaves when it fails.
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include "tests/unit/prefs/prefsfolder.h"
#include "tests/unit/prefs/syscalls.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

// No file of this process can grow beyond `bytes` while this lives, as on a full disk.
class FullDisk {
  public:
    explicit FullDisk(rlim_t bytes) {
        m_handler = signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_before);
        rlimit limit = m_before;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() {
        setrlimit(RLIMIT_FSIZE, &m_before);
        signal(SIGXFSZ, m_handler);
    }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

  private:
    rlimit m_before{};
    sighandler_t m_handler = SIG_DFL;
};

class PrefsCommit : public PrefsFolderTest {
  protected:
    void SetUp() override {
        PrefsFolderTest::SetUp();
        ASSERT_EQ(store("key", "0"), QP_OK);
        syncs() = {};
    }
    int changeLater(const std::string& value) {
        QPHandle* handle = nullptr;
        EXPECT_EQ(get(handle), QP_OK);
        EXPECT_EQ(QPAppSetValue(handle, "key", value.c_str()), QP_OK);
        return QPAppFreeHandle(handle, true);
    }
};

}  // namespace

TEST_F(PrefsCommit, CostsOneSync) {
    EXPECT_EQ(store("key", "1"), QP_OK);
    EXPECT_EQ(syncs().count, 1);
}

TEST_F(PrefsCommit, OfManyWritesCostsOneSyncToo) {
    QPHandle* handle = nullptr;
    ASSERT_EQ(get(handle), QP_OK);
    for (int i = 0; i < 50; ++i)
        QPAppSetValue(handle, ("key" + std::to_string(i)).c_str(), "value");
    EXPECT_EQ(QPAppFreeHandle(handle, true), QP_OK);
    EXPECT_EQ(syncs().count, 1);
}

TEST_F(PrefsCommit, OfEqualWritesCostsNoSync) {
    const std::string before = read(file("-wal"));
    EXPECT_EQ(store("key", "0"), QP_OK);
    EXPECT_EQ(syncs().count, 0);
    EXPECT_EQ(read(file("-wal")), before);
}

TEST_F(PrefsCommit, OfAWriteThatIsTakenBackCostsNoSync) {
    QPHandle* handle = nullptr;
    ASSERT_EQ(get(handle), QP_OK);
    QPAppSetValue(handle, "new", "1");
    QPAppRemoveValue(handle, "new");
    EXPECT_EQ(QPAppFreeHandle(handle, true), QP_OK);
    EXPECT_EQ(syncs().count, 0);
}

TEST_F(PrefsCommit, ReadsAndDropsCostNoSync) {
    QPHandle* handle = nullptr;
    ASSERT_EQ(get(handle), QP_OK);
    QPAppSetValue(handle, "key", "1");
    json_object* keys = nullptr;
    EXPECT_EQ(QPAppCopyKeysCJ(handle, &keys), QP_OK);
    json_object_put(keys);
    EXPECT_EQ(QPAppFreeHandle(handle, false), QP_OK);
    EXPECT_EQ(stored("key"), "0");
    EXPECT_EQ(syncs().count, 0);
}

TEST_F(PrefsCommit, KeepsTheLogSmall) {
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(store("key", std::to_string(i)), QP_OK);
    EXPECT_LE(std::filesystem::file_size(file("-wal")), 2u << 20);
    EXPECT_LE(syncs().count, 1000 + 2 * 20) << "copying the log back is rare";
}

TEST_F(PrefsCommit, FailsOnAFullDiskAndRecoversWhenThereIsRoom) {
    LogCapture log;
    {
        FullDisk full(std::filesystem::file_size(file("-wal")));
        EXPECT_EQ(store("key", "lost"), QP_IO);
        EXPECT_EQ(stored("key"), "0");
    }
    ASSERT_EQ(log.texts().size(), 1u) << log.raw();
    EXPECT_THAT(log.texts()[0], HasSubstr("cannot commit " + file().string()));
    EXPECT_THAT(log.texts()[0], EndsWith("Free some space under " + folder().string()));
    EXPECT_EQ(store("key", "kept"), QP_OK);
    closePrefsStores();
    EXPECT_EQ(stored("key"), "kept");
}

TEST_F(PrefsCommit, FailsWhenTheDiskFailsAndRecovers) {
    LogCapture log;
    syncs().failNext = 1;
    EXPECT_EQ(store("key", "lost"), QP_IO);
    EXPECT_THAT(log.takeTexts(), ElementsAre(EndsWith("Check the disk under " + folder().string())));
    EXPECT_EQ(store("key", "kept"), QP_OK);
    EXPECT_EQ(stored("key"), "kept");
    EXPECT_THAT(log.takeTexts(), IsEmpty());
}

TEST_F(PrefsCommit, FailsWhileAnotherProcessWritesAndRecovers) {
    LogCapture log;
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(store("key", "lost"), QP_BUSY);
    EXPECT_THAT(log.takeTexts(), ElementsAre(HasSubstr("Another process holds the file")));
    EXPECT_EQ(stored("key"), "0") << "reading goes on";
    sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
    EXPECT_EQ(store("key", "kept"), QP_OK);
    sqlite3_close(other);
}

TEST_F(PrefsCommit, IsAllOrNothing) {
    QPHandle* handle = nullptr;
    ASSERT_EQ(get(handle), QP_OK);
    QPAppSetValue(handle, "a", "1");
    QPAppSetValue(handle, "b", std::string(100000, 'x').c_str());
    {
        LogCapture log;
        FullDisk full(std::filesystem::file_size(file("-wal")) + 8192);
        EXPECT_EQ(QPAppFreeHandle(handle, true), QP_IO);
    }
    EXPECT_EQ(stored("a"), "(1)");
    EXPECT_EQ(stored("b"), "(1)");
}
