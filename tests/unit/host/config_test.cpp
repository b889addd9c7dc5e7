// SPDX-License-Identifier: GPL-3.0-only
// The settings of a machine: where they come from and what is refused.
#include "platform/host/config.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/unit/host/privatebus.h"

namespace {

class Config : public testing::Test {
  protected:
    Config() {
        setenv("ZELT_HOST_CONF", (m_folder / "host.conf").c_str(), 1);
        setenv("ZELT_HOST_STATE_DIR", "/state", 1);
    }
    ~Config() override {
        unsetenv("ZELT_HOST_CONF");
        unsetenv("ZELT_HOST_STATE_DIR");
    }
    std::string read(const std::string& text) {
        std::ofstream(m_folder / "host.conf") << text;
        std::string problem;
        return readHostConfig(config, problem) ? "read" : problem.substr(problem.find(": ") + 2);
    }

    HostConfig config;

  private:
    TestFolder m_folder;
};

TEST_F(Config, OfAnEmptyFileIsAnOrdinaryMachine) {
    EXPECT_EQ(read(""), "read");
    EXPECT_EQ(config.stateDir, "/state");
    EXPECT_EQ(config.accountFile, "/state/account.json");
    EXPECT_FALSE(config.loopbackIsInternet);
    EXPECT_TRUE(config.runs("power"));
    EXPECT_TRUE(config.keepsConnection);
    EXPECT_EQ(config.reconnectDelays, (DelayRange{.first = 5'000, .longest = 300'000}));
    EXPECT_FALSE(config.reconnectsOnBattery);
}

TEST_F(Config, TakesEverySetting) {
    EXPECT_EQ(read("[network]\nloopback-is-internet=true\ninterfaces=eth0;wlan0\n[account]\nfile=/a\n"
                   "[applications]\nfolder=/f\nsettle-ms=5\n[services]\nenabled=power;network\n"
                   "[connection]\nkeep=false\nafter=2s 1h\nbattery=true\n"),
              "read");
    EXPECT_TRUE(config.loopbackIsInternet);
    EXPECT_EQ(config.interfaces, (std::set<std::string>{"eth0", "wlan0"}));
    EXPECT_EQ(config.accountFile, "/a");
    EXPECT_EQ(config.applicationsFolder, "/f");
    EXPECT_EQ(config.settleMs, 5u);
    EXPECT_TRUE(config.runs("network"));
    EXPECT_FALSE(config.runs("account"));
    EXPECT_FALSE(config.keepsConnection);
    EXPECT_EQ(config.reconnectDelays, (DelayRange{.first = 2'000, .longest = 3'600'000}));
    EXPECT_TRUE(config.reconnectsOnBattery);
}

TEST_F(Config, RefusesWordsThatItDoesNotKnow) {
    EXPECT_EQ(read("[network]\nloopback=true\n"),
              "[network] loopback is not a known setting; correct it and restart zelt-host");
    EXPECT_EQ(read("[wifi]\nfile=x\n"),
              "[wifi] file is not a known setting; correct it and restart zelt-host");
}

TEST_F(Config, RefusesValuesOfTheWrongForm) {
    EXPECT_EQ(read("[network]\nloopback-is-internet=perhaps\n"),
              "[network] loopback-is-internet must be true or false; correct it and restart zelt-host");
    EXPECT_EQ(read("[applications]\nsettle-ms=-1\n"),
              "[applications] settle-ms must be a whole number, 0 or more; correct it and restart zelt-host");
    EXPECT_EQ(read("[connection]\nkeep=perhaps\n"),
              "[connection] keep must be true or false; correct it and restart zelt-host");
    EXPECT_EQ(read("[connection]\nbattery=\n"),
              "[connection] battery must be true or false; correct it and restart zelt-host");
    EXPECT_EQ(
        read("[connection]\nafter=5\n"),
        "[connection] after must be the first and the longest delay, each a whole number and ms, s, min or "
        "h, such as 5s 5min; correct it and restart zelt-host");
    EXPECT_EQ(
        read("[connection]\nafter=5min 5s\n"),
        "[connection] after must be the first delay and then the longest, which is shorter here; correct it "
        "and restart zelt-host");
    EXPECT_NE(read("no key file\n"), "read");
}

TEST_F(Config, RefusesANamedFileThatIsMissing) {
    setenv("ZELT_HOST_CONF", "/nowhere/host.conf", 1);
    std::string problem;
    EXPECT_FALSE(readHostConfig(config, problem));
    EXPECT_EQ(problem, "/nowhere/host.conf: No such file or directory");
}

}  // namespace
