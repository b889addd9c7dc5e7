// SPDX-License-Identifier: GPL-3.0-only
// A name with several addresses: which comes first, and what follows one that does not answer.
//
// The resolver of this test program knows one name of its own, with an IPv6 and an IPv4 address in this
// order.
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "tests/fakes/logcapture.h"
#include "tests/unit/xmpp/connection.h"

namespace {

constexpr const char* kTwoHomes = "two-homes.example";

using Resolver = int (*)(const char*, const char*, const addrinfo*, addrinfo**);

}  // namespace

// Stands before the system's own; everything else goes through to that one.
extern "C" int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** found) {
    static const auto next = reinterpret_cast<Resolver>(dlsym(RTLD_NEXT, "getaddrinfo"));
    if (!host || strcmp(host, kTwoHomes) != 0 || (hints && hints->ai_flags & AI_NUMERICHOST))
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

// Descriptors of connection attempts that nobody has answered yet.
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

// How often the attempt that connecting to `host` makes is repeated; the other one's family is `local`'s.
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

}  // namespace
