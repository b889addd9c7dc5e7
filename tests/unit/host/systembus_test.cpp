// SPDX-License-Identifier: GPL-3.0-only
// What the host learns from systemd, NetworkManager and logind, played by the test on a bus of its own that
// stands in for the machine's system bus.
#include "platform/host/systembus.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include "platform/host/keepawake.h"
#include "platform/host/portalwatch.h"
#include "platform/host/systemmanager.h"
#include "tests/unit/host/caller.h"
#include "tests/unit/host/privatebus.h"

namespace {

using testing::ElementsAre;

constexpr char kGetBootStatus[] = "zelt://com.zelt.systemmanager/getBootStatus";
constexpr char kRunning[] = "{\"returnValue\":true,\"finished\":false}";
constexpr char kFinished[] = "{\"returnValue\":true,\"finished\":true}";

// The three services of a machine, as far as the host asks them.
class Machine {
  public:
    Machine() {
        EXPECT_TRUE(m_system.open());
        m_bus = m_system.get();
        static const sd_bus_vtable systemd[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("Subscribe", "", "", onSubscribe, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_PROPERTY("FinishTimestampMonotonic", "t", onFinishTime, 0, 0),
            SD_BUS_SIGNAL("StartupFinished", "tttttt", 0),
            SD_BUS_VTABLE_END,
        };
        static const sd_bus_vtable manager[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_PROPERTY("Connectivity", "u", onConnectivity, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
            SD_BUS_PROPERTY("State", "u", onConnectivity, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
            SD_BUS_VTABLE_END,
        };
        static const sd_bus_vtable logind[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("Inhibit", "ssss", "h", onInhibit, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END,
        };
        sd_bus_add_object_vtable(m_bus, nullptr, "/org/freedesktop/systemd1",
                                 "org.freedesktop.systemd1.Manager", systemd, this);
        sd_bus_add_object_vtable(m_bus, nullptr, "/org/freedesktop/NetworkManager", kNetworkManager, manager,
                                 this);
        sd_bus_add_object_vtable(m_bus, nullptr, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                 logind, this);
    }
    ~Machine() {
        if (held >= 0)
            close(held);
    }

    static constexpr char kNetworkManager[] = "org.freedesktop.NetworkManager";
    void own(const char* name) { EXPECT_GE(sd_bus_request_name(m_bus, name, 0), 0); }
    void disown(const char* name) { EXPECT_GE(sd_bus_release_name(m_bus, name), 0); }
    void finishBoot() {
        finishTime = 5;
        sd_bus_emit_signal(m_bus, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                           "StartupFinished", "tttttt", uint64_t{1}, uint64_t{1}, uint64_t{1}, uint64_t{1},
                           uint64_t{1}, uint64_t{1});
    }
    void setConnectivity(uint32_t value) {
        connectivity = value;
        sd_bus_emit_properties_changed(m_bus, "/org/freedesktop/NetworkManager", kNetworkManager, "State",
                                       "Connectivity", nullptr);
    }
    // The other end of the inhibitor is closed.
    bool released() const {
        char byte;
        return held >= 0 && recv(held, &byte, 1, MSG_DONTWAIT) == 0;
    }

    uint64_t finishTime = 0;
    uint32_t connectivity = 4;
    int subscribers = 0;
    std::vector<std::string> inhibitors;
    int held = -1;  // our end of the last inhibitor

  private:
    static int onSubscribe(sd_bus_message* call, void* data, sd_bus_error*) {
        static_cast<Machine*>(data)->subscribers++;
        return sd_bus_reply_method_return(call, "");
    }
    static int onFinishTime(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* data,
                            sd_bus_error*) {
        return sd_bus_message_append(reply, "t", static_cast<Machine*>(data)->finishTime);
    }
    static int onConnectivity(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                              void* data, sd_bus_error*) {
        return sd_bus_message_append(reply, "u", static_cast<Machine*>(data)->connectivity);
    }
    static int onInhibit(sd_bus_message* call, void* data, sd_bus_error*) {
        auto* self = static_cast<Machine*>(data);
        const char* words[4] = {};
        sd_bus_message_read(call, "ssss", &words[0], &words[1], &words[2], &words[3]);
        self->inhibitors.push_back(std::string(words[0]) + " " + words[1] + " " + words[3]);
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            return -errno;
        self->held = ends[0];
        int result = sd_bus_reply_method_return(call, "h", ends[1]);
        close(ends[1]);
        return result;
    }

    SystemBus m_system;
    sd_bus* m_bus = nullptr;
};

class OnSystemBus : public testing::Test {
  protected:
    OnSystemBus() { EXPECT_TRUE(system.open()); }
    ~OnSystemBus() override { g_main_loop_unref(loop); }

    PrivateBus systemBus{"DBUS_SYSTEM_BUS_ADDRESS"};
    PrivateBus privateBus;
    Machine machine;
    SystemBus system;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
};

TEST(SystemBusAbsent, IsAnOrdinaryMachine) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/bus", 1);
    SystemBus system;
    EXPECT_FALSE(system.open());
    EXPECT_EQ(system.get(), nullptr);
    bool verdict = false;
    PortalWatch portal(system, [&](bool) { verdict = true; });
    portal.start();
    KeepAwake awake(system);
    awake.hold(10);
    EXPECT_FALSE(verdict);
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

TEST_F(OnSystemBus, BootIsFinishedWithoutSystemd) {
    SystemManager manager(system, false);
    ASSERT_EQ(manager.start(loop), Presence::Up);
    Caller caller;
    EXPECT_EQ(caller.call(kGetBootStatus, "{\"subscribe\":true}"), kFinished);
}

TEST_F(OnSystemBus, BootEndsWhenSystemdSaysSo) {
    machine.own("org.freedesktop.systemd1");
    SystemManager manager(system, true);
    ASSERT_EQ(manager.start(loop), Presence::Up);
    Caller caller;
    auto& answers = caller.follow(kGetBootStatus, "{\"subscribe\":true}");
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 1 && machine.subscribers == 1; }));
    machine.finishBoot();
    machine.finishBoot();
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 2; }));
    EXPECT_FALSE(caller.waitFor([&] { return answers.size() > 2; }, 100));
    EXPECT_THAT(answers, ElementsAre(kRunning, kFinished));
}

TEST_F(OnSystemBus, BootThatEndedBeforeIsFinished) {
    machine.own("org.freedesktop.systemd1");
    machine.finishTime = 5;
    SystemManager manager(system, true);
    ASSERT_EQ(manager.start(loop), Presence::Up);
    Caller caller;
    EXPECT_TRUE(caller.waitFor([&] { return caller.call(kGetBootStatus, "{}") == kFinished; }));
}

TEST_F(OnSystemBus, BootIsTakenAsFinishedWhenSystemdDoesNotAnswer) {
    SystemManager manager(system, true);
    ASSERT_EQ(manager.start(loop), Presence::Up);
    Caller caller;
    EXPECT_TRUE(caller.waitFor([&] { return caller.call(kGetBootStatus, "{}") == kFinished; }));
}

TEST_F(OnSystemBus, CaptivePortalIsToldOnlyWhileNetworkManagerSeesOne) {
    std::vector<bool> verdicts;
    PortalWatch portal(system, [&](bool captive) { verdicts.push_back(captive); });
    portal.start();
    EXPECT_FALSE(Caller::waitFor([&] { return !verdicts.empty(); }, 100));
    machine.connectivity = 2;
    machine.own(Machine::kNetworkManager);
    EXPECT_TRUE(Caller::waitFor([&] { return verdicts.size() == 1; }));
    for (uint32_t connectivity : {4u, 3u, 1u, 2u})
        machine.setConnectivity(connectivity);
    EXPECT_TRUE(Caller::waitFor([&] { return verdicts.size() == 3; }));
    machine.disown(Machine::kNetworkManager);
    EXPECT_TRUE(Caller::waitFor([&] { return verdicts.size() == 4; }));
    EXPECT_THAT(verdicts, ElementsAre(true, false, true, false));
}

TEST_F(OnSystemBus, MachineStaysAwakeByOneInhibitorUntilTheLastRequestIsOver) {
    machine.own("org.freedesktop.login1");
    KeepAwake awake(system);
    gint64 start = g_get_monotonic_time();
    awake.hold(100);
    awake.hold(300);
    awake.hold(50);
    EXPECT_TRUE(Caller::waitFor([&] { return machine.released(); }));
    EXPECT_GE(g_get_monotonic_time() - start, 295000);
    EXPECT_THAT(machine.inhibitors, ElementsAre("sleep zelt-host delay"));
}

TEST_F(OnSystemBus, LossEndsTheWatchesAndNothingElse) {
    int lost = 0;
    PortalWatch portal(system, [&](bool) { lost++; });
    portal.start();
    systemBus.stop();
    EXPECT_TRUE(Caller::waitFor([&] { return system.get() == nullptr; }));
    KeepAwake awake(system);
    awake.hold(10);
    EXPECT_EQ(lost, 0);
}

}  // namespace
