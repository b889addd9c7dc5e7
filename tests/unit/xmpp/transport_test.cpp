// SPDX-License-Identifier: GPL-3.0-only
// The connection over real sockets: connecting, losing it in every phase, and never blocking the loop.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "tests/fakes/logcapture.h"
#include "tests/unit/xmpp/connection.h"

namespace {

struct Place {
    const char* name;
    const char* host;
    const char* listenOn;
};
class Places : public Connection, public testing::WithParamInterface<Place> {};

TEST_P(Places, AreReachedOnOneDescriptorNumber) {
    start(logInAndWait, GetParam().host, GetParam().listenOn);
    ASSERT_TRUE(connect());
    const int number = client->socket();
    EXPECT_GE(number, 0);
    ASSERT_TRUE(waitFor([this] { return isConnected(); })) << server->failure();
    EXPECT_EQ(client->socket(), number);
    EXPECT_EQ(listener.events, Events{"connect"});
    client->disconnect();
    EXPECT_EQ(client->socket(), -1);
    EXPECT_EQ(listener.events, (Events{"connect", "disconnect 17"}));
}

INSTANTIATE_TEST_SUITE_P(All, Places,
                         testing::Values(Place{"IPv4", "127.0.0.1", "127.0.0.1"}, Place{"IPv6", "::1", "::1"},
                                         Place{"ByName", "localhost", "127.0.0.1"}),
                         [](const auto& each) { return each.param.name; });

TEST_F(Connection, OneDescriptorIsLeftOfTheAttempts) {
    start(logInAndWait);
    logIn();
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        const int fd = std::stoi(entry.path().filename());
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 && peer.sin_family == AF_INET &&
            ntohs(peer.sin_port) == server->port())
            found++;
    }
    EXPECT_EQ(found, 1);
}

TEST_F(Connection, TheSocketIsSetUpForALongLifeOnABadNetwork) {
    start(logInAndWait);
    logIn();
    const auto option = [this](int level, int name) {
        int value = 0;
        socklen_t length = sizeof value;
        getsockopt(client->socket(), level, name, &value, &length);
        return value;
    };
    EXPECT_NE(option(IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_NE(fcntl(client->socket(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(client->socket(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(Connection, ARefusalIsReportedOnce) {
    makeClient("127.0.0.1", freePort());
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); }));
    settle();
    EXPECT_EQ(listener.events, Events{"disconnect 9"});
    EXPECT_EQ(client->socket(), -1);
}

TEST_F(Connection, AnUnknownNameIsReportedOnce) {
    makeClient("no-such-host.invalid", 5222);
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); }, 60'000));
    settle();
    EXPECT_EQ(listener.events, Events{"disconnect 10"});
}

TEST_F(Connection, NoDescriptorLeftIsReportedOnceWithinConnect) {
    start(logInAndWait);
    rlimit old{};
    getrlimit(RLIMIT_NOFILE, &old);
    rlimit none = old;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &none);
    const bool connected = client->connect("", nullptr);
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_FALSE(connected);
    EXPECT_EQ(listener.events, Events{"disconnect 9"});
}

// --- servers that go wrong in each phase

struct Phase {
    const char* name;
    ScriptedServer::Script script;
    Events events;
};
class Phases : public Connection, public testing::WithParamInterface<Phase> {};

TEST_P(Phases, EndInOneReport) {
    start(GetParam().script);
    client->setDeadline(300);
    listener.atConnect = [this] { client->setPresence(kService, gloox::Presence::Available, 0, "online"); };
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); })) << server->failure();
    settle();
    EXPECT_EQ(listener.events, GetParam().events);
    EXPECT_EQ(client->socket(), -1);
    EXPECT_EQ(client->recv(10), gloox::ConnNotConnected);
    EXPECT_EQ(listener.events, GetParam().events);
}

constexpr char kPlain[] =
    "<mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><mechanism>PLAIN</mechanism></mechanisms>";
constexpr char kHeader[] =
    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
    "xmlns:stream='http://etherx.jabber.org/streams' "
    "id='s' version='1.0'>";

INSTANTIATE_TEST_SUITE_P(
    All, Phases,
    testing::Values(
        Phase{"ResetBehindTheHeader",
              [](Peer& peer) {
                  peer.until("version='1.0'>");
                  peer.reset();
              },
              {"disconnect 7"}},
        Phase{"CloseBehindTheHeader", [](Peer& peer) { peer.until("version='1.0'>"); }, {"disconnect 3"}},
        Phase{"CloseBehindItsOwnHeader",
              [](Peer& peer) {
                  peer.until("version='1.0'>");
                  peer.send(kHeader);
              },
              {"disconnect 3"}},
        Phase{"SilenceFromTheStart", [](Peer& peer) { peer.untilEnd(); }, {"disconnect 7"}},
        Phase{"SilenceBehindTheHeader",
              [](Peer& peer) {
                  peer.until("version='1.0'>");
                  peer.send(kHeader);
                  peer.untilEnd();
              },
              {"disconnect 7"}},
        Phase{"SilenceInTheLogin",
              [](Peer& peer) {
                  peer.openStream(kPlain);
                  peer.untilEnd();
              },
              {"disconnect 7"}},
        Phase{"SilenceInTheBinding",
              [](Peer& peer) {
                  peer.authenticate();
                  peer.openStream("<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>");
                  peer.untilEnd();
              },
              {"disconnect 7"}},
        Phase{"ALoginThatIsRefused",
              [](Peer& peer) {
                  peer.openStream(kPlain);
                  peer.until("</auth>");
                  peer.send(
                      "<failure xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><not-authorized/></failure>"
                      "</stream:stream>");
                  peer.untilEnd();
              },
              {"disconnect 16"}},
        Phase{"NoMechanismThatWeKnow",
              [](Peer& peer) {
                  peer.openStream(
                      "<mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><mechanism>X-ODD</mechanism>"
                      "</mechanisms><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>");
                  peer.untilEnd();
              },
              {"disconnect 12"}},
        Phase{"ABindingThatIsRefused",
              [](Peer& peer) {
                  peer.authenticate();
                  peer.openStream("<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>");
                  const std::string request = peer.until("</iq>");
                  const std::size_t begin = request.find("id='") + 4;
                  peer.send(
                      "<iq type='error' id='" + request.substr(begin, request.find('\'', begin) - begin) +
                      "'><error type='cancel'><conflict xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>"
                      "</iq>");
                  peer.untilEnd();
              },
              {"disconnect 1"}},
        Phase{
            "AnOldStream",
            [](Peer& peer) {
                peer.until("version='1.0'>");
                peer.send(
                    "<stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams'>");
                peer.untilEnd();
            },
            {"disconnect 2"}},
        Phase{"NoXml",
              [](Peer& peer) {
                  peer.until("version='1.0'>");
                  peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
                  peer.untilEnd();
              },
              {"disconnect 8"}},
        Phase{"ResetInTheStream",
              [](Peer& peer) {
                  peer.logIn();
                  peer.until("<presence");
                  peer.reset();
              },
              {"connect", "disconnect 7"}}),
    [](const auto& each) { return each.param.name; });

TEST_F(Connection, TheDeadlineEndsWithTheLogin) {
    start(logInAndWait);
    client->setDeadline(2'000);  // long enough for the login on a busy machine
    logIn();
    runFor(2'200);
    EXPECT_EQ(listener.events, Events{"connect"});
}

TEST_F(Connection, TheDeadlineCoversTheConnectToo) {
    const BlackHole hole;
    makeClient("127.0.0.1", hole.port());
    client->setDeadline(200);
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); }));
    settle();
    EXPECT_EQ(listener.events, Events{"disconnect 9"});
}

TEST_F(Connection, TheDeadlineIsAMinute) {
    const BlackHole hole;
    makeClient("127.0.0.1", hole.port());
    ASSERT_TRUE(connect());
    GMainContext* context = g_main_context_default();
    ASSERT_TRUE(g_main_context_acquire(context));
    int priority = 0, timeout = 0;
    GPollFD polled[16];
    g_main_context_prepare(context, &priority);
    g_main_context_query(context, G_MAXINT, &timeout, polled, 16);
    g_main_context_release(context);
    EXPECT_GT(timeout, 50'000);
    EXPECT_LE(timeout, 60'000);
}

// The reset can arrive during the attempt or after it.
TEST_F(Connection, AResetAtOnceIsReportedOnce) {
    start([](Peer& peer) { peer.reset(); });
    ASSERT_TRUE(connect());
    ASSERT_TRUE(waitFor([this] { return isOver(); }));
    settle();
    EXPECT_THAT(listener.events, testing::AnyOf(Events{"disconnect 7"}, Events{"disconnect 9"}));
    EXPECT_EQ(client->socket(), -1);
}

// --- local addresses

struct Local {
    const char* name;
    const char* address;
    const char* seen;
    const char* said;
};
class Locals : public Connection, public testing::WithParamInterface<Local> {};

TEST_P(Locals, AreBoundWhereTheyCanBe) {
    std::string seen;
    start([&](Peer& peer) {
        seen = peer.address();
        logInAndWait(peer);
    });
    const LogCapture log;
    ASSERT_TRUE(connect(GetParam().address));
    ASSERT_TRUE(waitFor([this] { return isConnected(); })) << server->failure();
    disposeClient();
    server->stop();
    EXPECT_EQ(seen, GetParam().seen);
    const std::string said = GetParam().said;
    EXPECT_EQ(log.lines(), said.empty() ? Events{} : Events{"bindLocally: " + said});
}

INSTANTIATE_TEST_SUITE_P(
    All, Locals,
    testing::Values(
        Local{"None", "", "127.0.0.1", ""}, Local{"Given", "127.0.0.2", "127.0.0.2", ""},
        Local{"NoLongerOurs", "192.0.2.77", "127.0.0.1",
              "Cannot use local address 192.0.2.77 (Cannot assign requested address), connecting from any"},
        Local{"OfTheOtherFamily", "::1", "127.0.0.1", ""},
        Local{"NoAddress", "eth0", "127.0.0.1", "Local address eth0 is no IP address, connecting from any"}),
    [](const auto& each) { return each.param.name; });

}  // namespace
