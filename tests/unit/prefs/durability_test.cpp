// SPDX-License-Identifier: GPL-3.0-only
// A process that is killed while it commits loses nothing that was reported as stored, and no commit
// is partly stored.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/unit/prefs/prefsfolder.h"

namespace {

constexpr int kKills = 5;
constexpr int kCommitsAKill = 80;

class PrefsDurability : public PrefsFolderTest {
  protected:
    // Commits one number after the other under two keys; each that is stored goes to the pipe.
    [[noreturn]] static void commitForEver(int from, int acknowledge) {
        for (int number = from;; ++number) {
            QPHandle* handle = nullptr;
            const std::string text = std::to_string(number);
            if (get(handle) || QPAppSetValue(handle, "number", text.c_str()) ||
                QPAppSetValue(handle, "twin", text.c_str()) || QPAppFreeHandle(handle, true) ||
                ::write(acknowledge, &number, sizeof number) != sizeof number)
                _exit(1);
        }
    }
    // Runs a child until it has stored so many numbers, kills it, and returns the last one
    // that it acknowledged.
    static int runAndKill(int from) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            close(ends[0]);
            commitForEver(from, ends[1]);
        }
        close(ends[1]);
        int last = from - 1;
        int number = 0;
        while (last < from + kCommitsAKill && ::read(ends[0], &number, sizeof number) == sizeof number)
            last = number;
        kill(child, SIGKILL);
        while (::read(ends[0], &number, sizeof number) == sizeof number)
            last = number;
        close(ends[0]);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status)) << "the child failed to commit";
        return last;
    }
};

}  // namespace

TEST_F(PrefsDurability, NothingAcknowledgedIsLostByAKill) {
    int acknowledged = 0;
    for (int kills = 0; kills < kKills; ++kills) {
        acknowledged = runAndKill(acknowledged + 1);
        const int found = std::atoi(stored("number").c_str());
        EXPECT_GE(found, acknowledged);
        EXPECT_LE(found, acknowledged + 1) << "at most one commit was under way";
        EXPECT_EQ(stored("twin"), stored("number"));
        closePrefsStores();  // the next child opens the files itself
        acknowledged = found;
    }
    EXPECT_GE(acknowledged, kKills * kCommitsAKill);
}
