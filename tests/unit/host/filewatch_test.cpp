// SPDX-License-Identifier: GPL-3.0-only
// A file that is written, replaced and removed.
#include "platform/host/filewatch.h"

#include "tests/unit/host/caller.h"
#include "tests/unit/host/privatebus.h"

namespace {

class WatchedFile : public testing::Test {
  protected:
    WatchedFile() { watch.open(); }
    // One more report, and no further one.
    void expectReport() {
        reports = 0;
        EXPECT_TRUE(Caller::waitFor([&] { return reports > 0; }));
    }
    bool noReport() {
        reports = 0;
        return !Caller::waitFor([&] { return reports > 0; }, 100);
    }

    TestFolder folder;
    int reports = 0;
    FileWatch watch{folder / "account.json", [this] { reports++; }};
};

TEST_F(WatchedFile, IsReportedWhenItIsWrittenReplacedOrRemoved) {
    std::ofstream(folder / "account.json") << "{}";
    expectReport();
    std::ofstream(folder / "new") << "{}";
    EXPECT_TRUE(noReport()) << "another file of the folder";
    std::filesystem::rename(folder / "new", folder / "account.json");
    expectReport();
    std::filesystem::remove(folder / "account.json");
    expectReport();
}

TEST_F(WatchedFile, IsReportedWhenTheKernelHasDroppedNotices) {
    int longest = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> longest;
    ASSERT_GT(longest, 0);
    // Two files in turn, since the kernel drops a notice that is the same as the one before.
    for (int i = 0; i <= longest; ++i)
        std::ofstream(folder / (i % 2 == 0 ? "a" : "b")) << "";
    std::ofstream(folder / "account.json") << "{}";
    expectReport();
}

TEST(WatchedFolder, ThatIsMissingIsLoggedOnly) {
    int reports = 0;
    FileWatch watch("/nowhere/account.json", [&] { reports++; });
    testing::internal::CaptureStderr();
    watch.open();
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        "zelt-host: cannot watch /nowhere/account.json: No such file or directory; its changes are noticed "
        "when it is read again\n");
}

}  // namespace
