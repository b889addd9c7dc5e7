// SPDX-License-Identifier: GPL-3.0-only
// The watches on the platform's services: their calls to the bus, and the effect of each report.
#include "service/watchers.h"

#include "service/network.h"
#include "tests/fakes/servicefixture.h"

namespace {

constexpr char kWatchUri[] = "zelt://com.zelt.bus/signal/registerServerStatus";

struct Watch {
    const char* name;
    const char* service;
    bool (*start)(QSHandle*);
    QSFilter callback;
    const char* refused;   // log of a watch that the bus refuses
    const char* function;  // of the callback
    const char* wentDown;
    const char* failure;  // followed by the payload
};

class Watches : public ServiceTest, public testing::WithParamInterface<Watch> {
  protected:
    void report(const std::string& payload) { EXPECT_TRUE(fakeBus().replyTo(kWatchUri, payload)); }
    std::string line(const std::string& text) { return std::string(GetParam().function) + ": " + text; }
    std::string failure(const std::string& payload) { return line(GetParam().failure + payload); }
};

TEST_P(Watches, AreAskedForWithTheNameOfTheServiceAlone) {
    EXPECT_TRUE(GetParam().start(privateHandle()));
    EXPECT_EQ(takeEvents(), Texts{std::string("bus.call ") + kWatchUri + " {\"serviceName\":\"" +
                                  GetParam().service + "\"}"});
    ASSERT_EQ(fakeBus().calls().size(), 1u);
    EXPECT_EQ(fakeBus().calls()[0].callback, GetParam().callback);
    EXPECT_EQ(fakeBus().calls()[0].context, nullptr);
    EXPECT_EQ(fakeBus().calls()[0].handle, privateHandle());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_P(Watches, ThatTheBusRefusesAreLogged) {
    fakeBus().failNext("QSCall", -12, "no memory");
    EXPECT_FALSE(GetParam().start(privateHandle()));
    EXPECT_EQ(takeLogLines(), Texts{GetParam().refused});
}

TEST_P(Watches, OnlyLogThatTheServiceWentDown) {
    GetParam().start(privateHandle());
    takeEvents();
    session().m_networkAvailable = true;
    report(R"({"connected":false})");
    EXPECT_EQ(takeLogLines(), Texts{line(GetParam().wentDown)});
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_P(Watches, LogAReportThatIsNoJson) {
    GetParam().start(privateHandle());
    takeEvents();
    report("no json");
    EXPECT_EQ(takeLogLines(), (Texts{line("Malformed json packet? \n"), failure("no json")}));
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_P(Watches, LogAReportWithoutAStatus) {
    GetParam().start(privateHandle());
    takeEvents();
    for (const char* payload : {"{}", R"({"connected":null})", "[]", "5"}) {
        report(payload);
        EXPECT_EQ(takeLogLines(), (Texts{line("Could not find connected?"), failure(payload)}));
    }
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_P(Watches, ReturnTrueToTheBusWhateverTheyGet) {
    for (const char* payload : {"no json", "{}", R"({"connected":false})", R"({"connected":true})"}) {
        FakeMessage* message = fakeBus().request(privateHandle(), "", payload);
        EXPECT_TRUE(GetParam().callback(privateHandle(), message, nullptr)) << payload;
        QSMessageUnref(message);
    }
}

INSTANTIATE_TEST_SUITE_P(
    AllServices, Watches,
    testing::Values(
        Watch{"ConnectionManager", "com.zelt.connectionmanager", registerConnectionManagerStatus,
              connectionManagerUp,
              "registerConnectionManagerStatus: QSRegisterServerStatus for connection manager failed -12: no "
              "memory\n",
              "connectionManagerUp", "Connection manager went down!!",
              "Error in getting connectionManagerUp "},
        Watch{"AppInstaller", "com.zelt.appinstaller", registerAppInstallerStatus, appInstallerUp,
              "registerAppInstallerStatus: QSRegisterServerStatus for App Installer failed -12: no memory\n",
              "appInstallerUp", "AppInstaller went down!!", "Error in getting AppInstallerUp "},
        Watch{"AccountService", "com.zelt.accountservices", registerAccountSrvcStatus, accountServicesUp,
              "registerAccountSrvcStatus: QSRegisterServerStatus for Account Service failed -12: no memory\n",
              "accountServicesUp", "Account services went down!!", "Error in getting Account services "},
        Watch{"SystemManager", "com.zelt.systemmanager", registerSystemMgrStatus, systemMgrUp,
              "registerSystemMgrStatus: QSRegisterServerStatus for System manager failed -12: no memory\n",
              "systemMgrUp", "SystemManager went down!!", "Error in getting SystemManagerUp "}),
    [](const auto& watch) { return watch.param.name; });

// --- requests to a service that has come up

class ServiceUp : public ServiceTest {
  protected:
    void comesUp(bool (*start)(QSHandle*), const std::string& service) {
        start(privateHandle());
        takeEvents();
        EXPECT_TRUE(fakeBus().serverStatus(service, true));
    }
};

TEST_F(ServiceUp, ConnectionManagerIsAskedForItsStatus) {
    comesUp(registerConnectionManagerStatus, "com.zelt.connectionmanager");
    EXPECT_EQ(takeEvents(),
              Texts{R"(bus.call quor://com.zelt.connectionmanager/getstatus {"subscribe":true})"});
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(fakeBus().calls().back().callback, connectionStatusV2);
    EXPECT_EQ(fakeBus().calls().back().context, nullptr);
    EXPECT_EQ(fakeBus().calls().back().handle, privateHandle());
}

TEST_F(ServiceUp, ConnectionManagerIsAskedAnewAtASecondReport) {
    comesUp(registerConnectionManagerStatus, "com.zelt.connectionmanager");
    fakeBus().serverStatus("com.zelt.connectionmanager", true);
    EXPECT_EQ(fakeBus().payloadsTo("quor://com.zelt.connectionmanager/getstatus"),
              (Texts{R"({"subscribe":true})", R"({"subscribe":true})"}));
}

TEST_F(ServiceUp, ConnectionManagersStatusReachesTheNetworkTracking) {
    comesUp(registerConnectionManagerStatus, "com.zelt.connectionmanager");
    fakeBus().replyTo("quor://com.zelt.connectionmanager/getstatus",
                      R"({"isInternetConnectionAvailable":true,"wifi":{},"wan":{}})");
    EXPECT_TRUE(session().m_networkAvailable);
}

TEST_F(ServiceUp, ConnectionManagerThatCannotBeAskedIsLogged) {
    fakeBus().failNext("QSCall", -12, "no memory", 1, 1);
    comesUp(registerConnectionManagerStatus, "com.zelt.connectionmanager");
    EXPECT_EQ(takeLogLines(),
              Texts{"connectionManagerUp: QSCall getstatus for connection manager failed -12: no memory\n"});
}

TEST_F(ServiceUp, AppInstallerIsAskedForAllApplications) {
    comesUp(registerAppInstallerStatus, "com.zelt.appinstaller");
    EXPECT_EQ(
        takeEvents(),
        Texts{R"(bus.call quor://com.zelt.appinstaller/notifyOnChange {"appId": "*", "subscribe":true})"});
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(fakeBus().calls().back().callback, appInstallChange);
    EXPECT_EQ(fakeBus().calls().back().context, nullptr);
    EXPECT_EQ(fakeBus().calls().back().handle, privateHandle());
}

TEST_F(ServiceUp, AppInstallerThatCannotBeAskedIsLoggedWithTheTextOfAnotherCall) {
    fakeBus().failNext("QSCall", -12, "no memory", 1, 1);
    comesUp(registerAppInstallerStatus, "com.zelt.appinstaller");
    EXPECT_EQ(takeLogLines(),
              Texts{"appInstallerUp: QSCall getstatus for appInstaller failed -12: no memory\n"});
}

TEST_F(ServiceUp, SystemManagerIsAskedForTheBootStatus) {
    comesUp(registerSystemMgrStatus, "com.zelt.systemmanager");
    EXPECT_EQ(takeEvents(),
              Texts{R"(bus.call zelt://com.zelt.systemmanager/getBootStatus {"subscribe":true})"});
}

// --- the account service

class AccountServiceUp : public ServiceUp {
  protected:
    void SetUp() override {
        ServiceUp::SetUp();
        session().m_networkAvailable = true;
    }
    void comesUp() { ServiceUp::comesUp(registerAccountSrvcStatus, "com.zelt.accountservices"); }
    void expectNothing() {
        EXPECT_EQ(takeEvents(), Texts{});
        EXPECT_EQ(takeLogLines(), Texts{});
    }
};

TEST_F(AccountServiceUp, IsAskedForALogin) {
    comesUp();
    EXPECT_EQ(takeEvents(), Texts{"bus.call quor://com.zelt.accountservices/getAccountToken "});
    EXPECT_EQ(takeLogLines(), Texts{"accountServicesUp: Trying to get login value now that AC is up"});
}

TEST_F(AccountServiceUp, IsAnnouncedInTheLogBeforeItIsAsked) {
    fakeBus().failNext("QSCall", -12, "no memory", 1, 1);
    comesUp();
    const Texts lines = takeLogLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "accountServicesUp: Trying to get login value now that AC is up");
    EXPECT_TRUE(lines[1].starts_with("getLoginDetails: ")) << lines[1];
}

TEST_F(AccountServiceUp, ArmsNothingWhenTheCallToItIsRefused) {
    fakeBus().failNext("QSCall", -12, "no memory", 1, 1);
    comesUp();
    EXPECT_FALSE(fakeBus().faultPending("QSCall")) << "the call was refused";
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(session().m_retryCount, -1);
}

TEST_F(AccountServiceUp, ArmsNothingWhenItAnswersWithAnError) {
    comesUp();
    takeEvents();
    ASSERT_TRUE(fakeBus().replyErrorTo("quor://com.zelt.accountservices/getAccountToken",
                                       "org.freedesktop.DBus.Error.AccessDenied", "no"));
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(session().m_retryCount, -1);
}

TEST_F(AccountServiceUp, IsNotAskedWhenTheSessionHasAJidAlready) {
    session().m_jid = gloox::JID("u1@example.org");
    comesUp();
    expectNothing();
}

TEST_F(AccountServiceUp, IsNotAskedWithoutANetwork) {
    session().m_networkAvailable = false;
    comesUp();
    expectNothing();
}

TEST_F(AccountServiceUp, IsNotAskedWhileConnected) {
    session().m_connected = true;
    comesUp();
    expectNothing();
}

TEST_F(AccountServiceUp, IsNotAskedWhileConnecting) {
    session().m_connecting = true;
    comesUp();
    expectNothing();
}

// --- removed applications

class AppInstallChange : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        fakePrefs().store("com.zelt.pubsubservice", "deletecom.example.app",
                          R"({"nodes":["/u/r/com.example.app/n"]})");
    }
    bool notify(const std::string& payload) {
        FakeMessage* message = fakeBus().request(privateHandle(), "", payload);
        const bool handled = appInstallChange(privateHandle(), message, nullptr);
        QSMessageUnref(message);
        return handled;
    }
    // Cleaning up lists the application's key for deletion.
    bool cleaned() { return fakePrefs().stored("com.zelt.pubsubservice").contains("delete"); }
    void expectNothingTouched() {
        EXPECT_FALSE(cleaned());
        EXPECT_EQ(takeEvents(), Texts{});
    }
};

TEST_F(AppInstallChange, CleansUpAfterARemovedApplication) {
    EXPECT_TRUE(notify(R"({"statusChange":"REMOVED","appId":"com.example.app"})"));
    EXPECT_TRUE(cleaned());
    EXPECT_NE(fakePrefs().stored("com.zelt.pubsubservice").at("delete").find("deletecom.example.app"),
              std::string::npos);
}

TEST_F(AppInstallChange, IsHandledAlsoWhenTheCleanUpFails) {
    fakePrefs().failNext("QPAppGetHandle", QP_IO, 100);
    session().m_prefsHandle = nullptr;
    EXPECT_TRUE(notify(R"({"statusChange":"REMOVED","appId":"com.example.app"})"));
    EXPECT_FALSE(cleaned());
}

TEST_F(AppInstallChange, IgnoresEveryOtherChange) {
    for (const char* change : {"INSTALLED", "UPDATED", "removed", "Removed", "REMOVED "})
        EXPECT_TRUE(notify(std::string(R"({"statusChange":")") + change + R"(","appId":"com.example.app"})"))
            << change;
    expectNothingTouched();
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(AppInstallChange, LogsANoticeThatIsNoJson) {
    EXPECT_FALSE(notify("no json"));
    EXPECT_EQ(takeLogLines(), (Texts{"appInstallChange: Malformed json packet? \n",
                                     "appInstallChange: Error?  Incoming no json"}));
    expectNothingTouched();
}

TEST_F(AppInstallChange, LogsANoticeWithoutAChange) {
    EXPECT_FALSE(notify(R"({"appId":"com.example.app"})"));
    EXPECT_EQ(takeLogLines(), Texts{R"(appInstallChange: Error? No statusChange provided Incoming )"
                                    R"({"appId":"com.example.app"})"});
    expectNothingTouched();
}

TEST_F(AppInstallChange, LogsANoticeWithAnEmptyChange) {
    EXPECT_FALSE(notify(R"({"statusChange":""})"));
    EXPECT_EQ(takeLogLines(),
              Texts{R"(appInstallChange: Error? Empty statusChange provided Incoming {"statusChange":""})"});
    expectNothingTouched();
}

TEST_F(AppInstallChange, CleansNothingForARemovalWithoutAnApplication) {
    EXPECT_FALSE(notify(R"({"statusChange":"REMOVED"})"));
    EXPECT_FALSE(notify(R"({"statusChange":"REMOVED","appId":""})"));
    EXPECT_EQ(
        takeLogLines(),
        (Texts{
            R"(appInstallChange: Error? No appId provided Incoming {"statusChange":"REMOVED"})",
            R"(appInstallChange: Error? Empty appId provided Incoming {"statusChange":"REMOVED","appId":""})"}));
    expectNothingTouched();
}

}  // namespace
