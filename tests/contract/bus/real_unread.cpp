// SPDX-License-Identifier: GPL-3.0-only
// Clients of the public bus that call and do not read the answers, under the default limits of a system bus
// and under the installed ones: their cost for the service, the bus daemon and other clients. Clients that
// read are not affected. The service under test and the hostile clients run in their own processes, the
// clients as another user where the test can choose one.
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/contract/bus/real_echo.h"
#include "tests/contract/bus/real_fixture.h"
#include "util/log.h"

#ifdef __SANITIZE_ADDRESS__
// Freed memory is quarantined, up to 256 MiB by default, and would count as memory that clients
// make the service use.
extern "C" const char* __asan_default_options() {
    return "quarantine_size_mb=1";
}
#endif

namespace {

constexpr int kHostile = 50;
constexpr unsigned kNobody = 65534;
constexpr char kEverybody[] = R"(<policy context="default"><allow user="*"/></policy>)";
// The built-in limits of dbus-daemon, which no distribution changes for its system bus.
constexpr char kStockLimits[] = R"(
  <limit name="max_replies_per_connection">128</limit>
  <limit name="max_match_rules_per_connection">512</limit>
  <limit name="max_incoming_bytes">133169152</limit>
  <limit name="max_outgoing_bytes">133169152</limit>
  <limit name="max_connections_per_user">256</limit>)";

long kilobytes(pid_t pid, const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(key + ":"))
            return std::stol(line.substr(key.size() + 1));
    return 0;
}

// A connection that reads the reply to Hello and nothing after it.
class NonReader {
  public:
    explicit NonReader(const std::string& address) {
        sd_bus_new(&m_bus);
        sd_bus_set_address(m_bus, address.c_str());
        sd_bus_set_bus_client(m_bus, 1);
        const char* name = nullptr;
        if (sd_bus_start(m_bus) < 0 || sd_bus_get_unique_name(m_bus, &name) < 0)
            _exit(2);
    }
    void send(const char* interface, const char* method, const std::string* payload) {
        sd_bus_message* wire = nullptr;
        sd_bus_message_new_method_call(m_bus, &wire, kServiceName, "/", interface, method);
        if (payload)
            sd_bus_message_append(wire, "s", payload->c_str());
        sd_bus_send(m_bus, wire, nullptr);
        sd_bus_message_unref(wire);
        sd_bus_flush(m_bus);
    }

  private:
    sd_bus* m_bus = nullptr;
};

struct Hostile {
    const char* interface;
    const char* method;
    size_t payload;
    int calls;
};

// Each client sends its calls; then all continue slowly, forever. One byte reports that the calls are sent.
[[noreturn]] void runNonReaders(const std::string& address, const Hostile& hostile, int channel) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0))
        _exit(3);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<std::unique_ptr<NonReader>> all;
    for (int i = 0; i < kHostile; i++)
        all.push_back(std::make_unique<NonReader>(address));
    const std::string payload(hostile.payload, 'x');
    const std::string* given = hostile.payload ? &payload : nullptr;
    for (int i = 0; i < hostile.calls; i++)
        for (const auto& one : all)
            one->send(hostile.interface, hostile.method, given);
    (void)!write(channel, "!", 1);
    for (size_t i = 0;; i++) {
        all[i % all.size()]->send(hostile.interface, hostile.method, given);
        g_usleep(5000);
    }
}

class World {
  public:
    explicit World(const std::string& extra) : m_engine(extra + kEverybody), m_service(fork()) {
        std::filesystem::permissions(m_engine.buses().folder(), std::filesystem::perms(0755));
        if (m_service.pid() == 0)
            serveEchoes();
        sd_bus_new(&m_bus);
        sd_bus_set_address(m_bus, address().c_str());
        sd_bus_set_bus_client(m_bus, 1);
        sd_bus_start(m_bus);
        EXPECT_TRUE(m_engine.until([&] { return call(); }));
    }
    ~World() { sd_bus_close_unref(m_bus); }

    std::string address() { return m_engine.buses().address(QSBus::Public); }
    pid_t service() const { return m_service.pid(); }
    sd_bus* bus() { return m_bus; }
    // One call that waits for its answer, as a simple program makes it.
    bool call(const std::string& payload = "{}") {
        sd_bus_message* reply = nullptr;
        sd_bus_error error = {};
        const int result = sd_bus_call_method(m_bus, kServiceName, "/", kServiceName, "echo", &error, &reply,
                                              "s", payload.c_str());
        sd_bus_message_unref(reply);
        sd_bus_error_free(&error);
        return result >= 0;
    }
    // The median duration of a call in microseconds, as the best of three rounds because other programs use
    // the machine too. 0 when a call has no answer.
    gint64 median() {
        gint64 best = 0;
        for (int round = 0; round < 3; round++) {
            std::vector<gint64> times;
            for (int i = 0; i < 300; i++) {
                const gint64 begin = g_get_monotonic_time();
                if (!call())
                    return 0;
                times.push_back(g_get_monotonic_time() - begin);
                g_usleep(100);
            }
            std::nth_element(times.begin(), times.begin() + 150, times.end());
            best = best ? std::min(best, times[150]) : times[150];
        }
        return best;
    }
    // Starts the clients and returns when each has sent its calls.
    OwnedProcess startHostile(const Hostile& hostile) {
        int channel[2];
        EXPECT_EQ(pipe(channel), 0);
        OwnedProcess process(fork());
        if (process.pid() == 0)
            runNonReaders(address(), hostile, channel[1]);
        close(channel[1]);
        pollfd wait = {channel[0], POLLIN, 0};
        char byte = 0;
        EXPECT_EQ(poll(&wait, 1, 60000), 1);
        EXPECT_EQ(read(channel[0], &byte, 1), 1);
        close(channel[0]);
        // Their calls may still fill the daemon's queue for the service, and the daemon
        // refuses further calls then.
        int inARow = 0;
        const gint64 deadline = g_get_monotonic_time() + 60 * G_USEC_PER_SEC;
        while (inARow < 100 && g_get_monotonic_time() < deadline)
            inARow = call() ? inARow + 1 : 0;
        EXPECT_EQ(inARow, 100);
        return process;
    }

  private:
    RealEngine m_engine;
    OwnedProcess m_service;
    sd_bus* m_bus = nullptr;
};

class ClientsThatDoNotRead
    : public testing::TestWithParam<std::tuple<const char*, std::pair<const char*, Hostile>>> {};

// A client that reads, with a daemon that tells what waits for it and with one that does not.
class ClientsThatRead : public testing::TestWithParam<const char*> {};

constexpr char kTelling[] = "";
constexpr char kTellingNothing[] =
    R"(<policy context="mandatory"><deny send_interface="org.freedesktop.DBus.Debug.Stats"/></policy>)";

std::string nameOfCase(const testing::TestParamInfo<ClientsThatDoNotRead::ParamType>& info) {
    return std::string(*std::get<0>(info.param) ? "Stock" : "Ours") + std::get<1>(info.param).first;
}

}  // namespace

TEST_P(ClientsThatDoNotRead, BlockNobodyAndFillNothing) {
    World world(std::get<0>(GetParam()));
    const gint64 quiet = world.median();
    ASSERT_GT(quiet, 0);
    const long before = kilobytes(world.service(), "VmHWM");
    OwnedProcess hostile = world.startHostile(std::get<1>(GetParam()).second);
    const gint64 loaded = world.median();
    const long after = kilobytes(world.service(), "VmHWM");
    RecordProperty("quiet", std::to_string(quiet));
    RecordProperty("loaded", std::to_string(loaded));
    RecordProperty("grown", std::to_string(after - before));
    printf("a call quiet %ld us, loaded %ld us, grown by %ld kB\n", static_cast<long>(quiet),
           static_cast<long>(loaded), after - before);
    ASSERT_GT(loaded, 0) << "a call had no answer";
    EXPECT_LE(loaded, 3 * quiet);
    EXPECT_LE(after - before, 16 * 1024);
}

INSTANTIATE_TEST_SUITE_P(
    All, ClientsThatDoNotRead,
    testing::Combine(
        testing::Values("", kStockLimits),
        testing::Values(std::pair<const char*, Hostile>{"Answers", {kServiceName, "echo", 4000, 400}},
                        std::pair<const char*, Hostile>{"LongAnswers", {kServiceName, "long", 1, 100}},
                        std::pair<const char*, Hostile>{
                            "Introspection", {"org.freedesktop.DBus.Introspectable", "Introspect", 0, 400}})),
    nameOfCase);

TEST_P(ClientsThatRead, GetEveryAnswerAtFullRate) {
    World world(GetParam());
    constexpr int kCalls = 20000;
    constexpr int kInFlight = 64;
    struct Progress {
        int answered = 0;
        int failed = 0;
    } progress;
    auto count = [](sd_bus_message* reply, void* data, sd_bus_error*) {
        auto* seen = static_cast<Progress*>(data);
        (sd_bus_message_is_method_error(reply, nullptr) ? seen->failed : seen->answered)++;
        return 0;
    };
    const std::string payload(400, 'x');
    const gint64 deadline = g_get_monotonic_time() + 60 * G_USEC_PER_SEC;
    for (int sent = 0; progress.answered + progress.failed < kCalls;) {
        while (sent < kCalls && sent - progress.answered - progress.failed < kInFlight) {
            ASSERT_GE(sd_bus_call_method_async(world.bus(), nullptr, kServiceName, "/", kServiceName, "echo",
                                               count, &progress, "s", payload.c_str()),
                      0);
            sent++;
        }
        if (sd_bus_process(world.bus(), nullptr) == 0)
            sd_bus_wait(world.bus(), 100000);
        ASSERT_LT(g_get_monotonic_time(), deadline) << progress.answered << " answered";
    }
    EXPECT_EQ(progress.answered, kCalls);
}

INSTANTIATE_TEST_SUITE_P(All, ClientsThatRead, testing::Values(kTelling, kTellingNothing),
                         [](const auto& which) { return which.index ? "AndArePinged" : "AsTheDaemonTells"; });

// A program that waits for each answer before the next call does not answer a Ping meanwhile.
TEST(ClientThatWaits, GetsEveryAnswerWithoutAPing) {
    World world(kTelling);
    const std::string payload(4000, 'x');
    for (int i = 0; i < 2000; i++)
        ASSERT_TRUE(world.call(payload)) << i;
}

class Load : public RealBusTest {};

TEST_F(Load, ATurnEndsWhenItsHandlersTakeLong) {
    WireConnection client(engine(), QSBus::Public);
    int handled = 0;
    m_handlers["hold"] = [&](QSHandle*, QSMessage*) {
        const gint64 end = g_get_monotonic_time() + 2000;
        while (g_get_monotonic_time() < end) {
        }
        handled++;
    };
    send(client.bus(), "hold", "{}");
    ASSERT_TRUE(m_engine->until([&] { return handled == 1; }));
    for (int i = 0; i < 64; i++)
        send(client.bus(), "hold", "{}");
    handled = 0;
    ASSERT_TRUE(hasInput(m_public));
    for (int turn = 1; handled < 64 && turn < 100; turn++) {
        const int before = handled;
        g_main_context_iteration(nullptr, TRUE);
        EXPECT_LE(handled - before, 4) << turn;
    }
    EXPECT_TRUE(m_engine->until([&] { return handled == 64; }));
}

TEST_F(Load, ARefusalThatCannotBeQueuedEndsNothing) {
    WireConnection client(engine(), QSBus::Private);
    const auto follower = m_engine->client(QSBus::Private);
    size_t call = 0;
    QSMessage* followed = request(*follower, call);
    ASSERT_TRUE(reply(followed, "{}"));
    m_engine->settle();
    sd_bus_message* answer = nullptr;
    uint32_t daemon = 0;
    ASSERT_GE(sd_bus_call_method(client.bus(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "GetConnectionUnixProcessID", nullptr, &answer, "s",
                                 "org.freedesktop.DBus"),
              0);
    ASSERT_GT(sd_bus_message_read(answer, "u", &daemon), 0);
    sd_bus_message_unref(answer);
    for (int i = 0; i < 3; i++)
        ASSERT_GE(sd_bus_call_method_async(client.bus(), nullptr, kServiceName, "/", kServiceName, "nothing",
                                           nullptr, nullptr, ""),
                  0);
    sd_bus_flush(client.bus());
    ASSERT_TRUE(hasInput(m_private));
    kill(static_cast<pid_t>(daemon), SIGSTOP);
    while (respond(followed, "{}")) {
    }
    EXPECT_EQ(m_error.code(), -ENOBUFS);
    for (int turn = 0; turn < 20; turn++)
        g_main_context_iteration(nullptr, FALSE);
    EXPECT_NE(m_private->source, nullptr);
    engine().buses().stopDaemon(QSBus::Private);
}

TEST_F(Load, RequestsOfOneUserDoNotFillTheLog) {
    WireConnection client(engine(), QSBus::Public);
    size_t handled = 0;
    m_handlers["hold"] = [&](QSHandle*, QSMessage*) {
        handled++;
        PrvPrintErr({"refused", 1}, "a call of this test");
    };
    send(client.bus(), "hold", "{}");
    ASSERT_TRUE(m_engine->until([&] { return handled == 1; }));
    testing::internal::CaptureStderr();
    const gint64 begin = g_get_monotonic_time();
    for (int i = 0; i < 5000; i++)
        send(client.bus(), "hold", "{}");
    const bool all = m_engine->until([&] { return handled == 5001; });
    const gint64 seconds = (g_get_monotonic_time() - begin) / G_USEC_PER_SEC + 1;
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(all);
    gint64 lines = 0;
    for (size_t at = 0; (at = text.find("a call of this test", at)) != std::string::npos; at++)
        lines++;
    EXPECT_GE(lines, 999);
    EXPECT_LE(lines, 1000 + 50 * seconds);
}

TEST_F(Load, ManyClientsShareOneRuleAndFewHaveTheirOwn) {
    std::vector<std::unique_ptr<BusClient>> clients;
    size_t call = 0;
    for (int i = 0; i < 70; i++) {
        clients.push_back(m_engine->client(QSBus::Public));
        ASSERT_TRUE(QSSubscriptionAdd(m_public, "key", request(*clients.back(), call), m_error)) << i;
    }
    m_engine->settle();
    EXPECT_EQ(m_public->sharedWatch.state, SharedWatch::State::Installed);
    auto withOwnRule = [&] {
        size_t count = 0;
        for (const auto& [name, peer] : m_public->peers)
            count += peer->watch ? 1 : 0;
        return count;
    };
    EXPECT_EQ(withOwnRule(), 0u);
    clients.resize(10);
    ASSERT_TRUE(m_engine->until([&] { return m_cancelled.size() == 60; }));
    m_engine->settle();
    EXPECT_EQ(m_public->sharedWatch.state, SharedWatch::State::None);
    EXPECT_EQ(withOwnRule(), 10u);
    clients.resize(9);
    EXPECT_TRUE(m_engine->until([&] { return m_cancelled.size() == 61; }));
}
