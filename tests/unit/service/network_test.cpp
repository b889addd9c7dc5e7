// SPDX-License-Identifier: GPL-3.0-only
// Network tracking without a session: what a report must contain, and the local address of a connection.
#include "service/network.h"

#include "tests/unit/service/networktest.h"

namespace {

constexpr char kLogin[] = "bus.call quor://com.zelt.accountservices/getAccountToken ";
constexpr char kBadStatus[] = "connectionStatusV2: Error in getting connectionStatus ";

// --- reports that say nothing

TEST_F(Network, LogsAReportThatIsNoJson) {
    report("no json");
    EXPECT_EQ(takeLogLines(),
              (Texts{"connectionStatusV2: Malformed json packet? \n", std::string(kBadStatus) + "no json"}));
}

TEST_F(Network, LogsAReportWithoutTheInternetState) {
    session().m_networkAvailable = true;
    for (const char* payload : {"{}", R"({"isInternetConnectionAvailable":null})", "[]", "5"}) {
        report(payload);
        EXPECT_EQ(takeLogLines(), Texts{std::string(kBadStatus) + payload});
    }
    EXPECT_TRUE(session().m_networkAvailable);
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(Network, ChangesNothingButTheFlagWithoutTheWifiState) {
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

TEST_F(Network, ConnectsWithoutAnAddressWhenNoneIsReported) {
    report(R"({"isInternetConnectionAvailable":true,"wifi":{"state":"connected"}})");
    EXPECT_EQ(session().m_ipAddress, "");
    EXPECT_TRUE(session().m_connecting);
    EXPECT_EQ(takeLogLines().front(), "getIPAddress: getIPAddress failed, because of malformed json?");
}

TEST_F(Network, ConnectsWithoutAnAddressWhenTheMobileLinkIsNotReported) {
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

TEST_F(Network, KeepsTheLinkForTheReconnectThatItLeavesToTheAlarm) {
    session().m_lastError = gloox::ConnStreamClosed;
    report(kOverWan);
    EXPECT_TRUE(session().m_onWan);
    EXPECT_EQ(session().m_ipAddress, "10.9.9.9");
    expectIdle();
    session().m_lastError = 0;
    session().m_reconnectPending = true;
    report(kOverWifi);
    EXPECT_FALSE(session().m_onWan);
    EXPECT_EQ(session().m_ipAddress, "10.0.0.1");
    expectIdle();
}

TEST_F(Network, TakesEveryErrorButADisconnectThatWasAskedForAsAFailure) {
    for (int error = 1; error <= gloox::ConnNotConnected; ++error) {
        session().m_lastError = error;
        report(kOverWifi);
        EXPECT_EQ(session().m_connecting, error == 17) << error;
        session().disconnect();
    }
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

// --- the two small functions

TEST_F(Network, ClearsTheStateBeforeItLooks) {
    bool connected = true;
    EXPECT_FALSE(checkConnection("wifi", nullptr, connected));
    EXPECT_FALSE(connected);
}

}  // namespace
