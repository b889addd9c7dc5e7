// SPDX-License-Identifier: GPL-3.0-only
// The connection in use: queued output, disconnecting at any time, leaks, and idling.
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "tests/fakes/logcapture.h"
#include "tests/unit/xmpp/connection.h"
#include "tests/unit/xmpp/segments.h"

namespace {

// --- output

TEST_F(Connection, OutputThatTheSocketCannotTakeWaitsAndArrivesWhole) {
    std::atomic<bool> mayRead = false;
    std::size_t received = 0;
    start([&](Peer& peer) {
        peer.logIn();
        while (!mayRead)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        for (int i = 0; i < 30; ++i)
            received += peer.until("</iq>").size();
        peer.send("<message/>");
        peer.untilEnd();
    });
    logIn();
    for (int i = 0; i < 30; ++i) {
        auto* item = new gloox::Tag("item");
        item->setCData(std::string(200'000, static_cast<char>('a' + i % 26)));
        ASSERT_NE(manager->publishItem(kService, "/a", item, &handler), "");
    }
    EXPECT_GT(transport().queued(), 0u);
    mayRead = true;
    ASSERT_TRUE(waitFor([this] { return listener.count("message") > 0; })) << server->failure();
    EXPECT_EQ(transport().queued(), 0u);
    EXPECT_TRUE(waitFor([] { return !g_main_context_pending(nullptr); }, 5'000))
        << "room in the socket is watched for only while something waits for it";
    disposeClient();
    server->stop();
    EXPECT_GT(received, 6'000'000u);
}

TEST_F(Connection, WhatIsSentWhileAPieceOfInputIsHandledLeavesAsOneSegment) {
    std::string received;
    start([&](Peer& peer) {
        peer.logIn();
        peer.until("<status>ready</status>");
        std::string messages;
        for (int i = 0; i < 20; ++i)
            messages += "<message><body>b</body></message>";
        peer.send(messages);
        received = peer.untilEnd();
    });
    logIn();
    listener.atMessage = [this] {
        client->setPresence(kService, gloox::Presence::Available, listener.count("message"), "online");
    };
    client->setPresence(kService, gloox::Presence::Available, 0, "ready");
    const unsigned before = segmentsSent(client->socket());
    ASSERT_TRUE(waitFor([this] { return listener.count("message") == 20; })) << server->failure();
    EXPECT_EQ(segmentsSent(client->socket()) - before, 1u);
    EXPECT_EQ(transport().queued(), 0u);
    disposeClient();
    server->stop();
    const std::size_t first = received.find("<priority>1</priority>");
    EXPECT_LT(first, received.find("<priority>20</priority>")) << received;
    EXPECT_NE(received.find("<priority>20</priority>"), std::string::npos) << received;
}

TEST_F(Connection, WhatWasSentBeforeGivingUpWithinAPieceOfInputStillLeaves) {
    std::string received;
    start([&](Peer& peer) {
        peer.logIn();
        peer.until("<status>ready</status>");
        peer.send("<message><body>b</body></message>");
        received = peer.untilEnd();
    });
    logIn();
    listener.atMessage = [this] {
        client->setPresence(kService, gloox::Presence::Available, 7, "last");
        client->disconnect();
    };
    client->setPresence(kService, gloox::Presence::Available, 0, "ready");
    ASSERT_TRUE(waitFor([this] { return isOver(); })) << server->failure();
    server->stop();
    const std::size_t last = received.find("<status>last</status>");
    EXPECT_LT(last, received.find("</stream:stream>")) << received;
    EXPECT_NE(received.find("</stream:stream>"), std::string::npos) << received;
}

TEST_F(Connection, AServerThatNeverReadsIsGivenUpAtEightMebibytesByTheNextRecv) {
    std::atomic<bool> over = false;
    start([&](Peer& peer) {
        peer.logIn();
        while (!over)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    logIn();
    const LogCapture log;
    for (int i = 0; i < 100; ++i) {
        auto* item = new gloox::Tag("item");
        item->setCData(std::string(200'000, 'x'));
        manager->publishItem(kService, "/a", item, &handler);
        EXPECT_LE(transport().queued(), 8u << 20);
    }
    EXPECT_EQ(listener.events, Events{"connect"});
    const Events lines = log.lines();
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(),
                      [](const std::string& line) { return line.ends_with("giving the connection up"); }),
        1)
        << "nothing more is queued once it is given up";
    EXPECT_TRUE(waitFor([this] { return isOver(); }));
    EXPECT_EQ(listener.events, (Events{"connect", "disconnect 7"}));
    over = true;
    server->stop();
}

TEST_F(Connection, SendingIntoADeadConnectionIsReportedByRecvAlone) {
    start([](Peer& peer) {
        peer.logIn();
        peer.reset();
    });
    // The reset arrives while the loop does not run, so that a send finds it.
    listener.atConnect = [this] {
        const gint64 end = g_get_monotonic_time() + 5'000'000;
        tcp_info info{};
        while (info.tcpi_state != TCP_CLOSE && g_get_monotonic_time() < end) {
            socklen_t length = sizeof info;
            getsockopt(client->socket(), IPPROTO_TCP, TCP_INFO, &info, &length);
        }
        for (int i = 0; i < 10; ++i)
            client->setPresence(kService, gloox::Presence::Available, 0, "online");
        EXPECT_EQ(listener.events, Events{"connect"});
    };
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); }));
    EXPECT_EQ(listener.count("disconnect"), 1);
}

TEST_F(Connection, NothingToReadIsNoLoss) {
    start(logInAndWait);
    logIn();
    settle();
    EXPECT_EQ(client->recv(10), gloox::ConnNoError);
    EXPECT_EQ(listener.events, Events{"connect"});
}

TEST_F(Connection, TheFirstOfTwoFailuresIsReported) {
    start(logInAndWait);
    logIn();
    auto& connection = dynamic_cast<xmpp::Transport&>(*client->connectionImpl());
    connection.fail(gloox::ConnIoError);
    connection.fail(gloox::ConnDnsError);
    ASSERT_TRUE(waitFor([this] { return isOver(); }));
    settle();
    EXPECT_EQ(listener.events, (Events{"connect", "disconnect 7"}));
}

TEST_F(Connection, OneTurnReadsABoundedAmount) {
    start([&](Peer& peer) {
        peer.logIn();
        peer.send("<message><body>" + std::string(300'000, 'b') + "</body></message>");
        peer.untilEnd();
    });
    logIn();
    long before = 0, after = 0, ignored = 0;
    dynamic_cast<gloox::ConnectionTCPBase*>(client->connectionImpl())->getStatistics(before, ignored);
    // More than one read's amount has arrived.
    const gint64 end = g_get_monotonic_time() + 20'000'000;
    int waiting = 0;
    while (ioctl(client->socket(), FIONREAD, &waiting) == 0 && waiting <= 16'384 &&
           g_get_monotonic_time() < end)
        g_usleep(1'000);
    ASSERT_GT(waiting, 16'384);
    EXPECT_EQ(client->recv(10), gloox::ConnNoError);
    dynamic_cast<gloox::ConnectionTCPBase*>(client->connectionImpl())->getStatistics(after, ignored);
    EXPECT_GT(after, before);
    EXPECT_LE(after - before, 16'384);
    EXPECT_TRUE(waitFor([this] { return listener.count("message") > 0; }));
}

// --- giving up

TEST_F(Connection, AConnectingClientIsDisposedOfSilently) {
    const BlackHole hole;
    const int before = descriptors();
    makeClient("127.0.0.1", hole.port());
    ASSERT_TRUE(connect());
    disposeClient();
    settle();
    EXPECT_TRUE(listener.events.empty());
    EXPECT_EQ(descriptors(), before);
}

TEST_F(Connection, AResolvingClientIsDisposedOfSilently) {
    makeClient("localhost", freePort());
    const int before = descriptors();
    ASSERT_TRUE(connect());
    disposeClient();
    runFor(100);
    EXPECT_TRUE(listener.events.empty());
    EXPECT_EQ(descriptors(), before);
}

TEST_F(Connection, TheUserMayDisconnectWhileConnecting) {
    const BlackHole hole;
    makeClient("127.0.0.1", hole.port());
    ASSERT_TRUE(connect());
    client->disconnect();
    client->disconnect();
    settle();
    EXPECT_EQ(listener.events, Events{"disconnect 17"});
}

TEST_F(Connection, TheUserMayDisconnectWhileResolving) {
    start(logInAndWait, "localhost");
    ASSERT_TRUE(connect());
    client->disconnect();
    runFor(100);
    EXPECT_EQ(listener.events, Events{"disconnect 17"});
    EXPECT_EQ(server->connections(), 0) << "a name that is found too late leads nowhere";
}

TEST_F(Connection, ASecondConnectChangesNothing) {
    start(logInAndWait);
    logIn();
    const int number = client->socket();
    EXPECT_TRUE(client->connect("", nullptr));
    EXPECT_EQ(client->socket(), number);
    EXPECT_EQ(server->connections(), 1);
}

TEST_F(Connection, NoDescriptorIsLeftBehind) {
    start(logInAndWait);
    const int port = server->port();
    const int refused = freePort();
    disposeClient();
    const int before = descriptors();
    for (int i = 0; i < 25; ++i) {
        for (const int target : {port, refused}) {
            listener.events.clear();
            makeClient("localhost", target);
            ASSERT_TRUE(connect());
            ASSERT_TRUE(waitFor([this] { return isConnected() || isOver(); }));
            disposeClient();
        }
    }
    server->stop();
    EXPECT_LE(descriptors(), before);
}

TEST_F(Connection, DescriptorsAboveAThousandAreFine) {
    rlimit old{};
    getrlimit(RLIMIT_NOFILE, &old);
    rlimit wide = old;
    wide.rlim_cur = std::min<rlim_t>(old.rlim_max, 4'096);
    ASSERT_GT(wide.rlim_cur, 1'500u) << "the hard limit of open files is too low for this test";
    setrlimit(RLIMIT_NOFILE, &wide);
    start(logInAndWait);
    std::vector<int> fillers;
    do
        fillers.push_back(::dup(STDERR_FILENO));
    while (fillers.back() >= 0 && fillers.back() < 1'100);
    ASSERT_TRUE(connect());
    EXPECT_GT(client->socket(), 1'024);
    EXPECT_TRUE(waitFor([this] { return isConnected(); })) << server->failure();
    disposeClient();
    for (const int fd : fillers)
        ::close(fd);
    setrlimit(RLIMIT_NOFILE, &old);
}

// --- idling and responsiveness

TEST_F(Connection, AtRestThereIsNoThreadAndNoTimer) {
    start(logInAndWait, "localhost");
    const int before = threads();
    logIn();
    ASSERT_TRUE(waitFor([before] { return threads() <= before; }));
    settle();
    // What the loop would wait for: only descriptors, and only the one that is watched.
    GMainContext* context = g_main_context_default();
    ASSERT_TRUE(g_main_context_acquire(context));
    int priority = 0;
    EXPECT_FALSE(g_main_context_prepare(context, &priority));
    int timeout = 0;
    GPollFD polled[16];
    const int count = g_main_context_query(context, G_MAXINT, &timeout, polled, 16);
    g_main_context_release(context);
    EXPECT_EQ(timeout, -1);
    EXPECT_EQ(count, 2);  // the context's own wake-up and the socket
    EXPECT_TRUE(
        std::any_of(polled, polled + count, [this](const GPollFD& fd) { return fd.fd == client->socket(); }));
}

// The longest delay of a timer that is due every millisecond, while the thread runs or waits for something.
class StallMeter {
  public:
    StallMeter() { m_source = g_timeout_add(1, &StallMeter::tick, this); }
    ~StallMeter() { g_source_remove(m_source); }
    gint64 longest() const { return m_longest; }

  private:
    static gboolean tick(gpointer data) {
        auto* self = static_cast<StallMeter*>(data);
        const gint64 current = now();
        self->m_longest = std::max(self->m_longest, current - self->m_last);
        self->m_last = current;
        return G_SOURCE_CONTINUE;
    }
    // Microseconds, without the time in which the thread was ready but other processes used the processors.
    static gint64 now() {
        std::ifstream statistics("/proc/thread-self/schedstat");
        gint64 running = 0, queued = 0;
        statistics >> running >> queued;
        return g_get_monotonic_time() - queued / 1000;
    }
    gint64 m_last = now();
    gint64 m_longest = 0;
    guint m_source;
};

class Liveliness : public Connection, public testing::WithParamInterface<const char*> {};

TEST_P(Liveliness, IsKeptWhileNobodyAnswers) {
    const BlackHole hole;
    // The best of a few runs counts, since other threads of the process may hold a lock while they wait
    // for a processor.
    gint64 best = G_MAXINT64;
    for (int run = 0; run < 5 && best > 20'000; ++run) {
        makeClient(GetParam(), hole.port());
        const StallMeter meter;
        ASSERT_TRUE(connect());
        runFor(300);
        disposeClient();
        best = std::min(best, meter.longest());
    }
    RecordProperty("longestStallMicroseconds", static_cast<int>(best));
    EXPECT_LT(best, 20'000);
}

INSTANTIATE_TEST_SUITE_P(All, Liveliness, testing::Values("127.0.0.1", "localhost", "no-such-host.invalid"));

}  // namespace
