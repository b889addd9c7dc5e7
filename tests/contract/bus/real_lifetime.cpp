// SPDX-License-Identifier: GPL-3.0-only
// Clients, requests, connections and the process itself leave nothing behind on real buses.
#include <sys/wait.h>
#include <unistd.h>

#include "platform/bus/message.h"
#include "tests/contract/bus/real_fixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Lifetime : public RealBusTest {};

TEST_F(Lifetime, AThousandShortLivedClientsLeaveNothing) {
    m_handlers["hold"] = [&](QSHandle* handle, QSMessage* message) {
        EXPECT_TRUE(QSMessageReply(handle, message, "{}", m_error)) << m_error.message();
    };
    size_t descriptors = openDescriptors();
    for (int i = 0; i < 1000; i++) {
        const auto client = m_engine->client(i % 2 ? QSBus::Public : QSBus::Private);
        size_t call = client->call("/", "hold", "{}");
        ASSERT_TRUE(has(*client, call, 1)) << i;
        ASSERT_THAT(client->answers(call), ElementsAre("reply {}"));
    }
    EXPECT_TRUE(m_engine->until([&] { return m_private->peers.empty() && m_public->peers.empty(); }));
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(Lifetime, PublicRequestsOfClientsThatDieBeforeTheyAreKnownAreRefusedWithOneLine) {
    testing::internal::CaptureStderr();
    for (int i = 0; i < 30; i++) {
        WireConnection client(engine(), QSBus::Public);
        send(client.bus(), "hold", "{}");
        sd_bus_flush(client.bus());
        ASSERT_TRUE(hasInput(m_public));
    }
    m_engine->settle();
    EXPECT_TRUE(m_engine->until([&] { return m_public->peers.empty(); }));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_THAT(m_kept, IsEmpty());
    EXPECT_THAT(log, HasSubstr("hold of the client :1."));
    EXPECT_THAT(log, HasSubstr("is refused: it left before the bus told who it is"));
    // More than one line only when this took more than a second.
    EXPECT_LE(std::count(log.begin(), log.end(), '\n'), 10);
}

TEST_F(Lifetime, PrivateRequestsOfClientsThatLeaveAtOnceAreCarriedOutInOrder) {
    Strings sent, handled;
    m_handlers["secret"] = [&](QSHandle*, QSMessage* message) {
        handled.emplace_back(QSMessageGetPayload(message));
    };
    m_handlers["watch"] = [&](QSHandle* handle, QSMessage* message) {
        handled.emplace_back(QSMessageGetPayload(message));
        EXPECT_STREQ(QSMessageGetApplicationID(message), "");
        EXPECT_FALSE(QSSubscriptionAdd(handle, "key", message, m_error));
        EXPECT_FALSE(QSMessageReply(handle, message, "nobody", m_error));
    };
    for (int i = 0; i < 30; i++) {
        WireConnection client(engine(), QSBus::Private);
        for (const char* method : {"watch", "secret"}) {
            sent.push_back(method + std::to_string(i));
            send(client.bus(), method, sent.back());
        }
        sd_bus_flush(client.bus());
        ASSERT_TRUE(hasInput(m_private));
    }
    EXPECT_TRUE(m_engine->until([&] { return handled.size() == sent.size(); }));
    EXPECT_EQ(handled, sent);
    EXPECT_TRUE(m_engine->until([&] { return m_private->peers.empty(); }));
}

TEST_F(Lifetime, AHandlerOfAClientThatLeftAtOnceMayEndTheConnection) {
    m_handlers["secret"] = [&](QSHandle* handle, QSMessage*) {
        EXPECT_TRUE(QSUnregister(handle, m_error)) << m_error.message();
        m_private = nullptr;
    };
    {
        WireConnection client(engine(), QSBus::Private);
        send(client.bus(), "secret", "{}");
        send(client.bus(), "secret", "{}");
        sd_bus_flush(client.bus());
        ASSERT_TRUE(hasInput(m_private));
    }
    EXPECT_TRUE(m_engine->until([&] { return m_private == nullptr; }));
}

TEST_F(Lifetime, AHandlerThatThrowsEndsItsRequestAlone) {
    const auto client = m_engine->client(QSBus::Public);
    m_handlers["hold"] = [&](QSHandle*, QSMessage* message) {
        throw std::runtime_error(QSMessageGetPayload(message));
    };
    m_handlers["follow"] = [&](QSHandle* handle, QSMessage* message) {
        ASSERT_TRUE(QSSubscriptionAdd(handle, "key", message, m_error));
        EXPECT_TRUE(QSMessageReply(handle, message, "{}", m_error));
    };
    m_onCancel = [](QSHandle*, QSMessage*) { throw 1; };
    testing::internal::CaptureStderr();
    size_t thrown = client->call("/", "hold", "what it said");
    size_t next = client->call("/", "follow", "{}");
    EXPECT_TRUE(has(*client, thrown, 1) && has(*client, next, 1));
    EXPECT_THAT(client->answers(thrown), ElementsAre("error com.zelt.Error.NoAnswer"));
    EXPECT_THAT(client->answers(next), ElementsAre("reply {}"));
    client->cancel(next);
    EXPECT_TRUE(has(*client, next, 3));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_THAT(log, HasSubstr("Handling hold failed: what it said"));
    EXPECT_THAT(log, HasSubstr("Handling follow failed"));
}

TEST_F(Lifetime, TheEndOfAClientIsNoticedAtAnyTime) {
    m_handlers["follow"] = [&](QSHandle* handle, QSMessage* message) {
        QSSubscriptionAdd(handle, "key", message, nullptr);
    };
    for (int turns = 0; turns < 60; turns++) {
        auto client = m_engine->client(QSBus::Public);
        client->call("/", "follow", "{}");
        for (int i = 0; i < turns; i++)
            engine().turn();
        client.reset();
        ASSERT_TRUE(m_engine->until([&] { return m_public->peers.empty(); })) << turns;
        ASSERT_THAT(keysOf(m_public, "key"), IsEmpty()) << turns;
    }
}

// A service that does not read for a while: the daemon's outgoing queue for it is full, and the daemon
// drops its own signals.
class FullInbox : public RealBusTest, public testing::WithParamInterface<QSBus> {
  protected:
    QSHandle* handle() const { return handleOf(GetParam()); }
    // Sends more than the daemon queues for the service; the daemon refuses the rest.
    void fill(WireConnection& flooder) {
        const std::string payload(3000, 'x');
        for (int i = 0; i < 800; i++)
            send(flooder.bus(), "hold", payload);
        sd_bus_flush(flooder.bus());
        isThere(flooder, "org.freedesktop.DBus");  // the daemon has received all of it
    }
    // Asks the daemon on a connection other than the service's.
    static bool isThere(WireConnection& observer, const std::string& name) {
        sd_bus_message* reply = nullptr;
        int there = 0;
        EXPECT_GE(
            sd_bus_call_method(observer.bus(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "NameHasOwner", nullptr, &reply, "s", name.c_str()),
            0);
        EXPECT_GE(sd_bus_message_read(reply, "b", &there), 0);
        sd_bus_message_unref(reply);
        return there != 0;
    }
};
INSTANTIATE_TEST_SUITE_P(, FullInbox, testing::Values(QSBus::Private, QSBus::Public), busOfCase);

TEST_P(FullInbox, NoItemCountsAsTakenByAClientThatDiedMeanwhile) {
    constexpr size_t kClients = 8;
    WireConnection observer(engine(), GetParam());
    WireConnection flooder(engine(), GetParam());
    std::vector<std::unique_ptr<BusClient>> clients;
    Strings names;
    for (size_t i = 0; i < kClients; i++) {
        clients.push_back(m_engine->client(GetParam()));
        size_t call = 0;
        QSMessage* message = request(*clients[i], call);
        ASSERT_TRUE(QSSubscriptionAdd(handle(), std::to_string(i).c_str(), message, m_error));
        names.push_back(message->peer->name);
        ASSERT_TRUE(reply(message, "{}"));
    }
    const auto living = m_engine->client(GetParam());
    size_t livingCall = 0;
    ASSERT_TRUE(QSSubscriptionAdd(handle(), "living", request(*living, livingCall), m_error));
    ASSERT_TRUE(reply(m_kept.back().get(), "{}"));
    m_kept.clear();
    m_handlers["hold"] = [](QSHandle*, QSMessage*) {};
    fill(flooder);
    clients.clear();
    for (const std::string& name : names) {
        while (isThere(observer, name)) {
        }
    }
    QSZeltServiceReadReceived(m_service);
    for (size_t i = 0; i < kClients; i++)
        EXPECT_FALSE(QSSubscriptionRespond(m_service, std::to_string(i).c_str(), "item", m_error)) << i;
    EXPECT_TRUE(QSSubscriptionRespond(m_service, "living", "item", m_error)) << m_error.message();
    EXPECT_TRUE(m_engine->until([&] { return m_cancelled.size() == kClients; })) << m_cancelled.size();
    EXPECT_TRUE(has(*living, livingCall, 2));
    EXPECT_TRUE(m_engine->until([&] { return handle()->presence.queryConnection == nullptr; }));
}

TEST_P(FullInbox, AnIdentityWhoseAnswerWasLostIsAskedAgain) {
    WireConnection flooder(engine(), GetParam());
    auto client = m_engine->client(GetParam(), "com.example.app");
    std::vector<std::string> ids;
    bool subscribed = false;
    m_handlers["hold"] = [](QSHandle*, QSMessage*) {};
    m_handlers["follow"] = [&](QSHandle* handle, QSMessage* message) {
        ids.emplace_back(QSMessageGetApplicationID(message));
        subscribed = QSSubscriptionAdd(handle, "key", message, m_error);
    };
    client->call("/", "follow", "{}");
    ASSERT_TRUE(hasInput(handle()));
    fill(flooder);
    // Reads up to the request of the new client. The queries that it causes meet the full queue.
    while (handle()->peers.empty())
        ASSERT_TRUE(hasInput(handle()) && busProcess(handle(), 1));
    sd_bus_flush(handle()->bus);
    for (int i = 0; i < 20; i++)
        isThere(flooder, "org.freedesktop.DBus");
    ASSERT_THAT(ids, IsEmpty());
    ASSERT_TRUE(m_engine->until([&] { return ids.size() == 1; }));
    EXPECT_THAT(ids[0], testing::StartsWith("com.example.app "));
    EXPECT_TRUE(subscribed) << m_error.message();
    client.reset();
    EXPECT_TRUE(m_engine->until([&] { return m_cancelled.size() == 1; }));
}

TEST_F(Lifetime, EmptyListsOfKeysAreRemoved) {
    auto client = m_engine->client(QSBus::Public);
    size_t call = 0;
    for (int i = 0; i < 50; i++)
        ASSERT_TRUE(QSSubscriptionAdd(m_public, std::to_string(i).c_str(), request(*client, call), m_error));
    EXPECT_EQ(m_public->byKey.size(), 50u);
    client.reset();
    EXPECT_TRUE(m_engine->until([&] { return m_cancelled.size() == 50; }));
    EXPECT_TRUE(m_public->byKey.empty());
}

TEST_F(Lifetime, ACallThatWasAnsweredIsForgotten) {
    auto other = m_engine->otherService("com.zelt.other");
    m_engine->settle();
    size_t replies = 0;
    auto count = [](QSHandle*, QSMessage*, void* context) {
        ++*static_cast<size_t*>(context);
        return true;
    };
    for (const char* payload : {"{}", R"({"subscribe":true})", R"({"subscribe":true})"})
        ASSERT_TRUE(QSCall(m_private, "zelt://com.zelt.other/x", payload, count, &replies, nullptr, m_error));
    ASSERT_TRUE(m_engine->until([&] { return other->calls().size() == 3; }));
    other->reply(0, "{}");
    other->reply(1, "{}");
    other->refuse(2, "com.example.Error", "no");
    ASSERT_TRUE(m_engine->until([&] { return replies == 3; }));
    EXPECT_EQ(m_private->calls.size(), 1u);
    other.reset();
    EXPECT_TRUE(
        m_engine->until([&] { return m_private->calls.empty() && m_private->answeredCalls.empty(); }));
}

TEST_F(Lifetime, ACallersEndFunctionSaysOnceWhyNoAnswerFollows) {
    auto other = m_engine->otherService("com.zelt.other");
    m_engine->settle();
    std::vector<std::string> ends;
    const auto ignore = [](QSHandle*, QSMessage*, void*) { return true; };
    auto note = [](QSHandle*, QSMessage* message, void* context) {
        static_cast<std::vector<std::string>*>(context)->push_back(QSMessageGetPayload(message));
        return true;
    };
    QSToken tokens[4] = {};
    for (QSToken& token : tokens) {
        ASSERT_TRUE(QSCall(m_private, "zelt://com.zelt.other/x", R"({"subscribe":true})", ignore, nullptr,
                           &token, m_error));
        ASSERT_TRUE(QSCallSetEndFunction(m_private, token, note, &ends, m_error));
    }
    ASSERT_TRUE(m_engine->until([&] { return other->calls().size() == 4; }));
    for (size_t call : {0, 1, 3})
        other->reply(call, "{}");
    other->refuse(2, "com.example.Error", "an error is told as the reply, not as an end");
    other->end(0);
    ASSERT_TRUE(m_engine->until([&] { return !ends.empty(); }));
    EXPECT_FALSE(QSCallSetEndFunction(m_private, tokens[0], note, &ends, m_error));
    EXPECT_TRUE(QSCallCancel(m_private, tokens[1], m_error)) << m_error.message();
    other.reset();
    ASSERT_TRUE(m_engine->until([&] { return m_private->calls.empty(); }));
    EXPECT_THAT(ends, ElementsAre(R"({"reason":"released"})", R"({"reason":"gone"})"));
}

TEST_F(Lifetime, UnregisteringInsideAHandlerIsAllowed) {
    const auto client = m_engine->client(QSBus::Public);
    m_handlers["hold"] = [&](QSHandle* handle, QSMessage* message) {
        EXPECT_TRUE(QSUnregister(handle, m_error)) << m_error.message();
        EXPECT_STREQ(QSMessageGetPayload(message), "{}");
        EXPECT_FALSE(QSMessageReply(handle, message, "{}", m_error));
        m_public = nullptr;
    };
    client->call("/", "hold", "{}");
    client->call("/", "hold", "{}");
    EXPECT_TRUE(m_engine->until([&] { return m_public == nullptr; }));
}

TEST_F(Lifetime, AMainLoopInsideAHandlerHandlesNothingOfTheSameBus) {
    const auto client = m_engine->client(QSBus::Public);
    m_handlers["follow"] = [&](QSHandle* handle, QSMessage* message) {
        ASSERT_TRUE(hasInput(m_public));
        EXPECT_FALSE(g_main_context_iteration(nullptr, FALSE));
        EXPECT_THAT(m_kept, IsEmpty());
        EXPECT_TRUE(QSMessageReply(handle, message, "{}", m_error));
    };
    size_t known = 0;
    EXPECT_TRUE(reply(request(*client, known), "{}"));
    m_kept.clear();
    size_t call = client->call("/", "follow", "{}");
    client->call("/", "hold", "{}");
    ASSERT_TRUE(has(*client, call, 1) && arrived(1));
}

class LostBus : public RealBusTest, public testing::WithParamInterface<QSBus> {};
INSTANTIATE_TEST_SUITE_P(, LostBus, testing::Values(QSBus::Private, QSBus::Public), busOfCase);

TEST_P(LostBus, EndsTheMainLoop) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = request(*client, call);
    engine().buses().stopDaemon(GetParam());
    bool overdue = false;
    guint guard = g_timeout_add(
        5000,
        [](gpointer data) -> gboolean {
            *static_cast<bool*>(data) = true;
            return G_SOURCE_CONTINUE;
        },
        &overdue);
    // The engine's own connections are not served here, so that they end nothing.
    testing::internal::CaptureStderr();
    g_main_loop_run(m_engine->loop());
    const std::string log = testing::internal::GetCapturedStderr();
    g_source_remove(guard);
    EXPECT_FALSE(overdue);
    EXPECT_THAT(log, HasSubstr(GetParam() == QSBus::Public
                                   ? "The public bus connection of com.zelt.contract is lost"
                                   : "The private bus connection of com.zelt.contract is lost"));
    EXPECT_FALSE(respond(message, "late"));
    QSHandle* lost = handleOf(GetParam());
    (GetParam() == QSBus::Public ? m_public : m_private) = nullptr;
    EXPECT_FALSE(QSUnregister(lost, m_error));
}

namespace {

// As in a service whose tables are static: they are destroyed after main, when the connection is closed.
KeptMessage keptAtExit[2];
QSHandle* exitHandles[3];

bool keep(QSHandle* handle, QSMessage* message, void* loop) {
    QSSubscriptionAdd(handle, "key", message, nullptr);
    (keptAtExit[0] ? keptAtExit[1] : keptAtExit[0]) = KeptMessage(message);
    if (keptAtExit[1])
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return true;
}

[[noreturn]] void exitWithKeptMessages() {
    static const QSMethod methods[] = {{.name = "hold", .handler = keep}, {}};
    BusError error;
    QSZeltService* service = nullptr;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    QSRegisterZeltService(kServiceName, &service, error);
    QSZeltServiceRegisterCategory(service, "/", methods, nullptr, loop, error);
    QSGmainAttachZeltService(service, loop, error);
    const auto answered = [](QSHandle*, QSMessage*, void*) { return true; };
    for (QSBus bus : {QSBus::Private, QSBus::Public}) {
        QSHandle*& client = exitHandles[bus == QSBus::Public ? 1 : 0];
        QSRegister(bus, nullptr, &client, error);
        QSCall(client, "zelt://com.zelt.contract/hold", "{}", answered, nullptr, nullptr, error);
        QSGmainAttach(client, loop, error);
    }
    g_main_loop_run(loop);
    // The shutdown of a service: the private connection is unregistered, the public one is not.
    exitHandles[2] = QSZeltServiceGetPublicConnection(service);
    QSUnregister(QSZeltServiceGetPrivateConnection(service), error);
    g_main_loop_unref(loop);
    std::exit(keptAtExit[1] ? 0 : 1);
}

}  // namespace

TEST(ProcessExit, AllowsMessagesThatStaticTablesStillKeep) {
    RealBuses buses;
    pid_t pid = fork();
    if (pid == 0)
        exitWithKeptMessages();
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
