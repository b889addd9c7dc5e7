// SPDX-License-Identifier: GPL-3.0-only
// What the manager of a unit hears, on a socket that stands in for it.
#include "platform/manager/readiness.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

constexpr gint64 kMillisecond = 1000;
constexpr gint64 kWatchdog = 800 * kMillisecond;

class Readiness : public ::testing::Test {
  protected:
    Readiness() {
        char folder[] = "/tmp/readiness-XXXXXX";
        m_folder = mkdtemp(folder);
        m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un where = {};
        where.sun_family = AF_UNIX;
        const std::string path = m_folder + "/notify";
        path.copy(where.sun_path, sizeof where.sun_path - 1);
        EXPECT_EQ(bind(m_socket, reinterpret_cast<sockaddr*>(&where), sizeof where), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
    }
    ~Readiness() override {
        if (m_source)
            g_source_remove(m_source);
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        close(m_socket);
        std::filesystem::remove_all(m_folder);
    }

    void report() { m_source = reportReady(); }
    void reportWithWatchdog() {
        setenv("WATCHDOG_USEC", std::to_string(kWatchdog).c_str(), 1);
        report();
        EXPECT_EQ(heard(), std::vector<std::string>{"READY=1"});
    }

    // What has arrived and was not returned before.
    std::vector<std::string> heard() {
        std::vector<std::string> texts;
        char text[256];
        for (ssize_t size; (size = recv(m_socket, text, sizeof text, MSG_DONTWAIT)) >= 0;)
            texts.emplace_back(text, static_cast<size_t>(size));
        return texts;
    }

    // The number of turns until the manager was told that the loop turns, so many times; -1 when it was not.
    int turnsUntilTold(size_t times, bool wait) {
        const gint64 deadline = g_get_monotonic_time() + 20 * G_USEC_PER_SEC;
        size_t told = 0;
        for (int turns = 1; g_get_monotonic_time() < deadline; turns++) {
            g_main_context_iteration(nullptr, wait);
            for (const std::string& text : heard()) {
                EXPECT_EQ(text, "WATCHDOG=1");
                told++;
            }
            if (told >= times)
                return turns;
        }
        return -1;
    }

    // How long the main context would sleep, in milliseconds; -1 for ever.
    static int sleepOfTheLoop() {
        GMainContext* context = g_main_context_default();
        gint priority = 0, timeout = 0;
        GPollFD descriptors[8];
        EXPECT_TRUE(g_main_context_acquire(context));
        g_main_context_prepare(context, &priority);
        g_main_context_query(context, priority, &timeout, descriptors, 8);
        g_main_context_release(context);
        return timeout;
    }

    guint m_source = 0;

  private:
    std::string m_folder;
    int m_socket = -1;
};

}  // namespace

TEST_F(Readiness, IsToldWithoutAWatchdogAndLeavesTheLoopAtRest) {
    report();
    EXPECT_EQ(heard(), std::vector<std::string>{"READY=1"});
    EXPECT_EQ(m_source, 0u);
    EXPECT_EQ(sleepOfTheLoop(), -1);
}

TEST_F(Readiness, OfAProcessWithoutAManagerTellsNobody) {
    unsetenv("NOTIFY_SOCKET");
    report();
    EXPECT_TRUE(heard().empty());
    EXPECT_EQ(m_source, 0u);
}

TEST_F(Readiness, AddsNoWatchdogThatIsForAnotherProcess) {
    setenv("WATCHDOG_USEC", "800000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid() + 1).c_str(), 1);
    report();
    unsetenv("WATCHDOG_PID");
    EXPECT_EQ(m_source, 0u);
    EXPECT_EQ(sleepOfTheLoop(), -1);
}

TEST_F(Readiness, ALoopAtRestWakesOnceInHalfOfTheWatchdog) {
    reportWithWatchdog();
    const int sleep = sleepOfTheLoop();
    EXPECT_GT(sleep, 0);
    EXPECT_LE(sleep, kWatchdog / 2 / kMillisecond);
    const gint64 start = g_get_monotonic_time();
    // A wake-up ends a turn, and the next turn tells the manager.
    EXPECT_LE(turnsUntilTold(2, true), 4);
    EXPECT_GE(g_get_monotonic_time() - start, 2 * (kWatchdog / 2) - 10 * kMillisecond);
}

TEST_F(Readiness, ALoopThatTurnsAllTheTimeTellsSoOnceInAQuarter) {
    reportWithWatchdog();
    const gint64 start = g_get_monotonic_time();
    EXPECT_GT(turnsUntilTold(3, false), 100);
    EXPECT_GE(g_get_monotonic_time() - start, 3 * (kWatchdog / 4) - 10 * kMillisecond);
}

TEST_F(Readiness, ALoopThatIsKeptBusyAtTheHighestPriorityIsNotTakenForStuck) {
    reportWithWatchdog();
    const guint busy = g_idle_add_full(
        G_PRIORITY_HIGH, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    EXPECT_GT(turnsUntilTold(1, false), 0);
    g_source_remove(busy);
}

TEST_F(Readiness, ALoopThatIsStuckTellsNothing) {
    reportWithWatchdog();
    // A callback that waits for something that does not come.
    g_idle_add(
        [](gpointer) -> gboolean {
            poll(nullptr, 0, static_cast<int>(kWatchdog / kMillisecond) + 100);
            return G_SOURCE_REMOVE;
        },
        nullptr);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_TRUE(heard().empty());
}
