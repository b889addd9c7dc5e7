// SPDX-License-Identifier: GPL-3.0-only
// What the host learns from systemd, NetworkManager and logind, which the test simulates on a bus that
// replaces the machine's system bus.
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

// The three services, as far as the host uses them.
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
        sendStartupFinished();
    }
    void sendStartupFinished() {
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
    int finishAsked = 0;
    int connectivityAsked = 0;
    std::vector<std::string> inhibitors;
    int held = -1;  // our end of the last inhibitor

  private:
    static int onSubscribe(sd_bus_message* call, void* data, sd_bus_error*) {
        static_cast<Machine*>(data)->subscribers++;
        return sd_bus_reply_method_return(call, "");
    }
    static int onFinishTime(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* data,
                            sd_bus_error*) {
        static_cast<Machine*>(data)->finishAsked++;
        return sd_bus_message_append(reply, "t", static_cast<Machine*>(data)->finishTime);
    }
    static int onConnectivity(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                              void* data, sd_bus_error*) {
        static_cast<Machine*>(data)->connectivityAsked++;
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

// Another process of the machine, which owns no name and sends signals to the host's connection alone; each
// has been handled when the call returns.
class Stranger {
  public:
    Stranger() { EXPECT_TRUE(m_system.open()); }
    void tell(const std::string& to, const char* path, const char* interface, const char* member) {
        send(to, signal(path, interface, member));
    }
    void tellPortal(const std::string& to) {
        sd_bus_message* wire =
            signal("/org/freedesktop/NetworkManager", "org.freedesktop.DBus.Properties", "PropertiesChanged");
        EXPECT_GE(sd_bus_message_append(wire, "sa{sv}as", Machine::kNetworkManager, 1, "Connectivity", "u",
                                        uint32_t{2}, 0),
                  0);
        send(to, wire);
    }
    void tellDeparture(const std::string& to, const char* name) {
        sd_bus_message* wire = signal("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged");
        EXPECT_GE(sd_bus_message_append(wire, "sss", name, ":1.0", ""), 0);
        send(to, wire);
    }

  private:
    sd_bus_message* signal(const char* path, const char* interface, const char* member) {
        sd_bus_message* wire = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(m_system.get(), &wire, path, interface, member), 0);
        return wire;
    }
    void send(const std::string& to, sd_bus_message* wire) {
        EXPECT_GE(sd_bus_message_set_destination(wire, to.c_str()), 0);
        EXPECT_GE(sd_bus_send(m_system.get(), wire, nullptr), 0);
        sd_bus_message_unref(wire);
        // Order is kept: with the first answer the signal was handled, with the later ones what
        // followed from it.
        for (int round = 0; round < 3; round++) {
            bool answered = false;
            auto note = [](sd_bus_message*, void* data, sd_bus_error*) {
                *static_cast<bool*>(data) = true;
                return 0;
            };
            EXPECT_GE(sd_bus_call_method_async(m_system.get(), nullptr, to.c_str(), "/",
                                               "org.freedesktop.DBus.Peer", "Ping", note, &answered, ""),
                      0);
            EXPECT_TRUE(Caller::waitFor([&] { return answered; }));
        }
    }

    SystemBus m_system;
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
    ASSERT_EQ(manager.start(loop), StartResult::Started);
    Caller caller;
    EXPECT_EQ(caller.call(kGetBootStatus, "{\"subscribe\":true}"), kFinished);
}

TEST_F(OnSystemBus, BootEndsWhenSystemdSaysSo) {
    machine.own("org.freedesktop.systemd1");
    SystemManager manager(system, true);
    ASSERT_EQ(manager.start(loop), StartResult::Started);
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
    ASSERT_EQ(manager.start(loop), StartResult::Started);
    Caller caller;
    EXPECT_TRUE(caller.waitFor([&] { return caller.call(kGetBootStatus, "{}") == kFinished; }));
}

TEST_F(OnSystemBus, BootIsTakenAsFinishedWhenSystemdDoesNotAnswer) {
    SystemManager manager(system, true);
    ASSERT_EQ(manager.start(loop), StartResult::Started);
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
    machine.setConnectivity(4);
    EXPECT_TRUE(Caller::waitFor([&] { return verdicts.size() == 2; }));
    for (uint32_t connectivity : {3u, 1u, 2u})
        machine.setConnectivity(connectivity);
    EXPECT_TRUE(Caller::waitFor([&] { return verdicts.size() == 3; }));
    machine.disown(Machine::kNetworkManager);
    EXPECT_TRUE(Caller::waitFor([&] { return verdicts.size() == 4; }));
    EXPECT_THAT(verdicts, ElementsAre(true, false, true, false));
}

// The unique name of the host's own connection, to which another process can send.
std::string nameOf(SystemBus& system) {
    const char* name = "";
    sd_bus_get_unique_name(system.get(), &name);
    return name;
}

TEST_F(OnSystemBus, ForgedSignalOfSystemdEndsNoBoot) {
    machine.own("org.freedesktop.systemd1");
    SystemManager manager(system, true);
    ASSERT_EQ(manager.start(loop), StartResult::Started);
    Caller caller;
    auto& answers = caller.follow(kGetBootStatus, "{\"subscribe\":true}");
    ASSERT_TRUE(caller.waitFor([&] { return answers.size() == 1 && machine.finishAsked == 1; }));
    Stranger stranger;
    stranger.tell(nameOf(system), "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                  "StartupFinished");
    EXPECT_EQ(caller.call(kGetBootStatus, "{}"), kRunning);
    EXPECT_EQ(machine.finishAsked, 1);
    machine.finishBoot();
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 2; }));
}

TEST_F(OnSystemBus, SignalOfSystemdBeforeItsWordEndsNoBoot) {
    machine.own("org.freedesktop.systemd1");
    SystemManager manager(system, true);
    ASSERT_EQ(manager.start(loop), StartResult::Started);
    Caller caller;
    auto& answers = caller.follow(kGetBootStatus, "{\"subscribe\":true}");
    ASSERT_TRUE(caller.waitFor([&] { return answers.size() == 1 && machine.finishAsked == 1; }));
    machine.sendStartupFinished();
    EXPECT_TRUE(caller.waitFor([&] { return machine.finishAsked == 2; }));
    EXPECT_EQ(caller.call(kGetBootStatus, "{}"), kRunning);
}

TEST_F(OnSystemBus, ForgedSignalsOfNetworkManagerChangeNoVerdict) {
    machine.own(Machine::kNetworkManager);
    std::vector<bool> verdicts;
    PortalWatch portal(system, [&](bool captive) { verdicts.push_back(captive); });
    portal.start();
    ASSERT_TRUE(Caller::waitFor([&] { return machine.connectivityAsked == 1; }));
    Stranger stranger;
    stranger.tellPortal(nameOf(system));
    EXPECT_THAT(verdicts, ElementsAre());
    EXPECT_EQ(machine.connectivityAsked, 1);
    machine.setConnectivity(2);
    EXPECT_TRUE(Caller::waitFor([&] { return verdicts.size() == 1; }));
    stranger.tellDeparture(nameOf(system), Machine::kNetworkManager);
    EXPECT_THAT(verdicts, ElementsAre(true));
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
