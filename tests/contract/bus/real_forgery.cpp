// SPDX-License-Identifier: GPL-3.0-only
// Signals that another connection of the bus forges: a daemon delivers a signal with a destination regardless
// of the match rules of the receiver.
#include "platform/bus/calls.h"
#include "tests/contract/bus/real_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

class Forgery : public RealBusTest {
  protected:
    static std::string uniqueName(QSHandle* handle) {
        const char* name = "";
        sd_bus_get_unique_name(handle->bus, &name);
        return name;
    }
    // Sends to the connection `to` a signal like the daemon's: the owner of `name` has changed
    // from `before` to `after`.
    static void forge(sd_bus* from, const std::string& to, const std::string& name, const std::string& before,
                      const std::string& after) {
        sd_bus_message* wire = nullptr;
        ASSERT_GE(sd_bus_message_new_signal(from, &wire, "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                            "NameOwnerChanged"),
                  0);
        ASSERT_GE(sd_bus_message_append(wire, "sss", name.c_str(), before.c_str(), after.c_str()), 0);
        ASSERT_GE(sd_bus_message_set_destination(wire, to.c_str()), 0);
        ASSERT_GE(sd_bus_send(from, wire, nullptr), 0);
        sd_bus_message_unref(wire);
        sd_bus_flush(from);
    }
    static bool note(QSHandle*, QSMessage* message, void* context) {
        static_cast<Strings*>(context)->push_back(QSMessageGetPayload(message));
        return true;
    }
};

TEST_F(Forgery, OfADepartureLeavesTheClientsSubscription) {
    const auto victim = m_engine->client(QSBus::Public);
    WireConnection stranger(engine(), QSBus::Public);
    size_t call = 0;
    QSMessage* message = request(*victim, call);
    ASSERT_TRUE(QSSubscriptionAdd(m_public, "key", message, m_error));
    const std::string name = m_public->peers.begin()->first;
    forge(stranger.bus(), uniqueName(m_public), name, name, "");
    m_engine->settle();
    EXPECT_THAT(m_cancelled, IsEmpty());
    EXPECT_TRUE(QSSubscriptionRespond(m_service, "key", "item", m_error));
    ASSERT_TRUE(has(*victim, call, 1));
}

TEST_F(Forgery, OfAServicesDepartureIsNotReported) {
    const auto other = m_engine->otherService("com.zelt.other");
    WireConnection stranger(engine(), QSBus::Private);
    Strings reports;
    ASSERT_TRUE(QSCall(m_private, "zelt://com.zelt.bus/signal/registerServerStatus",
                       R"({"serviceName":"com.zelt.other"})", note, &reports, nullptr, m_error));
    ASSERT_TRUE(m_engine->until([&] { return reports.size() == 1; }));
    forge(stranger.bus(), uniqueName(m_private), "com.zelt.other", ":1.0", "");
    m_engine->settle();
    EXPECT_THAT(reports, ElementsAre(R"({"connected":true})"));
    EXPECT_TRUE(QSCall(m_private, "zelt://com.zelt.other/x", "{}", nullptr, nullptr, nullptr, m_error))
        << m_error.message();
}

TEST_F(Forgery, OfAServicesArrivalIsNotBelieved) {
    WireConnection stranger(engine(), QSBus::Private);
    m_engine->settle();
    forge(stranger.bus(), uniqueName(m_private), "com.zelt.absent", "", ":1.0");
    m_engine->settle();
    EXPECT_FALSE(QSCall(m_private, "zelt://com.zelt.absent/x", "{}", nullptr, nullptr, nullptr, m_error));
}

TEST_F(Forgery, OfAServersDepartureEndsNoSubscribedCall) {
    const auto other = m_engine->otherService("com.zelt.other");
    WireConnection stranger(engine(), QSBus::Private);
    Strings answers, ends;
    QSToken token = 0;
    m_engine->settle();
    ASSERT_TRUE(QSCall(m_private, "zelt://com.zelt.other/x", R"({"subscribe":true})", note, &answers, &token,
                       m_error));
    ASSERT_TRUE(QSCallSetEndFunction(m_private, token, note, &ends, m_error));
    ASSERT_TRUE(m_engine->until([&] { return other->calls().size() == 1; }));
    other->reply(0, "first");
    ASSERT_TRUE(m_engine->until([&] { return answers.size() == 1; }));
    const std::string server = m_private->calls.begin()->second->server;
    forge(stranger.bus(), uniqueName(m_private), server, server, "");
    m_engine->settle();
    EXPECT_THAT(ends, IsEmpty());
    other->answer(0, "second");
    EXPECT_TRUE(m_engine->until([&] { return answers.size() == 2; }));
}
