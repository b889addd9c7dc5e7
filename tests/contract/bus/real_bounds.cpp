// SPDX-License-Identifier: GPL-3.0-only
// The limits of the public bus, tested inside the layer: messages that wait for a client that reads later,
// bytes of kept requests, and log lines about unknown clients.
#include <unistd.h>

#include <algorithm>

#include "platform/bus/message.h"
#include "tests/contract/bus/real_fixture.h"

namespace {

// A client of the public bus that stops reading and starts again. The payload of each call is its number.
class ReadsLater : public RealBusTest {
  protected:
    void SetUp() override {
        RealBusTest::SetUp();
        m_handlers["hold"] = [this](QSHandle* handle, QSMessage* message) {
            const std::string answer = QSMessageGetPayload(message) + std::string(4000, ' ');
            m_handled++;
            if (QSMessageReply(handle, message, answer.c_str(), m_error))
                m_sentAnswers.push_back(std::stoi(answer));
        };
        m_client = std::make_unique<WireConnection>(engine(), QSBus::Public);
        const char* name = nullptr;
        ASSERT_GE(sd_bus_get_unique_name(m_client->bus(), &name), 0);
        m_name = name;
    }
    void TearDown() override {
        m_client.reset();
        RealBusTest::TearDown();
    }
    void call() {
        const std::string payload = std::to_string(m_calls++);
        ASSERT_GE(sd_bus_call_method_async(m_client->bus(), nullptr, kServiceName, "/", kServiceName, "hold",
                                           onAnswer, this, "s", payload.c_str()),
                  0);
        sd_bus_flush(m_client->bus());
    }
    const Peer* peer() const {
        const auto found = m_public->peers.find(m_name);
        return found == m_public->peers.end() ? nullptr : found->second.get();
    }
    size_t held() const { return peer() ? peer()->held.size() : 0; }
    // The last messages may still be on their way to the socket: repeats until a query
    // finds nothing more read.
    bool isFull() const { return held() && peer()->unread.gap > 0; }
    // Calls without reading the answers until requests wait for the client to read.
    void fillUp() {
        call();
        ASSERT_TRUE(m_engine->until([&] { return m_answered.size() == 1; }));
        engine().leave(m_client.get());
        for (int i = 0; i < 1000 && !isFull(); i++) {
            call();
            ASSERT_TRUE(m_engine->until([&] { return m_handled == m_calls || isFull(); })) << i;
        }
        ASSERT_EQ(held(), 1u);
    }

    std::unique_ptr<WireConnection> m_client;
    std::string m_name;
    int m_calls = 0;
    int m_handled = 0;
    std::vector<int> m_sentAnswers;  // numbers of the calls that the library has answered, in order
    std::vector<int> m_answered;     // numbers of those whose answers the client has received

  private:
    static int onAnswer(sd_bus_message* reply, void* data, sd_bus_error*) {
        const char* text = "";
        if (sd_bus_message_is_method_error(reply, nullptr))
            return 0;
        EXPECT_GT(sd_bus_message_read(reply, "s", &text), 0);
        static_cast<ReadsLater*>(data)->m_answered.push_back(std::stoi(text));
        return 0;
    }
};

}  // namespace

TEST_F(ReadsLater, GetsWhatWaitedInItsOrderAndEveryFurtherAnswer) {
    fillUp();
    for (int i = 0; i < 20; i++)
        call();
    m_engine->settle();
    EXPECT_EQ(held(), 8u);
    std::vector<int> waiting;
    for (QSMessage* request : peer()->held)
        waiting.push_back(std::stoi(QSMessageGetPayload(request)));
    const size_t before = m_sentAnswers.size();
    EXPECT_LT(m_answered.size(), before);
    engine().join(m_client.get());
    ASSERT_TRUE(m_engine->until([&] { return m_answered.size() == before + 8; })) << m_answered.size();
    EXPECT_EQ(m_answered, m_sentAnswers);
    EXPECT_TRUE(std::is_sorted(m_answered.begin(), m_answered.end()));
    EXPECT_EQ(std::vector<int>(m_answered.end() - 8, m_answered.end()), waiting);
    for (int i = 0; i < 100; i++) {
        const size_t answered = m_answered.size();
        call();
        ASSERT_TRUE(m_engine->until([&] { return m_answered.size() > answered; })) << i;
        EXPECT_EQ(m_answered.back(), m_calls - 1);
    }
    EXPECT_EQ(held(), 0u);
}

TEST_F(ReadsLater, AnItemCountsAsTakenWhenTheClientReadsAndNotBefore) {
    sd_bus_message* wire = nullptr;
    ASSERT_GE(
        sd_bus_message_new_method_call(m_client->bus(), &wire, kServiceName, "/", kServiceName, "follow"), 0);
    ASSERT_GE(sd_bus_message_append(wire, "s", "{}"), 0);
    ASSERT_GE(sd_bus_call_async(m_client->bus(), nullptr, wire, nullptr, nullptr, 0), 0);
    sd_bus_message_unref(wire);
    ASSERT_TRUE(arrived(1));
    ASSERT_TRUE(QSSubscriptionAdd(m_public, "node", m_kept[0].get(), m_error));
    ASSERT_TRUE(reply(m_kept[0].get(), "{}"));
    EXPECT_TRUE(QSSubscriptionRespond(m_service, "node", "item", m_error)) << m_error.message();
    fillUp();
    EXPECT_FALSE(QSSubscriptionRespond(m_service, "node", "item", m_error));
    EXPECT_EQ(m_error.code(), -ENOBUFS);
    EXPECT_THAT(m_error.message(), testing::HasSubstr("does not read"));
    engine().join(m_client.get());
    ASSERT_TRUE(m_engine->until([&] { return held() == 0 && m_answered.size() == m_sentAnswers.size(); }));
    // The client has read everything; the library knows it once the query that is under way is answered.
    EXPECT_TRUE(m_engine->until([&] {
        BusError error;
        return QSSubscriptionRespond(m_service, "node", "item", error);
    }));
}

class KeptRequests : public RealBusTest {
  protected:
    static constexpr size_t kMiB = 1024 * 1024;
    // Calls with the longest payload until a call is refused, and returns how many were kept.
    size_t keptOf(BusClient& client) {
        const size_t before = m_kept.size();
        for (;;) {
            const size_t kept = m_kept.size();
            const size_t call = client.call("/", "hold", std::string(4096, 'x'));
            EXPECT_TRUE(
                m_engine->until([&] { return m_kept.size() > kept || !client.answers(call).empty(); }));
            if (m_kept.size() > kept)
                continue;
            EXPECT_THAT(client.answers(call), testing::ElementsAre("error com.zelt.Error.LimitExceeded"));
            return m_kept.size() - before;
        }
    }
};

TEST_F(KeptRequests, DropTheMessageTheyCameInOnceTheyAreAnswered) {
    const auto client = m_engine->client(QSBus::Public);
    bool heldInHandler = false;
    m_handlers["follow"] = [&](QSHandle* handle, QSMessage* message) {
        m_kept.emplace_back(message);
        const char* payload = QSMessageGetPayload(message);
        EXPECT_TRUE(QSMessageReply(handle, message, "{}", m_error));
        heldInHandler = payload == QSMessageGetPayload(message) && message->wire;
    };
    size_t call = 0;
    QSMessage* atOnce = request(*client, call, "follow", "one");
    EXPECT_TRUE(heldInHandler);
    QSMessage* later = request(*client, call, "hold", "two");
    EXPECT_TRUE(later->wire);
    ASSERT_TRUE(reply(later, "{}"));
    for (QSMessage* message : {atOnce, later}) {
        EXPECT_FALSE(message->wire);
        EXPECT_STREQ(QSMessageGetPayload(message), message == atOnce ? "one" : "two");
        EXPECT_STREQ(QSMessageGetMethod(message), message == atOnce ? "follow" : "hold");
        EXPECT_STREQ(QSMessageGetCategory(message), "/");
        EXPECT_TRUE(respond(message, "{}")) << m_error.message();
    }
    EXPECT_TRUE(has(*client, call, 2));
}

TEST_F(KeptRequests, OfOneClientTakeAPartOfWhatIsFree) {
    const auto client = m_engine->client(QSBus::Public);
    const size_t kept = keptOf(*client);
    EXPECT_GE(kept, 40u);
    // Fewer than the limit for their number.
    EXPECT_LT(kept, 128u);
    EXPECT_LE(m_public->kept.total(), kMiB);
    EXPECT_GE(m_public->kept.total(), kept * 4096);
    m_kept.clear();
    EXPECT_EQ(m_public->kept.total(), 0u);
    EXPECT_EQ(keptOf(*client), kept);
}

TEST_F(KeptRequests, BeyondThePartOfTheirUserAreRefused) {
    const unsigned user = getuid();
    const auto quiet = m_engine->client(QSBus::Public);
    size_t call = 0;
    request(*quiet, call);
    m_kept.clear();
    m_public->kept.add(user, 6 * kMiB);
    const auto client = m_engine->client(QSBus::Public);
    EXPECT_EQ(keptOf(*client), 2u);
    // Another client of this user still has its minimum share.
    EXPECT_EQ(keptOf(*quiet), 2u);
}

TEST_F(KeptRequests, OfAnotherUserLeaveThisOneItsPart) {
    m_public->kept.add(getuid() + 1, 6 * kMiB);
    const auto client = m_engine->client(QSBus::Public);
    EXPECT_GE(keptOf(*client), 25u);
    EXPECT_LE(m_public->kept.total(), 8 * kMiB);
}

namespace {

// A daemon that does not tell who a client is.
class TellsNoIdentity : public RealBusTest {
  protected:
    TellsNoIdentity() {
        m_engine.reset();
        m_engine = std::make_unique<RealEngine>(
            R"(<policy context="mandatory"><deny send_interface="org.freedesktop.DBus" )"
            R"(send_member="GetConnectionCredentials"/></policy>)");
    }
};

size_t countOf(const std::string& text, const std::string& word) {
    size_t found = 0;
    for (size_t at = 0; (at = text.find(word, at)) != std::string::npos; at++)
        found++;
    return found;
}

}  // namespace

TEST_F(TellsNoIdentity, LogLinesAboutUnknownClientsAreBounded) {
    constexpr size_t kClients = 60;
    size_t handled = 0;
    m_handlers["hold"] = [&](QSHandle*, QSMessage*) { handled++; };
    const gint64 begin = g_get_monotonic_time();
    unsigned long leftOut = 0;
    while (busLogBudget(m_public, kUnknownUser).take(begin, leftOut)) {
    }
    testing::internal::CaptureStderr();
    std::vector<std::unique_ptr<BusClient>> clients;
    for (size_t i = 0; i < kClients; i++) {
        clients.push_back(m_engine->client(QSBus::Public));
        clients.back()->call("/", "hold", "{}");
    }
    const bool all = m_engine->until([&] { return handled >= kClients; });
    const auto seconds = static_cast<size_t>((g_get_monotonic_time() - begin) / G_USEC_PER_SEC + 1);
    const size_t lines = countOf(testing::internal::GetCapturedStderr(), "The bus does not tell who");
    EXPECT_TRUE(all);
    EXPECT_LE(lines, 50 * seconds);
}
