// SPDX-License-Identifier: GPL-3.0-only
// The fixture of the network tests: an account with its details, and reports of the connection manager.
#pragma once

#include <string>

#include "service/network.h"
#include "tests/fakes/servicefixture.h"

inline constexpr char kOverWifi[] = R"({"isInternetConnectionAvailable":true,)"
                                    R"("wifi":{"state":"connected","ipAddress":"10.0.0.1"},)"
                                    R"("wan":{"state":"connected","ipAddress":"10.9.9.9"}})";
inline constexpr char kOverWan[] = R"({"isInternetConnectionAvailable":true,)"
                                   R"("wifi":{"state":"disconnected","ipAddress":"10.0.0.1"},)"
                                   R"("wan":{"state":"disconnected","ipAddress":"10.9.9.9"}})";
inline constexpr char kOutageOnWan[] = R"({"isInternetConnectionAvailable":false,)"
                                       R"("wifi":{"state":"disconnected"},"wan":{"state":"connected"}})";
inline constexpr char kNoNetwork[] = R"({"isInternetConnectionAvailable":false,)"
                                     R"("wifi":{"state":"disconnected"},"wan":{"state":"disconnected"}})";

class Network : public ServiceTest {
  protected:
    // The details of an account, but no network yet.
    void SetUp() override {
        ServiceTest::SetUp();
        setAccountDetails();
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
    void expectIdle() {
        EXPECT_FALSE(session().m_connected);
        EXPECT_FALSE(session().m_connecting);
    }
};
