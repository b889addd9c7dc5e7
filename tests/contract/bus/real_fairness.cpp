// SPDX-License-Identifier: GPL-3.0-only
// One client must not affect others on real buses: a flood of calls, a subscriber that does not read, a
// burst. The layer does nothing while nothing happens.
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "tests/contract/bus/real_echo.h"
#include "tests/contract/bus/real_fixture.h"

using testing::ElementsAre;

class Fairness : public RealBusTest {};

TEST_F(Fairness, APublicFloodHoldsAPrivateRequestForOneTurnAtMost) {
    WireConnection flooder(engine(), QSBus::Public);
    WireConnection platform(engine(), QSBus::Private);
    size_t handledPublic = 0;
    bool handledPrivate = false;
    m_handlers["hold"] = [&](QSHandle*, QSMessage*) { handledPublic++; };
    m_handlers["secret"] = [&](QSHandle*, QSMessage*) { handledPrivate = true; };
    // From here on both clients are known, so that nothing waits for their identity.
    send(flooder.bus(), "hold", "{}");
    send(platform.bus(), "secret", "{}");
    ASSERT_TRUE(m_engine->until([&] { return handledPublic == 1 && handledPrivate; }));
    handledPublic = 0;
    handledPrivate = false;

    for (int i = 0; i < 5000; i++)
        send(flooder.bus(), "hold", "{}");
    send(platform.bus(), "secret", "{}");
    ASSERT_TRUE(hasInput(m_public) && hasInput(m_private));
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_TRUE(handledPrivate);
    EXPECT_LE(handledPublic, 32u);
    EXPECT_TRUE(m_engine->until([&] { return handledPublic == 5000; }));
}

TEST_F(Fairness, ATurnTakesOneOfLoneRequestsAndManyOfABurst) {
    WireConnection client(engine(), QSBus::Public);
    int handled = 0;
    m_handlers["hold"] = [&](QSHandle*, QSMessage*) { handled++; };
    send(client.bus(), "hold", "{}");
    ASSERT_TRUE(m_engine->until([&] { return handled == 1; }));
    auto received = [&] {
        int bytes = 0;
        ioctl(sd_bus_get_fd(m_public->bus), FIONREAD, &bytes);
        return bytes;
    };
    int size = 0;  // size of one request
    auto sendAll = [&](int count) {
        handled = 0;
        for (int i = 0; i < count; i++)
            send(client.bus(), "hold", "{}");
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!hasInput(m_public) || received() < count * size)
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    };
    auto turnsToHandle = [&](int count) {
        int turns = 0;
        while (handled < count && hasInput(m_public)) {
            g_main_context_iteration(nullptr, FALSE);
            turns++;
        }
        return turns;
    };
    sendAll(1);
    size = received();
    turnsToHandle(1);
    // It is not known here which dispatch looks for more messages, but it is one of several.
    bool tookOne = false;
    for (int more = 0; more < 2 && !tookOne; more++) {
        for (int i = 0; i < 9 + more; i++) {
            sendAll(1);
            EXPECT_EQ(turnsToHandle(1), 1);
        }
        sendAll(2);
        g_main_context_iteration(nullptr, FALSE);
        tookOne = handled == 1;
        turnsToHandle(2);
    }
    EXPECT_TRUE(tookOne);
    for (int i = 0; i < 20; i++) {
        sendAll(1);
        turnsToHandle(1);
    }
    sendAll(100);
    EXPECT_LE(turnsToHandle(100), 8 + 100 / 32 + 1);
}

TEST_F(Fairness, AReadOfWhatWasReceivedIsBounded) {
    WireConnection flooder(engine(), QSBus::Public);
    size_t handled = 0;
    m_handlers["hold"] = [&](QSHandle*, QSMessage*) { handled++; };
    send(flooder.bus(), "hold", "{}");
    ASSERT_TRUE(m_engine->until([&] { return handled == 1; }));
    for (int i = 0; i < 5000; i++)
        send(flooder.bus(), "hold", "{}");
    handled = 0;
    QSZeltServiceReadReceived(m_service);
    EXPECT_LE(handled, 256u);
    EXPECT_TRUE(m_engine->until([&] { return handled == 5000; }));
}

TEST_F(Fairness, ABurstOfCallsLosesNone) {
    const auto other = m_engine->otherService("com.zelt.other");
    m_engine->settle();
    size_t replies = 0;
    auto count = [](QSHandle*, QSMessage*, void* context) {
        ++*static_cast<size_t*>(context);
        return true;
    };
    for (int i = 0; i < 1000; i++) {
        ASSERT_TRUE(
            QSCall(m_private, "zelt://com.zelt.other/item", "{}", nullptr, nullptr, nullptr, m_error));
        ASSERT_TRUE(QSCall(m_private, "zelt://com.zelt.other/item", "{}", count, &replies, nullptr, m_error));
    }
    ASSERT_TRUE(m_engine->until([&] { return other->calls().size() == 2000; }));
    for (size_t i = 1; i < 2000; i += 2)
        other->reply(i, "{}");
    EXPECT_TRUE(m_engine->until([&] { return replies == 1000; }));
}

TEST_F(Fairness, ASubscriberThatDoesNotReadBlocksNobody) {
    WireConnection stalled(engine(), QSBus::Public);
    const auto reader = m_engine->client(QSBus::Public);
    const std::string wish = R"({"subscribe":true})";
    send(stalled.bus(), "follow", wish);
    ASSERT_TRUE(arrived(1));
    size_t call = 0;
    request(*reader, call, "follow", wish);
    for (const KeptMessage& kept : m_kept)
        ASSERT_TRUE(QSSubscriptionProcess(m_public, kept.get(), nullptr, m_error));
    engine().leave(&stalled);
    std::string item(100 * 1024, 'x');
    for (size_t i = 1; i <= 100; i++) {
        ASSERT_TRUE(QSSubscriptionPost(m_public, "/", "follow", item.c_str(), m_error));
        ASSERT_TRUE(has(*reader, call, i)) << i;
    }
    engine().join(&stalled);
}

namespace {

std::string statusLine(pid_t pid, const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key + ":"))
            return line.substr(line.find_first_not_of("\t ", key.size() + 1));
    }
    return {};
}

}  // namespace

TEST(Rest, AServiceWithSubscribersDoesNotWake) {
    RealEngine engine;
    OwnedProcess service(fork());
    if (service.pid() == 0)
        serveEchoes();
    auto client = engine.client(QSBus::Public, "com.example.app");
    std::vector<std::string> answers;
    // Repeated, because the service may not have its name yet.
    ASSERT_TRUE(engine.until([&] {
        size_t call = client->call("/", "follow", R"({"subscribe":true})");
        engine.until([&] { return !client->answers(call).empty(); });
        answers = client->answers(call);
        return answers == std::vector<std::string>{"reply {}"};
    }));
    // The work at the start ends by itself; after the first idle tenth of a second nothing may happen.
    std::string switches;
    ASSERT_TRUE(engine.until([&] {
        const std::string before = statusLine(service.pid(), "voluntary_ctxt_switches");
        g_usleep(100000);
        switches = statusLine(service.pid(), "voluntary_ctxt_switches");
        return before == switches;
    }));
    g_usleep(1500000);
    EXPECT_EQ(statusLine(service.pid(), "voluntary_ctxt_switches"), switches);
    EXPECT_EQ(statusLine(service.pid(), "Threads"), "1");
}
