// SPDX-License-Identifier: GPL-3.0-only
// Mains or battery, over a folder like the kernel's, and the notices of changes.
#include "platform/host/powersupply.h"

#include <sys/socket.h>

#include <string_view>

#include "tests/unit/host/caller.h"
#include "tests/unit/host/privatebus.h"

namespace {

int noticesEnd = -1;  // where the test writes what the kernel would

int openPair() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    noticesEnd = ends[1];
    return ends[0];
}

class Supplies : public testing::Test {
  protected:
    ~Supplies() override {
        if (noticesEnd >= 0)
            close(noticesEnd);
        noticesEnd = -1;
    }
    void put(const std::string& name, const std::string& attribute, const std::string& value) {
        std::filesystem::create_directories(folder / name);
        std::ofstream(folder / (name + "/" + attribute)) << value << "\n";
    }
    static void notify(std::string_view text) {
        EXPECT_EQ(send(noticesEnd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }

    TestFolder folder;
    PowerSupply supply{folder.path(), openPair};
};

TEST_F(Supplies, NoneIsMains) {
    EXPECT_TRUE(supply.onMains());
    EXPECT_TRUE(PowerSupply("/nowhere/power_supply").onMains());
}

TEST_F(Supplies, AChargerCountsWhateverTheBatterySays) {
    put("AC", "type", "Mains");
    put("AC", "online", "1");
    put("BAT0", "type", "Battery");
    put("BAT0", "status", "Discharging");
    EXPECT_TRUE(supply.onMains());
    put("AC", "online", "0");
    EXPECT_FALSE(supply.onMains());
    put("BAT0", "status", "Full");
    EXPECT_FALSE(supply.onMains()) << "the charger is not plugged in";
    put("ucsi-1", "type", "USB");
    put("ucsi-1", "online", "1");
    EXPECT_TRUE(supply.onMains());
}

class Chargers : public Supplies, public testing::WithParamInterface<const char*> {};

TEST_P(Chargers, OfEachKindOfTheKernelCountWhenTheyArePluggedIn) {
    put("charger", "type", GetParam());
    put("charger", "online", "1");
    put("BAT0", "type", "Battery");
    put("BAT0", "status", "Discharging");
    EXPECT_TRUE(supply.onMains());
    put("charger", "online", "0");
    EXPECT_FALSE(supply.onMains());
}

INSTANTIATE_TEST_SUITE_P(Types, Chargers,
                         testing::Values("Mains", "USB", "USB_DCP", "USB_CDP", "USB_ACA", "USB_C", "USB_PD",
                                         "USB_PD_DRP", "BrickID", "Wireless"));

TEST_F(Supplies, AnUninterruptibleSupplyCountsLikeABattery) {
    put("ups", "type", "UPS");
    put("ups", "status", "Charging");
    EXPECT_TRUE(supply.onMains());
    put("ups", "status", "Discharging");
    EXPECT_FALSE(supply.onMains());
}

TEST_F(Supplies, ABatteryAloneCountsByItsState) {
    put("battery", "type", "Battery");
    put("battery", "status", "Discharging");
    EXPECT_FALSE(supply.onMains());
    put("battery", "status", "Charging");
    EXPECT_TRUE(supply.onMains());
}

TEST_F(Supplies, WhatSuppliesADeviceOrAPortSaysNothing) {
    put("mouse", "type", "Battery");
    put("mouse", "scope", "Device");
    put("mouse", "status", "Discharging");
    put("port", "type", "USB");
    put("port", "online", "0");
    EXPECT_TRUE(supply.onMains());
}

TEST_F(Supplies, AreWatchedUntilNobodyWants) {
    int changes = 0;
    supply.watch([&] { changes++; });
    notify(std::string_view("change@/devices/AC\0SUBSYSTEM=power_supply\0", 42));
    EXPECT_TRUE(Caller::waitFor([&] { return changes == 1; }));
    notify(std::string_view("add@/devices/usb1\0SUBSYSTEM=usb\0", 32));
    notify(std::string_view("change@/devices/AC\0SUBSYSTEM=power_supply\0", 42));
    EXPECT_TRUE(Caller::waitFor([&] { return changes == 2; }));
    supply.unwatch();
    EXPECT_EQ(send(noticesEnd, "x", 1, MSG_NOSIGNAL), -1) << "nothing is open any longer";
}

TEST_F(Supplies, MayBeLetGoByTheOneWhoIsTold) {
    int changes = 0;
    supply.watch([&] {
        supply.unwatch();
        changes++;
    });
    notify(std::string_view("change@/devices/AC\0SUBSYSTEM=power_supply\0", 42));
    EXPECT_TRUE(Caller::waitFor([&] { return changes == 1; }));
}

TEST(DeviceNotices, CanBeOpenedOnThisMachine) {
    const int descriptor = openDeviceNotices();
    EXPECT_GE(descriptor, 0);
    close(descriptor);
}

}  // namespace
