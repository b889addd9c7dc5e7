// SPDX-License-Identifier: GPL-3.0-only
// From a connection's credentials to an application id, on processes of this machine: the test itself
// and its children.
#include "platform/bus/identity.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "tests/faults/failingreads.h"

namespace {

BusCredentials ownCredentials() {
    BusCredentials who;
    who.pid = static_cast<unsigned>(getpid());
    who.user = geteuid();
    return who;
}

class Identity : public testing::Test {
  protected:
    void TearDown() override {
        for (const char* variable :
             {"ZELT_APP_ID_FROM_ENVIRONMENT", "ZELT_APP_ID_USERS", "ZELT_APP_ID_TRUST_USER_UNITS",
              "ZELT_APP_ID_LABEL_PREFIX", "ZELT_APP_ID_OF_USERS"})
            unsetenv(variable);
    }
};

TEST_F(Identity, IsNoneWhenTheProcessIsReapedBetweenOpenAndRead) {
    setenv("ZELT_APP_ID_FROM_ENVIRONMENT", "1", 1);
    setenv("ZELT_APP_ID_TRUST_USER_UNITS", "1", 1);
    for (size_t bytes : {0, 1, 10}) {
        FailingReads reads("/proc/", ESRCH, bytes);
        EXPECT_EQ(busApplicationId(ownCredentials()), "") << bytes;
        EXPECT_GT(reads.failures(), 0u) << bytes;
    }
}

// A child that has the id in its environment and sleeps.
pid_t startNamed(const char* id) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::string entry = std::string("ZELT_APP_ID=") + id;
        char* environment[] = {entry.data(), nullptr};
        execle("/bin/sleep", "sleep", "1000", nullptr, environment);
        _exit(1);
    }
    close(ready[1]);
    char byte;
    (void)!read(ready[0], &byte, 1);  // ends with the exec
    close(ready[0]);
    return pid;
}

void endAndReap(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

BusCredentials credentialsOf(pid_t pid) {
    BusCredentials who = ownCredentials();
    who.pid = static_cast<unsigned>(pid);
    return who;
}

TEST_F(Identity, OfAProcessIsItsOwn) {
    setenv("ZELT_APP_ID_FROM_ENVIRONMENT", "1", 1);
    pid_t pid = startNamed("com.example.app");
    EXPECT_EQ(busApplicationId(credentialsOf(pid)), "com.example.app " + std::to_string(pid));
    endAndReap(pid);
}

TEST_F(Identity, IsNoneWhenTheProcessIdIsAnotherUsersByNow) {
    setenv("ZELT_APP_ID_FROM_ENVIRONMENT", "1", 1);
    pid_t pid = startNamed("com.example.app");
    BusCredentials who = credentialsOf(pid);
    who.user++;
    EXPECT_EQ(busApplicationId(who), "");
    endAndReap(pid);
}

TEST_F(Identity, IsNoneWhenTheProcessEndsWhileItIsRead) {
    setenv("ZELT_APP_ID_FROM_ENVIRONMENT", "1", 1);
    pid_t pid = startNamed("com.example.app");
    bool ended = false;
    AfterRead reaper("/proc/" + std::to_string(pid) + "/environ", [&] {
        endAndReap(pid);
        ended = true;
    });
    EXPECT_EQ(busApplicationId(credentialsOf(pid)), "");
    EXPECT_TRUE(ended);
}

TEST_F(Identity, IsNoneForAProcessThatHasEndedAndIsNotReaped) {
    setenv("ZELT_APP_ID_TRUST_USER_UNITS", "1", 1);
    pid_t pid = startNamed("com.example.app");
    kill(pid, SIGKILL);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(busProcessMark(static_cast<unsigned>(pid)), "");
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(busProcessMark(static_cast<unsigned>(pid)), "");
}

TEST_F(Identity, MarkOfAProcessIsTheSameUntilItEndsAndAnothersDiffers) {
    pid_t first = startNamed("a");
    std::string mark = busProcessMark(static_cast<unsigned>(first));
    EXPECT_NE(mark, "");
    EXPECT_EQ(busProcessMark(static_cast<unsigned>(first)), mark);
    usleep(20000);  // the kernel counts starts in hundredths of a second
    pid_t third = startNamed("c");
    EXPECT_NE(busProcessMark(static_cast<unsigned>(third)), mark);
    for (pid_t pid : {first, third})
        endAndReap(pid);
}

TEST_F(Identity, IsTheUserForAProcessOfALoginUserWhereThatIsSwitchedOn) {
    BusCredentials who = ownCredentials();
    const std::string pid = " " + std::to_string(who.pid);
    for (const auto& [user, id] : {std::pair{1000u, "@1000" + pid},
                                   {60'001u, "@60001" + pid},
                                   {999u, std::string()},
                                   {0u, std::string()},
                                   {65'534u, std::string()},
                                   {static_cast<unsigned>(-1), std::string()}}) {
        who.user = user;
        EXPECT_EQ(busApplicationId(who), "");
        setenv("ZELT_APP_ID_OF_USERS", "1", 1);
        EXPECT_EQ(busApplicationId(who), id) << user;
        setenv("ZELT_APP_ID_OF_USERS", "yes", 1);
        EXPECT_EQ(busApplicationId(who), "");
    }
}

TEST_F(Identity, OfAnApplicationComesBeforeThatOfItsUser) {
    setenv("ZELT_APP_ID_OF_USERS", "1", 1);
    setenv("ZELT_APP_ID_LABEL_PREFIX", "zelt::", 1);
    BusCredentials who = ownCredentials();
    who.user = 1000;
    who.label = "zelt::com.example.app";
    EXPECT_EQ(busApplicationId(who), "com.example.app " + std::to_string(who.pid));
    who.label = "zelt::@1001";
    EXPECT_EQ(busApplicationId(who), "@1000 " + std::to_string(who.pid)) << "\"@\" is legal in no other id";
}

TEST_F(Identity, IsNoneWhenTheTableOfUsersCannotBeRead) {
    std::string folder = "/tmp";
    setenv("ZELT_APP_ID_USERS", folder.c_str(), 1);  // opens, but is no file
    EXPECT_EQ(busApplicationId(ownCredentials()), "");
}

}  // namespace
