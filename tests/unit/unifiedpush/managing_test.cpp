// SPDX-License-Identifier: GPL-3.0-only
// The command line at the bridge: what is registered, its removal, and an application of its own for a test.
#include "tests/unit/unifiedpush/bridgetest.h"
#include "unifiedpush/management.h"
#include "unifiedpush/pushuser.h"

namespace {

using testing::HasSubstr;

constexpr unsigned kSeconds = 10;

// A distributor that takes every call and does nothing.
class IdleDistributor {
  public:
    IdleDistributor() {
        static const sd_bus_vtable methods[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("Register", "a{sv}", "a{sv}", onCall, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("Unregister", "a{sv}", "a{sv}", onCall, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END,
        };
        std::string problem;
        EXPECT_TRUE(m_bus.open(problem)) << problem;
        EXPECT_GE(sd_bus_add_object_vtable(m_bus.get(), Receive(m_object), kDistributorPath,
                                           "org.unifiedpush.Distributor2", methods, nullptr),
                  0);
        EXPECT_GE(sd_bus_request_name(m_bus.get(), kDistributorName, 0), 0);
    }

  private:
    static int onCall(sd_bus_message* call, void*, sd_bus_error*) {
        return sd_bus_reply_method_return(call, "a{sv}", 0);
    }
    SessionBus m_bus;
    Slot m_object;
};

class Managing : public BridgeTest {
  protected:
    void SetUp() override { ASSERT_TRUE(user.open(problem)) << problem; }
    std::string list() {
        std::string json;
        EXPECT_TRUE(user.list(json, kSeconds, problem)) << problem;
        return json;
    }
    std::string stateOf(const std::string& endpoint) {
        const JsonRef answer = parseWholeJson(list());
        json_object* registrations = jsonMember(answer.get(), "registrations");
        for (std::size_t i = 0; i < json_object_array_length(registrations); ++i) {
            json_object* each = json_object_array_get_idx(registrations, i);
            if (textMember(each, "endpoint") == endpoint)
                return textMember(each, "state");
        }
        return "";
    }

    PushUser user;
    std::string problem;
};

TEST_F(Managing, ListsWhatIsRegisteredWithoutTheTokens) {
    start();
    Application app;
    EXPECT_EQ(list(), R"({"returnValue":true,"registrations":[]})");
    enroll(app, "t1", kVapid);
    EXPECT_EQ(list(), R"({"returnValue":true,"registrations":[{"endpoint":")" + nameOf("t1", kVapid) +
                          R"(","service":"org.example.app","description":"mail","version":2,"vapid":true,)"
                          R"("state":"registered"}]})");
}

TEST_F(Managing, SaysInWhatStateARegistrationIs) {
    start();
    Application app;
    enroll(app, "t1", kVapid);
    enroll(app, "t1", kOtherVapid);
    EXPECT_EQ(stateOf(nameOf("t1", kVapid)), "replaced by another key");
    app.silent = true;
    app.enroll("t2");
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_EQ(stateOf(nameOf("t2")), "the application has not taken its address");
    device->setOnline(false);
    app.enroll("t3");
    ASSERT_TRUE(until([&] { return device->count("createEndpoint " + nameOf("t3")) > 0; }));
    EXPECT_EQ(stateOf(nameOf("t3")), "waits for the server");
}

TEST_F(Managing, RemovesARegistrationAndTellsItsApplication) {
    start();
    Application app;
    enroll(app, "t1");
    enroll(app, "t2");
    bool found = false;
    ASSERT_TRUE(user.remove(nameOf("t1"), found, kSeconds, problem)) << problem;
    EXPECT_TRUE(found);
    ASSERT_TRUE(until([&] { return !app.calls.empty(); }));
    EXPECT_THAT(app.calls, testing::ElementsAre("Unregistered t1"));
    EXPECT_TRUE(until([&] { return !device->endpoints.contains(nameOf("t1")); }));
    ASSERT_TRUE(user.remove(nameOf("t1"), found, kSeconds, problem)) << problem;
    EXPECT_FALSE(found);
    EXPECT_EQ(stateOf(nameOf("t2")), "registered");
}

TEST_F(Managing, RefusesACallOfAnotherForm) {
    start();
    SessionBus bus;
    ASSERT_TRUE(bus.open(problem)) << problem;
    Wire call;
    sd_bus_message_new_method_call(bus.get(), Receive(call), kDistributorName, kManagementPath, kManagement,
                                   "Remove");
    sd_bus_message_append(call.get(), "u", 5);
    Slot slot;
    std::string error;
    ASSERT_TRUE(bus.call(call.get(), kSeconds, slot, [&](sd_bus_message* answer) {
        const sd_bus_error* said = sd_bus_message_get_error(answer);
        error = said ? said->name : "none";
    }));
    ASSERT_TRUE(until([&] { return !error.empty(); }));
    EXPECT_EQ(error, "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(Managing, WithoutABridgeSaysWhatToStart) {
    std::string json;
    EXPECT_FALSE(user.list(json, kSeconds, problem));
    EXPECT_THAT(problem, HasSubstr("start zelt-unifiedpush"));
    problem.clear();
    EXPECT_FALSE(user.leave(kSeconds, problem));
    EXPECT_THAT(problem, HasSubstr("start zelt-unifiedpush"));
    std::string url;
    problem.clear();
    EXPECT_FALSE(user.enroll(url, kSeconds, problem));
    EXPECT_THAT(problem, HasSubstr("start zelt-unifiedpush"));
}

TEST_F(Managing, WithoutASessionBusSaysSo) {
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    PushUser nowhere;
    EXPECT_FALSE(nowhere.open(problem));
    EXPECT_THAT(problem, HasSubstr("bus"));
}

TEST_F(Managing, ATestGoesTheWholeWay) {
    start();
    std::string url;
    ASSERT_TRUE(user.enroll(url, kSeconds, problem)) << problem;
    EXPECT_EQ(url, "https://push.example.org/push/1");
    ASSERT_EQ(device->endpoints.size(), 1U);
    const std::string endpoint = device->endpoints.begin()->first;
    ASSERT_TRUE(isReceived(endpoint));
    device->publish(endpoint, "i1", "a test");
    ASSERT_TRUE(user.await("a test", kSeconds, problem)) << problem;
    ASSERT_TRUE(user.leave(kSeconds, problem)) << problem;
    EXPECT_TRUE(until([&] { return device->endpoints.empty(); }));
}

TEST_F(Managing, ATestSaysWhereTheWayEnds) {
    start();
    device->refusal = "appErr Too many endpoints, the limit is 1000. Call deleteEndpoint first";
    std::string url;
    EXPECT_FALSE(user.enroll(url, kSeconds, problem));
    EXPECT_EQ(problem, "the registration failed: ACTION_REQUIRED");
    problem.clear();
    EXPECT_FALSE(user.await("a test", 1, problem));
    EXPECT_EQ(problem, "the message did not arrive within 1 s");
    PushUser second;
    problem.clear();
    ASSERT_TRUE(second.open(problem)) << problem;
    EXPECT_FALSE(second.enroll(url, kSeconds, problem));
    EXPECT_THAT(problem, HasSubstr("cannot take a name on the session bus"));
}

TEST_F(Managing, ATestSaysWhenTheBridgeFallsSilent) {
    IdleDistributor distributor;
    std::string url;
    EXPECT_FALSE(user.enroll(url, 1, problem));
    EXPECT_EQ(problem, "no address came after the registration");
    problem.clear();
    EXPECT_FALSE(user.leave(1, problem));
    EXPECT_EQ(problem, "the end of the registration was not confirmed");
}

}  // namespace
