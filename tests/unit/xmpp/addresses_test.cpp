// SPDX-License-Identifier: GPL-3.0-only
// Host names: one with several addresses, which are tried in order, and one that no name server answers.
//
// The resolver of this test program knows two names of its own: one with an IPv6 and an IPv4 address in this
// order, and one that it reports as unknown when the test says so.
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tests/fakes/logcapture.h"
#include "tests/unit/xmpp/connection.h"
#include "xmpp/lookup.h"

namespace {

constexpr char kTwoHomes[] = "two-homes.example";
constexpr char kSlow[] = "slow.example";

std::mutex mutex;
std::condition_variable answered;
bool nameServerAnswers = false;

using Resolver = int (*)(const char*, const char*, const addrinfo*, addrinfo**);

}  // namespace

// Replaces the system's own, to which it passes all other names.
extern "C" int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** found) {
    static const auto next = reinterpret_cast<Resolver>(dlsym(RTLD_NEXT, "getaddrinfo"));
    const bool ours = host && !(hints && hints->ai_flags & AI_NUMERICHOST);
    if (ours && strcmp(host, kSlow) == 0) {
        std::unique_lock lock(mutex);
        answered.wait(lock, [] { return nameServerAnswers; });
        return EAI_NONAME;
    }
    if (!ours || strcmp(host, kTwoHomes) != 0)
        return next(host, service, hints, found);
    if (const int result = next("::1", service, hints, found); result != 0)
        return result;
    return next("127.0.0.1", service, hints, &(*found)->ai_next);
}

namespace {

class TwoHomes : public Connection {
  protected:
    int refusals() const {
        const Events lines = m_log.lines();
        return static_cast<int>(std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.find(": Cannot connect to ") != std::string::npos;
        }));
    }

  private:
    LogCapture m_log;
};

TEST_F(TwoHomes, AreTriedOneAfterTheOther) {
    start(logInAndWait, kTwoHomes, "127.0.0.1");
    logIn();
    EXPECT_EQ(refusals(), 1) << "nobody listens at the first";
    EXPECT_EQ(listener.events, Events{"connect"});
}

TEST_F(TwoHomes, AreRefusedOnceBothAre) {
    makeClient(kTwoHomes, freePort());
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); }));
    settle();
    EXPECT_EQ(refusals(), 2);
    EXPECT_EQ(listener.events, Events{"disconnect 9"});
}

TEST_F(TwoHomes, BeginWithTheOneThatTheLocalAddressCanReach) {
    start(logInAndWait, kTwoHomes, "127.0.0.1");
    ASSERT_TRUE(connect("127.0.0.2"));
    ASSERT_TRUE(waitFor([this] { return isConnected(); })) << server->failure();
    EXPECT_EQ(refusals(), 0);
}

// Descriptors of connection attempts that have not been answered yet.
std::set<int> unanswered() {
    std::set<int> found;
    for (int fd = 0; fd < 1024; ++fd) {
        tcp_info info{};
        socklen_t length = sizeof info;
        if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 && info.tcpi_state == TCP_SYN_SENT)
            found.insert(fd);
    }
    return found;
}

// How often the attempt to connect to `host` is repeated; `local` has the family of the other address.
class Patience : public Connection {
  protected:
    int repetitions(const std::string& host, const std::string& local) {
        const BlackHole hole;
        const std::set<int> others = unanswered();
        makeClient(host, hole.port());
        EXPECT_TRUE(connect(local));
        int attempt = -1;
        waitFor([&] {
            for (const int fd : unanswered())
                attempt = others.contains(fd) ? attempt : fd;
            return attempt >= 0;
        });
        int count = -1;
        socklen_t length = sizeof count;
        getsockopt(attempt, IPPROTO_TCP, TCP_SYNCNT, &count, &length);
        disposeClient();
        return count;
    }
};

TEST_F(Patience, IsShortWithASilentAddressWhileThereIsAnother) {
    EXPECT_EQ(repetitions(kTwoHomes, "127.0.0.1"), 2);
    EXPECT_GT(repetitions("127.0.0.1", ""), 2) << "the last one has all the time there is";
    EXPECT_GT(repetitions(kTwoHomes, "::1"), 2);
}

// --- many lookups

// Waits for the threads of lookups that other tests gave up.
bool isAlone() {
    const gint64 end = g_get_monotonic_time() + 60'000'000;
    while (threads() > 1 && g_get_monotonic_time() < end)
        g_usleep(1'000);
    return threads() == 1;
}

TEST(Lookups, AreEightAtOnceAndTheNinthIsRefused) {
    ASSERT_TRUE(isAlone());
    std::vector<std::unique_ptr<xmpp::Lookup>> lookups;
    Events errors;
    const auto done = [&errors](std::vector<xmpp::SocketAddress> addresses, const std::string& error) {
        EXPECT_TRUE(addresses.empty());
        errors.push_back(error);
    };
    for (int i = 0; i < 9; ++i)
        lookups.push_back(std::make_unique<xmpp::Lookup>(kSlow, 5222, g_main_context_default(), done));
    EXPECT_TRUE(errors.empty()) << "never from inside the constructor";
    EXPECT_TRUE(waitFor([&] { return !errors.empty(); }));
    settle();
    EXPECT_EQ(errors, Events{"too many lookups are waiting for a name server"});
    {
        const std::lock_guard lock(mutex);
        nameServerAnswers = true;
    }
    answered.notify_all();
    EXPECT_TRUE(waitFor([&] { return errors.size() == 9; }));
    EXPECT_EQ(std::count(errors.begin(), errors.end(), gai_strerror(EAI_NONAME)), 8);
}

TEST(Lookups, OneAfterTheOtherNeverRunOut) {
    for (int i = 0; i < 20; ++i) {
        std::size_t found = 0;
        std::string said = "nothing";
        const xmpp::Lookup lookup(kTwoHomes, 5222, g_main_context_default(),
                                  [&](std::vector<xmpp::SocketAddress> addresses, const std::string& error) {
                                      found = addresses.size();
                                      said = error;
                                  });
        ASSERT_TRUE(waitFor([&] { return said != "nothing"; }));
        EXPECT_EQ(said, "");
        EXPECT_EQ(found, 2u);
    }
}

// A caller that floods the bus keeps a source of default priority ready all the time.
TEST(Lookups, AreHeardWhileTheLoopIsBusy) {
    const guint busy = g_idle_add_full(
        G_PRIORITY_DEFAULT, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    bool told = false;
    const xmpp::Lookup lookup(kTwoHomes, 5222, g_main_context_default(), [&](auto&&...) { told = true; });
    EXPECT_TRUE(waitFor([&] { return told; }));
    g_source_remove(busy);
}

TEST(Lookups, ThatAreGivenUpCallNobody) {
    bool told = false;
    {
        const xmpp::Lookup lookup(kTwoHomes, 5222, g_main_context_default(), [&](auto&&...) { told = true; });
    }
    runFor(100);
    EXPECT_FALSE(told);
}

}  // namespace
