// SPDX-License-Identifier: GPL-3.0-only
// Network tracking: every row of the decision between connecting, moving, keeping and dropping the
// connection.
#include "service/network.h"

#include "tests/fakes/servicefixture.h"

namespace {

constexpr const char* kLogin = "bus.call quor://com.zelt.accountservices/getAccountToken ";
constexpr const char* kBadStatus = "connectionStatusV2: Error in getting connectionStatus ";

constexpr const char* kOverWifi = R"({"isInternetConnectionAvailable":true,)"
                                  R"("wifi":{"state":"connected","ipAddress":"10.0.0.1"},)"
                                  R"("wan":{"state":"connected","ipAddress":"10.9.9.9"}})";
constexpr const char* kOverWan = R"({"isInternetConnectionAvailable":true,)"
                                 R"("wifi":{"state":"disconnected","ipAddress":"10.0.0.1"},)"
                                 R"("wan":{"state":"disconnected","ipAddress":"10.9.9.9"}})";
constexpr const char* kOutageOnWan = R"({"isInternetConnectionAvailable":false,)"
                                     R"("wifi":{"state":"disconnected"},"wan":{"state":"connected"}})";
constexpr const char* kNoNetwork = R"({"isInternetConnectionAvailable":false,)"
                                   R"("wifi":{"state":"disconnected"},"wan":{"state":"disconnected"}})";

class Network : public ServiceTest {
  protected:
    // The details of an account, but no network yet.
    void SetUp() override {
        ServiceTest::SetUp();
        giveDetails();
        session().m_networkAvailable = false;
        session().m_ipAddress = "";
    }
    void report(const std::string& payload) {
        FakeMessage* message = fakeBus().request(privateHandle(), "", payload);
        EXPECT_TRUE(connectionStatusV2(privateHandle(), message, nullptr));
        QSMessageUnref(message);
    }
    // Up over the given link, journal and log empty.
    void connectedOver(const char* status) {
        report(status);
        pump();
        ASSERT_TRUE(session().m_connected) << log().raw();
        takeEvents();
        takeLog();
        fakeServer().forgetStanzas();
    }
    bool logged(const std::string& line) {
        const Texts lines = takeLogLines();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
    void expectIdle() {
        EXPECT_FALSE(session().m_connected);
        EXPECT_FALSE(session().m_connecting);
    }
};

// --- reports that say nothing

TEST_F(Network, LogsAReportThatIsNoJson) {
    report("no json");
    EXPECT_EQ(takeLogLines(),
              (Texts{"connectionStatusV2: Malformed json packet? \n", std::string(kBadStatus) + "no json"}));
}

TEST_F(Network, LogsAReportWithoutAWordOnTheInternet) {
    session().m_networkAvailable = true;
    for (const char* payload : {"{}", R"({"isInternetConnectionAvailable":null})", "[]", "5"}) {
        report(payload);
        EXPECT_EQ(takeLogLines(), Texts{std::string(kBadStatus) + payload});
    }
    EXPECT_TRUE(session().m_networkAvailable);
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(Network, ChangesNothingButTheFlagWithoutAWordOnWifi) {
    for (const char* wifi : {R"("wan":{})", R"("wifi":{"ipAddress":"10.0.0.1"})", R"("wifi":null)",
                             R"("wifi":"up")", R"("wifi":{"state":null})"}) {
        session().m_networkAvailable = false;
        report(R"({"isInternetConnectionAvailable":true,)" + std::string(wifi) + "}");
        EXPECT_EQ(
            takeLogLines(),
            (Texts{"checkConnection: checkConnection failed, mostly because of malformed json",
                   "connectOrSwitchConnections: Checking wifi failed - We ran into some parse error?"}));
        EXPECT_TRUE(session().m_networkAvailable);
        EXPECT_EQ(session().m_ipAddress, "");
        EXPECT_EQ(takeEvents(), Texts{});
        expectIdle();
    }
}

// --- Internet, no session yet

TEST_F(Network, ConnectsFromTheWifiAddress) {
    report(kOverWifi);
    EXPECT_TRUE(session().m_networkAvailable);
    EXPECT_EQ(session().m_ipAddress, "10.0.0.1");
    EXPECT_FALSE(session().m_onWan);
    EXPECT_TRUE(session().m_connecting);
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().localAddress(), "10.0.0.1");
}

TEST_F(Network, ForgetsTheMobileLinkWhenItConnectsOverWifi) {
    session().m_onWan = true;
    report(kOverWifi);
    EXPECT_FALSE(session().m_onWan);
}

TEST_F(Network, ConnectsFromTheMobileAddressWithoutAskingForThatLinksState) {
    report(kOverWan);
    EXPECT_EQ(session().m_ipAddress, "10.9.9.9");
    EXPECT_TRUE(session().m_onWan);
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().localAddress(), "10.9.9.9");
}

TEST_F(Network, TakesEveryStateButConnectedForDown) {
    report(
        R"({"isInternetConnectionAvailable":true,"wifi":{"state":"Connected"},"wan":{"ipAddress":"10.9.9.9"}})");
    EXPECT_TRUE(session().m_onWan);
    EXPECT_EQ(session().m_ipAddress, "10.9.9.9");
}

TEST_F(Network, ConnectsWithoutAnAddressWhenNoneIsTold) {
    report(R"({"isInternetConnectionAvailable":true,"wifi":{"state":"connected"}})");
    EXPECT_EQ(session().m_ipAddress, "");
    EXPECT_TRUE(session().m_connecting);
    EXPECT_EQ(takeLogLines().front(), "getIPAddress: getIPAddress failed, because of malformed json?");
}

TEST_F(Network, ConnectsWithoutAnAddressWhenTheMobileLinkIsNotToldAtAll) {
    report(R"({"isInternetConnectionAvailable":true,"wifi":{"state":"off"}})");
    EXPECT_EQ(session().m_ipAddress, "");
    EXPECT_TRUE(session().m_onWan);
    EXPECT_TRUE(session().m_connecting);
    EXPECT_EQ(takeLogLines().front(), "getIPAddress: getIPAddress failed, because of malformed json?");
}

TEST_F(Network, LeavesAPastFailureToTheReconnectAlarm) {
    session().m_lastError = gloox::ConnStreamClosed;
    report(kOverWifi);
    EXPECT_EQ(takeLogLines(),
              Texts{"connectOrSwitchConnections: We had some connection err in the past. So nop."});
    EXPECT_EQ(session().m_ipAddress, "10.0.0.1") << "the address is kept for the reconnect";
    EXPECT_EQ(takeEvents(), Texts{});
    expectIdle();
}

TEST_F(Network, ConnectsAfterADisconnectThatWasAskedFor) {
    session().m_lastError = gloox::ConnUserDisconnected;
    report(kOverWifi);
    EXPECT_TRUE(session().m_connecting);
}

TEST_F(Network, WaitsForAPendingReconnectAlarm) {
    session().m_reconnectPending = true;
    report(kOverWifi);
    EXPECT_EQ(session().m_ipAddress, "10.0.0.1");
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(takeEvents(), Texts{});
    expectIdle();
}

TEST_F(Network, AsksForALoginWhenItHasNoDetails) {
    session().m_password.clear();
    report(kOverWifi);
    EXPECT_EQ(takeEvents(), Texts{kLogin});
    EXPECT_FALSE(session().m_reconnectPending);
}

TEST_F(Network, ArmsTheReconnectAlarmWhenItCannotEvenAskForALogin) {
    session().m_password.clear();
    fakeBus().serviceMissing("com.zelt.accountservices");
    report(kOverWifi);
    const Texts events = takeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(
        events[0].starts_with("bus.call zelt://com.zelt.power/timeout/set {\"key\":\"reconnectTimer\""));
    EXPECT_TRUE(session().m_reconnectPending);
}

// --- Internet, in a session

TEST_F(Network, KeepsTheConnectionOverWifiAsItIs) {
    connectedOver(kOverWifi);
    report(kOverWifi);
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().connects(), 1);
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Network, KeepsAnAttemptOverWifiAsItIs) {
    report(kOverWifi);
    report(kOverWifi);
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().connects(), 1);
}

TEST_F(Network, MovesFromTheMobileLinkToWifiAtOnce) {
    connectedOver(kOverWan);
    session().m_survivedOutage = true;
    report(kOverWifi);
    EXPECT_EQ(session().m_ipAddress, "10.0.0.1");
    EXPECT_FALSE(session().m_onWan);
    EXPECT_FALSE(session().m_survivedOutage);
    EXPECT_TRUE(session().m_connecting);
    EXPECT_EQ(takeLogLines().front(), "onDisconnect: Disconnected from xmpp server 17");
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().connects(), 2);
    EXPECT_EQ(fakeServer().localAddress(), "10.0.0.1");
    EXPECT_FALSE(session().m_reconnectPending);
}

TEST_F(Network, MovesAnAttemptOverTheMobileLinkToWifi) {
    report(kOverWan);
    ASSERT_TRUE(session().m_connecting);
    report(kOverWifi);
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().localAddress(), "10.0.0.1");
}

TEST_F(Network, MovesToTheMobileLinkWhenWifiIsLost) {
    connectedOver(kOverWifi);
    report(kOverWan);
    EXPECT_EQ(session().m_ipAddress, "10.9.9.9");
    EXPECT_TRUE(session().m_onWan);
    EXPECT_TRUE(session().m_connecting);
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().connects(), 2);
    EXPECT_EQ(fakeServer().localAddress(), "10.9.9.9");
}

TEST_F(Network, KeepsTheConnectionOverTheMobileLinkAsItIs) {
    connectedOver(kOverWan);
    report(kOverWan);
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_TRUE(session().m_onWan);
    EXPECT_EQ(takeEvents(), Texts{});
}

// --- no Internet

TEST_F(Network, DropsTheConnectionOverWifi) {
    connectedOver(kOverWifi);
    report(kNoNetwork);
    EXPECT_FALSE(session().m_networkAvailable);
    EXPECT_EQ(session().m_ipAddress, "");
    EXPECT_EQ(session().m_client, nullptr);
    expectIdle();
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(takeLogLines(), Texts{"onDisconnect: Disconnected from xmpp server 17"});
}

TEST_F(Network, DropsTheConnectionOverWifiEvenWhenTheMobileLinkIsUp) {
    connectedOver(kOverWifi);
    report(kOutageOnWan);
    expectIdle();
    EXPECT_FALSE(session().m_survivedOutage);
}

TEST_F(Network, KeepsTheConnectionOverAMobileLinkThatStillStands) {
    connectedOver(kOverWan);
    report(kOutageOnWan);
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_TRUE(session().m_survivedOutage);
    EXPECT_FALSE(session().m_networkAvailable);
    EXPECT_EQ(session().m_ipAddress, "10.9.9.9");
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(Network, ActivatesTheNodesAgainAfterASurvivedOutage) {
    connectedOver(kOverWan);
    report(kOutageOnWan);
    report(kOverWan);
    EXPECT_FALSE(session().m_survivedOutage);
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().connects(), 1);
    EXPECT_NE(lastStanza().xml().find("<activate-nodes"), std::string::npos) << lastStanza().xml();
    fakeServer().forgetStanzas();
    report(kOverWan);
    EXPECT_EQ(stanzaCount(), 0u) << "once only";
}

TEST_F(Network, ForgetsASurvivedOutageWhenTheConnectionIsLost) {
    connectedOver(kOverWan);
    report(kOutageOnWan);
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    EXPECT_FALSE(session().m_survivedOutage);
}

TEST_F(Network, DropsTheConnectionOverAMobileLinkThatIsDown) {
    connectedOver(kOverWan);
    report(kNoNetwork);
    expectIdle();
    EXPECT_FALSE(session().m_survivedOutage);
    EXPECT_EQ(session().m_ipAddress, "");
}

TEST_F(Network, DropsTheConnectionOverAMobileLinkThatIsNotTold) {
    connectedOver(kOverWan);
    report(R"({"isInternetConnectionAvailable":false})");
    expectIdle();
    EXPECT_EQ(takeLogLines(),
              (Texts{"checkConnection: checkConnection failed, mostly because of malformed json",
                     "onDisconnect: Disconnected from xmpp server 17"}));
}

TEST_F(Network, GivesUpAnAttempt) {
    report(kOverWan);
    ASSERT_TRUE(session().m_connecting);
    report(kOutageOnWan);
    expectIdle();
    EXPECT_EQ(session().m_ipAddress, "");
    EXPECT_EQ(session().m_client, nullptr);
    pump();
    EXPECT_FALSE(fakeServer().loggedIn());
}

TEST_F(Network, GivesUpAnAttemptThatRunsBesideAConnectionOverTheMobileLink) {
    connectedOver(kOverWan);
    session().m_connecting = true;
    report(kOutageOnWan);
    expectIdle();
    EXPECT_FALSE(session().m_survivedOutage);
}

TEST_F(Network, DoesNothingWhenThereIsNoSession) {
    session().m_ipAddress = "10.0.0.1";
    session().m_survivedOutage = true;
    report(kNoNetwork);
    EXPECT_EQ(session().m_ipAddress, "10.0.0.1");
    EXPECT_TRUE(session().m_survivedOutage);
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
}

// --- the two small functions

TEST_F(Network, ClearsTheStateBeforeItLooks) {
    bool connected = true;
    EXPECT_FALSE(checkConnection("wifi", nullptr, connected));
    EXPECT_FALSE(connected);
}

}  // namespace
