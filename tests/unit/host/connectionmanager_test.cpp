// SPDX-License-Identifier: GPL-3.0-only
// The connection manager on a real bus; changes come from the kernel, in a network namespace of the test
// where one may be created.
#include "platform/host/connectionmanager.h"

#include <glib-unix.h>
#include <gmock/gmock.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>

#include "platform/host/netlink.h"
#include "tests/unit/host/caller.h"
#include "tests/unit/host/privatebus.h"

namespace {

using testing::ElementsAre;

constexpr char kGetStatus[] = "quor://com.zelt.connectionmanager/getstatus";
constexpr char kOnLoopback[] = R"({"returnValue":true,"isInternetConnectionAvailable":true,)"
                               R"("wifi":{"state":"connected","ipAddress":"127.0.0.1"},)"
                               R"("wan":{"state":"disconnected","ipAddress":""}})";
constexpr char kBehindPortal[] = R"({"returnValue":true,"isInternetConnectionAvailable":false,)"
                                 R"("wifi":{"state":"connected","ipAddress":"127.0.0.1"},)"
                                 R"("wan":{"state":"disconnected","ipAddress":""}})";
constexpr char kNothing[] = R"({"returnValue":true,"isInternetConnectionAvailable":false,)"
                            R"("wifi":{"state":"disconnected","ipAddress":""},)"
                            R"("wan":{"state":"disconnected","ipAddress":""}})";

HostConfig onLoopback() {
    HostConfig config;
    config.loopbackIsInternet = true;
    config.interfaces = {"lo"};
    return config;
}

TEST(ConnectionManagerService, AnswersAtOnceAndThenAtEachChange) {
    PrivateBus bus;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    {
        ConnectionManager manager(onLoopback());
        ASSERT_EQ(manager.start(loop), StartResult::Started);
        Caller caller;
        EXPECT_EQ(caller.call(kGetStatus, "{}"), kOnLoopback);
        auto& answers = caller.follow(kGetStatus, R"({"subscribe":true})");
        EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 1; }));
        manager.refresh();
        manager.setCaptivePortal(true);
        manager.setCaptivePortal(true);
        manager.setCaptivePortal(false);
        EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 3; }));
        EXPECT_THAT(answers, ElementsAre(kOnLoopback, kBehindPortal, kOnLoopback));
    }
    g_main_loop_unref(loop);
}

bool enterOwnNetwork() {
    uid_t user = getuid();
    gid_t group = getgid();
    if (unshare(CLONE_NEWNET) == 0)
        return true;
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return false;
    // The bus knows this user by its own number.
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << user << " " << user << " 1";
    std::ofstream("/proc/self/gid_map") << group << " " << group << " 1";
    return true;
}

void setLoopback(bool up) {
    int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    ioctl(descriptor, SIOCGIFFLAGS, &request);
    request.ifr_flags = static_cast<short>(up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    ioctl(descriptor, SIOCSIFFLAGS, &request);
    close(descriptor);
}

gboolean onWord(gint descriptor, GIOCondition, gpointer loop) {
    char word = 0;
    if (read(descriptor, &word, 1) == 1)
        setLoopback(word == 'u');
    else
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

// Runs the service in a network namespace, where loopback goes up and down as the other end of the pipe says.
[[noreturn]] void runInOwnNetwork(int words, int state) {
    char own = enterOwnNetwork() ? 'y' : 'n';
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    ConnectionManager manager(onLoopback());
    if (own == 'y' && manager.start(loop) != StartResult::Started)
        own = 'x';
    g_unix_fd_add(words, G_IO_IN, onWord, loop);
    if (write(state, &own, 1) == 1 && own == 'y')
        g_main_loop_run(loop);
    _exit(0);
}

TEST(ConnectionManagerService, FollowsTheKernel) {
    PrivateBus bus;
    int words[2];
    int state[2];
    ASSERT_EQ(pipe(words) | pipe(state), 0);
    pid_t child = fork();
    if (child == 0) {
        close(words[1]);
        runInOwnNetwork(words[0], state[1]);
    }
    char own = 0;
    ASSERT_EQ(read(state[0], &own, 1), 1);
    ASSERT_NE(own, 'x');
    if (own == 'y') {
        Caller caller;
        auto& answers = caller.follow(kGetStatus, R"({"subscribe":true})");
        EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 1; }));
        EXPECT_EQ(write(words[1], "u", 1), 1);
        EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 2; }));
        EXPECT_EQ(write(words[1], "d", 1), 1);
        EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 3; }));
        EXPECT_THAT(answers, ElementsAre(kNothing, kOnLoopback, kNothing));
    } else {
        // Without a namespace nothing can be changed; the watch itself must still open.
        int changes = openNetworkChanges();
        EXPECT_GE(changes, 0);
        close(changes);
    }
    close(words[1]);
    waitpid(child, nullptr, 0);
    for (int descriptor : {words[0], state[0], state[1]})
        close(descriptor);
}

}  // namespace
