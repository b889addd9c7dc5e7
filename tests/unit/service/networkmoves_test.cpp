// SPDX-License-Identifier: GPL-3.0-only
// Network tracking in a session: every case in which the connection is kept, moved or dropped.
#include "service/network.h"

#include <gmock/gmock.h>

#include "service/methods.h"
#include "tests/unit/service/networktest.h"

namespace {

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

TEST_F(Network, MovesToWifiWhateverAlarmIsPending) {
    connectedOver(kOverWan);
    session().m_reconnectPending = true;
    report(kOverWifi);
    EXPECT_TRUE(session().m_connecting);
}

TEST_F(Network, AsksForNoLoginWhenTheMoveToWifiCannotConnect) {
    connectedOver(kOverWan);
    session().m_password.clear();
    report(kOverWifi);
    expectIdle();
    EXPECT_TRUE(fakeBus().payloadsTo("quor://com.zelt.accountservices/getAccountToken").empty());
    EXPECT_FALSE(session().m_reconnectPending);
}

TEST_F(Network, ForgetsASurvivedOutageByTheMoveItself) {
    // An attempt without a client, so its end is not reported.
    session().m_connecting = session().m_onWan = session().m_survivedOutage = true;
    report(kOverWifi);
    EXPECT_FALSE(session().m_survivedOutage);
    EXPECT_FALSE(session().m_onWan);
    EXPECT_EQ(session().m_ipAddress, "10.0.0.1");
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

// The rest of the move to the mobile link is the same as for a report without a session.
class WifiLost : public Network {
  protected:
    // Separates the disconnect from what the move does afterwards.
    void lose() {
        report(kOverWan);
        EXPECT_EQ(takeLogLines().front(), "onDisconnect: Disconnected from xmpp server 17");
        EXPECT_EQ(session().m_ipAddress, "10.9.9.9");
        EXPECT_TRUE(session().m_onWan);
    }
    std::size_t logins() {
        return fakeBus().payloadsTo("quor://com.zelt.accountservices/getAccountToken").size();
    }
};

TEST_F(WifiLost, AsksForALoginWhenItCannotConnect) {
    connectedOver(kOverWifi);
    session().m_password.clear();
    lose();
    expectIdle();
    EXPECT_EQ(logins(), 1u);
    EXPECT_FALSE(session().m_reconnectPending);
}

TEST_F(WifiLost, ArmsTheReconnectAlarmWhenItCannotEvenAskForALogin) {
    connectedOver(kOverWifi);
    session().m_password.clear();
    fakeBus().serviceMissing("com.zelt.accountservices");
    lose();
    expectIdle();
    EXPECT_TRUE(session().m_reconnectPending);
}

TEST_F(WifiLost, WaitsForAPendingReconnectAlarm) {
    connectedOver(kOverWifi);
    session().m_reconnectPending = true;
    lose();
    expectIdle();
    EXPECT_EQ(fakeServer().connects(), 1);
    EXPECT_EQ(logins(), 0u);
}

TEST_F(WifiLost, LeavesAPastFailureToTheReconnectAlarm) {
    connectedOver(kOverWifi);
    session().m_lastError = gloox::ConnStreamClosed;
    report(kOverWan);
    EXPECT_EQ(takeLogLines(),
              (Texts{"onDisconnect: Disconnected from xmpp server 17",
                     "connectOrSwitchConnections: We had some connection err in the past. So nop."}));
    expectIdle();
    EXPECT_EQ(session().m_ipAddress, "10.9.9.9");
    EXPECT_TRUE(session().m_onWan);
}

TEST_F(Network, MovesAnAttemptOverWifiToTheMobileLink) {
    report(kOverWifi);
    ASSERT_TRUE(session().m_connecting);
    report(kOverWan);
    EXPECT_TRUE(session().m_onWan);
    EXPECT_EQ(session().m_ipAddress, "10.9.9.9");
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().connects(), 2);
    EXPECT_EQ(fakeServer().localAddress(), "10.9.9.9");
}

constexpr char kOverOtherWifi[] = R"({"isInternetConnectionAvailable":true,)"
                                  R"("wifi":{"state":"connected","ipAddress":"10.0.0.2"},)"
                                  R"("wan":{"state":"connected","ipAddress":"10.9.9.9"}})";

TEST_F(Network, KeepsTheConnectionOverWifiAsItIsWhenItsAddressChanges) {
    connectedOver(kOverWifi);
    report(kOverOtherWifi);
    EXPECT_EQ(session().m_ipAddress, "10.0.0.1");
    EXPECT_TRUE(session().m_connected);
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_FALSE(session().m_onWan);
    EXPECT_EQ(fakeServer().connects(), 1);
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Network, KeepsAnAttemptOverWifiAsItIsWhenItsAddressChanges) {
    report(kOverWifi);
    ASSERT_TRUE(session().m_connecting);
    takeLog();
    report(kOverOtherWifi);
    EXPECT_EQ(session().m_ipAddress, "10.0.0.1");
    EXPECT_EQ(takeLogLines(), Texts{});
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().connects(), 1);
    EXPECT_EQ(fakeServer().localAddress(), "10.0.0.1");
}

TEST_F(Network, KeepsAnAttemptOverTheMobileLinkAsItIs) {
    report(kOverWan);
    report(kOverWan);
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_TRUE(session().m_onWan);
    EXPECT_EQ(fakeServer().connects(), 1);
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

TEST_F(Network, ReportsToTheSubscribersThatThereIsNoNetwork) {
    connectedOver(kOverWifi);
    callPrivate(subscribeConnStatus, "subscribeConnStatus", R"({"subscribe":true})");
    takeEvents();
    report(kNoNetwork);
    const Texts events = takeEvents();
    EXPECT_THAT(events, testing::Contains(testing::EndsWith(
                            R"({"returnValue":true, "connected":false, "session":true, "network":false})")));
}

TEST_F(Network, DropsTheConnectionOverWifiEvenWhenTheMobileLinkIsUp) {
    connectedOver(kOverWifi);
    report(kOutageOnWan);
    expectIdle();
    EXPECT_FALSE(session().m_survivedOutage);
}

TEST_F(Network, KeepsTheConnectionOverAMobileLinkThatIsStillConnected) {
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

TEST_F(Network, DropsTheConnectionOverAMobileLinkThatIsNotReported) {
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

TEST_F(Network, ForgetsOutageAndAddressOfAnAttemptWhoseClientIsGone) {
    session().m_connecting = session().m_survivedOutage = true;
    session().m_ipAddress = "10.0.0.1";
    report(kNoNetwork);
    EXPECT_FALSE(session().m_survivedOutage);
    EXPECT_EQ(session().m_ipAddress, "");
    session().m_connecting = false;
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

}  // namespace
