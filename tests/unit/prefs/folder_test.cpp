// SPDX-License-Identifier: GPL-3.0-only
// The folder and the files in it: who may read them, and what is said when they cannot be written.
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/unit/prefs/prefsfolder.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

constexpr uid_t kNobody = 65534;

unsigned modeOf(const std::filesystem::path& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class PrefsFolder : public PrefsFolderTest {
  protected:
    // The result of a use of the store as a user without privileges; its log text comes back too.
    static int asOrdinaryUser(int (*use)(), std::string& text) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            if (geteuid() == 0 && (setgroups(0, nullptr) || setgid(kNobody) || setuid(kNobody)))
                _exit(99);
            LogCapture log;
            const int result = use();
            const std::string said = log.texts().empty() ? "" : log.texts().back();
            _exit(::write(ends[1], said.data(), said.size()) < 0 ? 98 : result);
        }
        close(ends[1]);
        char said[1024];
        const ssize_t length = ::read(ends[0], said, sizeof said);
        close(ends[0]);
        text.assign(said, length > 0 ? static_cast<std::size_t>(length) : 0);
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

}  // namespace

TEST_F(PrefsFolder, IsMadeForItsOwnerAlone) {
    const auto deep = folder() / "var" / "lib" / "prefs";
    setenv("ZELT_PREFS_DIR", deep.c_str(), 1);
    ASSERT_EQ(store("key", "1"), QP_OK);
    EXPECT_EQ(modeOf(deep), 0700u);
    EXPECT_EQ(modeOf(deep.parent_path()), 0755u);
    for (const char* ending : {"", "-wal", "-shm"})
        EXPECT_EQ(modeOf(deep / (std::string(kApp) + ".db" + ending)), 0600u) << ending;
}

TEST_F(PrefsFolder, IsTheBuiltInOneWithoutTheVariable) {
    unsetenv("ZELT_PREFS_DIR");
    EXPECT_EQ(prefsFolder(), "/var/lib/zelt/prefs");
    setenv("ZELT_PREFS_DIR", "", 1);
    EXPECT_EQ(prefsFolder(), "/var/lib/zelt/prefs");
}

TEST_F(PrefsFolder, HoldsOneFileForEachApplication) {
    for (const char* app : {"com.zelt.pubsubservice", "pubsubservice.offlineMap"}) {
        QPHandle* handle = nullptr;
        ASSERT_EQ(QPAppGetHandle(app, &handle), QP_OK);
        QPAppFreeHandle(handle, true);
    }
    closePrefsStores();
    EXPECT_THAT(files(), ElementsAre("com.zelt.pubsubservice.db", "pubsubservice.offlineMap.db"));
}

TEST_F(PrefsFolder, ThatCannotBeWrittenRefusesAHandleAndSaysWhatToDo) {
    std::filesystem::permissions(folder(), std::filesystem::perms(0555));
    std::string said;
    const int result = asOrdinaryUser(
        [] {
            QPHandle* handle = nullptr;
            const int got = get(handle);
            return handle ? 97 : got;
        },
        said);
    std::filesystem::permissions(folder(), std::filesystem::perms(0700));
    EXPECT_EQ(result, QP_IO);
    EXPECT_THAT(said, HasSubstr("cannot open " + file().string() + ": Permission denied. Make " +
                                folder().string() + " a folder that user id "));
}

TEST_F(PrefsFolder, ThatIsAFileRefusesAHandle) {
    write(folder() / "file", "");
    setenv("ZELT_PREFS_DIR", (folder() / "file").c_str(), 1);
    LogCapture log;
    QPHandle* handle = nullptr;
    EXPECT_EQ(get(handle), QP_IO);
    EXPECT_EQ(handle, nullptr);
    EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("Not a directory. Make " + (folder() / "file").string())));
}

TEST_F(PrefsFolder, ThatComesLaterIsUsed) {
    write(folder() / "late", "");
    setenv("ZELT_PREFS_DIR", (folder() / "late").c_str(), 1);
    {
        LogCapture log;
        EXPECT_EQ(store("key", "1"), QP_IO);
    }
    std::filesystem::remove(folder() / "late");
    EXPECT_EQ(store("key", "1"), QP_OK);
    EXPECT_EQ(stored("key"), "1");
}

TEST_F(PrefsFolder, IsNeverLeftByAnId) {
    LogCapture log;
    QPHandle* handle = nullptr;
    for (const char* id : {"../x", "", "a/../../x", ".."})
        EXPECT_EQ(QPAppGetHandle(id, &handle), QP_BAD_ARGUMENT);
    EXPECT_THAT(files(), IsEmpty());
    EXPECT_EQ(log.texts()[0],
              "Preferences of \"../x\": an application id is 1 to 200 letters, digits, '.', '_' and '-', and "
              "does not "
              "begin with '.'");
}
