// SPDX-License-Identifier: GPL-3.0-only
// The kernel's keep-alive: its options on the socket, and a server that is there, is gone, or loses packets.
#include "xmpp/keepalive.h"

#include <gmock/gmock.h>
#include <linux/tcp.h>  // more of tcp_info than the C library declares
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdlib>

#include "tests/fakes/logcapture.h"
#include "tests/unit/xmpp/connection.h"

namespace {

constexpr char kVariable[] = "PUBSUB_TCP_KEEPALIVE";

struct Options {
    int on, idle, interval, probes, silence;
    bool operator==(const Options&) const = default;
    friend void PrintTo(const Options& each, std::ostream* stream) {
        *stream << each.on << " " << each.idle << " " << each.interval << " " << each.probes << " "
                << each.silence;
    }
};

class KeepAlive : public Connection {
  protected:
    ~KeepAlive() override {
        disposeClient();
        unsetenv(kVariable);
    }
    // Sleeps without running the main context, until the condition holds.
    static bool sleepUntil(const std::function<bool()>& condition) {
        const gint64 end = g_get_monotonic_time() + 10 * G_TIME_SPAN_SECOND;
        while (!condition() && g_get_monotonic_time() < end)
            g_usleep(10'000);
        return condition();
    }
    void logInAndVanish(Peer& peer) {
        peer.logIn();
        peer.dropPackets();
        sleepUntil([this] { return m_over.load(); });
    }
    int option(int level, int name) const {
        int value = -1;
        socklen_t length = sizeof value;
        getsockopt(client->socket(), level, name, &value, &length);
        return value;
    }
    // Without keep-alive the kernel's own times do not matter.
    Options options() const {
        const int on = option(SOL_SOCKET, SO_KEEPALIVE);
        const int silence = option(IPPROTO_TCP, TCP_USER_TIMEOUT);
        if (!on)
            return {0, 0, 0, 0, silence};
        return {on, option(IPPROTO_TCP, TCP_KEEPIDLE), option(IPPROTO_TCP, TCP_KEEPINTVL),
                option(IPPROTO_TCP, TCP_KEEPCNT), silence};
    }
    tcp_info info() const {
        tcp_info found = {};
        socklen_t length = sizeof found;
        getsockopt(client->socket(), IPPROTO_TCP, TCP_INFO, &found, &length);
        return found;
    }

    std::atomic<bool> m_over{false};
};

TEST_F(KeepAlive, FindsADeadServerWithinFiveMinutesByDefault) {
    start(logInAndWait);
    logIn();
    EXPECT_EQ(options(), (Options{1, 240, 15, 4, 300'000}));
}

struct Setting {
    const char* name;
    const char* text;
    Options options;
};
class KeepAliveSetting : public KeepAlive, public testing::WithParamInterface<Setting> {};

TEST_P(KeepAliveSetting, IsTaken) {
    setenv(kVariable, GetParam().text, 1);
    start(logInAndWait);
    const LogCapture log;
    logIn();
    EXPECT_EQ(options(), GetParam().options);
    EXPECT_EQ(log.lines(), Events{});
}

INSTANTIATE_TEST_SUITE_P(All, KeepAliveSetting,
                         testing::Values(Setting{"Off", "0", {0, 0, 0, 0, 60'000}},
                                         Setting{"Shortest", "1", {1, 1, 1, 4, 5'000}},
                                         Setting{"Short", "8", {1, 8, 2, 4, 16'000}},
                                         Setting{"AMinute", "60", {1, 60, 15, 4, 120'000}},
                                         Setting{"Longest", "32767", {1, 32'767, 15, 4, 32'827'000}}),
                         [](const auto& each) { return each.param.name; });

class KeepAliveText : public KeepAlive, public testing::WithParamInterface<const char*> {};

TEST_P(KeepAliveText, IsRefusedForTheDefault) {
    setenv(kVariable, GetParam(), 1);
    start(logInAndWait);
    const LogCapture log;
    logIn();
    EXPECT_EQ(options(), (Options{1, 240, 15, 4, 300'000}));
    EXPECT_EQ(log.lines(), Events{std::string("configuredKeepAlive: PUBSUB_TCP_KEEPALIVE=") + GetParam() +
                                  " is no whole number of seconds from 0 to 32767, using 240"});
}

INSTANTIATE_TEST_SUITE_P(All, KeepAliveText,
                         testing::Values("", "-1", "+5", "4min", "60s", " 60", "60 ", "1e3", "0x10", "32768",
                                         "99999999999", "no"));

TEST_F(KeepAlive, EndsAConnectionToAServerThatIsGone) {
    setenv(kVariable, "1", 1);
    start([this](Peer& peer) { logInAndVanish(peer); });
    logIn();
    const gint64 begin = g_get_monotonic_time();
    ASSERT_TRUE(waitFor([this] { return isOver(); }, 20'000));
    EXPECT_GT(g_get_monotonic_time() - begin, 3 * G_TIME_SPAN_SECOND) << "not at the first probe";
    EXPECT_EQ(listener.events, (Events{"connect", "disconnect 7"}));
    m_over = true;
}

TEST_F(KeepAlive, EndsAConnectionToAServerThatAcknowledgesNothing) {
    setenv(kVariable, "1", 1);
    start([this](Peer& peer) { logInAndVanish(peer); });
    listener.atConnect = [this] { client->setPresence(kService, gloox::Presence::Available, 0, "online"); };
    logIn();
    ASSERT_TRUE(waitFor([this] { return isOver(); }, 20'000));
    EXPECT_EQ(listener.events, (Events{"connect", "disconnect 7"}));
    m_over = true;
}

TEST_F(KeepAlive, OutlivesTwoProbesThatAreLost) {
    setenv(kVariable, "1", 1);
    std::atomic<bool> answers{false};
    start([&](Peer& peer) {
        peer.logIn();
        peer.dropPackets();
        sleepUntil([&] { return answers.load(); });
        peer.dropPackets(false);
        peer.untilEnd();
    });
    logIn();
    EXPECT_TRUE(sleepUntil([this] { return info().tcpi_probes >= 2; }));
    answers = true;
    EXPECT_TRUE(sleepUntil([this] { return info().tcpi_probes == 0; }));
    runFor(100);
    EXPECT_EQ(listener.events, Events{"connect"});
}

TEST_F(KeepAlive, WakesNobody) {
    setenv(kVariable, "1", 1);
    start(logInAndWait);
    logIn();
    runFor(100);  // what follows the login
    const auto sent = info().tcpi_segs_out;
    EXPECT_TRUE(sleepUntil([&] { return info().tcpi_segs_out >= sent + 3; })) << "probes";
    EXPECT_FALSE(g_main_context_pending(nullptr));
    EXPECT_EQ(listener.events, Events{"connect"});
}

}  // namespace
