// SPDX-License-Identifier: GPL-3.0-only
// Start-up step by step, every exit from it, and the methods that are registered.
#include "service/service.h"

#include <dlfcn.h>
#include <glib.h>
#include <sys/stat.h>

#include <functional>
#include <utility>

#include "service/cancel.h"
#include "tests/fakes/fakebusstate.h"
#include "tests/fakes/servicefixture.h"

namespace {

bool loopRefused = false;                        // the next main loop cannot be made
std::function<void(GMainLoop*)> onLoopReleased;  // called before a main loop loses a reference

template <typename Function>
Function* inGlib(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These replace GLib's functions, which never fail and report nothing.
GMainLoop* g_main_loop_new(GMainContext* context, gboolean running) {
    static auto* const make = inGlib<decltype(g_main_loop_new)>("g_main_loop_new");
    return std::exchange(loopRefused, false) ? nullptr : make(context, running);
}

void g_main_loop_unref(GMainLoop* loop) {
    static auto* const release = inGlib<decltype(g_main_loop_unref)>("g_main_loop_unref");
    if (onLoopReleased)
        onLoopReleased(loop);
    release(loop);
}

namespace {

// Read before any test changes it.
const int32_t kPortAtStart = gport;

constexpr char kExiting[] = "main: Exiting main because of errors";
constexpr char kExits[] = "main: PUBSUB SERVICE EXITS BECAUSE OF ERRORS";

std::string watchCall(const std::string& service) {
    return "bus.call zelt://com.zelt.bus/signal/registerServerStatus {\"serviceName\":\"com.zelt." + service +
           "\"}";
}

class Service : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        gjid = gpasswd = gpNode = gserver = gresource = "";
        gport = 5222;
        m_private = privateHandle();
    }
    // After the end, asking the bus for the connection creates a new one.
    bool unregistered() const { return m_private->closed; }
    const QSHandle* privateConnection() const { return m_private; }

    // Runs the service, does `whileRunning` from its main loop, then ends the loop.
    int run(std::function<void()> whileRunning = [] {}) {
        m_whileRunning = std::move(whileRunning);
        const unsigned idle = g_idle_add(
            [](void* test) -> gboolean {
                auto* self = static_cast<Service*>(test);
                self->m_idleRan = true;
                self->m_whileRunning();
                g_main_loop_quit(gpMainLoop);
                return G_SOURCE_REMOVE;
            },
            this);
        const int status = runService({"main", 1});
        if (!m_idleRan)
            g_source_remove(idle);
        return status;
    }
    bool ranItsLoop() const { return m_idleRan; }
    // What the process entry itself logged.
    Texts mainLog() {
        Texts lines = takeLogLines();
        std::erase_if(lines, [](const std::string& line) { return !line.starts_with("main: "); });
        return lines;
    }

  private:
    std::function<void()> m_whileRunning;
    bool m_idleRan = false;
    QSHandle* m_private = nullptr;
};

TEST_F(Service, RunsItsLoopAndEndsWithStatus0WhenTheLoopEnds) {
    EXPECT_EQ(run(), 0);
    EXPECT_TRUE(ranItsLoop());
    EXPECT_EQ(mainLog(), (Texts{"main: Calling mainloop", kExiting, kExits}));
    EXPECT_TRUE(unregistered());
    EXPECT_EQ(gpMainLoop, nullptr);
    EXPECT_EQ(session().m_mainLoop, nullptr);
}

TEST_F(Service, StartsItsFourWatchesInOrderAndNothingElse) {
    run();
    EXPECT_EQ(takeEvents(), (Texts{watchCall("connectionmanager"), watchCall("appinstaller"),
                                   watchCall("accountservices"), watchCall("systemmanager")}));
    for (const PlacedCall& watch : fakeBus().calls())
        EXPECT_EQ(watch.handle, privateConnection()) << watch.payload;
}

TEST_F(Service, ReleasesItsLoopBeforeItsLastLogLine) {
    GMainLoop* loop = nullptr;
    Texts before;
    onLoopReleased = [&](GMainLoop* released) {
        EXPECT_EQ(released, loop);
        before = mainLog();
    };
    run([&] { loop = gpMainLoop; });
    onLoopReleased = nullptr;
    EXPECT_EQ(before, (Texts{"main: Calling mainloop", kExiting}));
    EXPECT_EQ(mainLog(), Texts{kExits});
}

TEST_F(Service, EndsWhenItHasNoLoop) {
    loopRefused = true;
    onLoopReleased = [](GMainLoop* released) { ADD_FAILURE() << "there is none to release: " << released; };
    EXPECT_EQ(run(), 0);
    onLoopReleased = nullptr;
    EXPECT_FALSE(ranItsLoop());
    EXPECT_EQ(takeLogLines(), (Texts{"main: Creating new mainloop failed \n", kExiting, kExits}));
    EXPECT_FALSE(unregistered());
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(Service, StoresItsHandlesAndItsLoopInTheSession) {
    run([&] {
        EXPECT_EQ(session().m_privateHandle, privateHandle());
        EXPECT_EQ(session().m_publicHandle, publicHandle());
        EXPECT_EQ(session().m_serviceHandle, serviceHandle());
        EXPECT_EQ(session().m_mainLoop, gpMainLoop);
        ASSERT_NE(session().m_prefsHandle, nullptr);
        EXPECT_EQ(session().m_prefsHandle->app, "com.zelt.pubsubservice");
        EXPECT_EQ(privateHandle()->loop, gpMainLoop);
        EXPECT_EQ(publicHandle()->loop, gpMainLoop);
    });
    EXPECT_TRUE(ranItsLoop());
}

TEST_F(Service, InstallsOneCancelFunctionForEachConnection) {
    run([&] {
        EXPECT_EQ(privateHandle()->cancel, cancelFunction);
        EXPECT_EQ(privateHandle()->cancelContext, nullptr);
        EXPECT_EQ(publicHandle()->cancel, publicCancelFunc);
        EXPECT_EQ(publicHandle()->cancelContext, nullptr);
    });
    EXPECT_TRUE(ranItsLoop());
}

TEST_F(Service, OffersItsMethodsInOneCategoryWithoutUserData) {
    run([&] {
        for (QSHandle* handle : {privateHandle(), publicHandle()}) {
            ASSERT_EQ(handle->categories.size(), 1u);
            EXPECT_EQ(handle->categories.begin()->first, "/");
            for (const auto& [name, served] : handle->categories.begin()->second)
                EXPECT_EQ(served.second, nullptr) << name;
        }
    });
    EXPECT_TRUE(ranItsLoop());
}

TEST_F(Service, BeginsFromAPristineSession) {
    session().m_username = "left over";
    session().m_retryCount = 7;
    run([&] {
        EXPECT_EQ(session().m_username, "");
        EXPECT_EQ(session().m_retryCount, -1);
    });
}

TEST_F(Service, CreatesTheCacheFolderAndItsParents) {
    std::filesystem::remove_all(stateFolder());
    run();
    struct stat status {};
    ASSERT_EQ(stat((stateFolder() / "cache").c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
}

TEST_F(Service, LoadsTheHandlerFileAndTheOfflineMap) {
    writeFile(stateFolder() / "pubsubhandlers.conf",
              std::string(R"({ "node": "/n", "endpoint": "quor://com.zelt.mail/item" })") + '\0' + '\n');
    fakePrefs().store("pubsubservice.offlineMap", "/u/r/a/n", "com.example.app");
    run([&] {
        EXPECT_EQ(session().serviceNodeMap.count("/n"), 1u);
        EXPECT_EQ(session().m_offlineMap["/u/r/a/n"], "com.example.app");
    });
    EXPECT_TRUE(ranItsLoop());
}

TEST_F(Service, LoadsTheHandlersBeforeTheOfflineMap) {
    writeFile(stateFolder() / "pubsubhandlers.conf", "no json\n");
    fakePrefs().store("pubsubservice.offlineMap", "/u/r/a/n", "com.example.app");
    fakePrefs().failNext("QPAppCopyValueString", QP_IO);
    run();
    EXPECT_EQ(takeLogLines(),
              (Texts{"ReadHandlerFile: Malformed handler file. Stop reading \n",
                     "loadOfflineMapFromDisk: Could not read value for node in offline store /u/r/a/n",
                     "main: Calling mainloop", kExiting, kExits}));
}

TEST_F(Service, RunsWithoutTheOfflineMapsStoreWhichIsTheFirstToBeOpened) {
    fakePrefs().failNext("QPAppGetHandle", QP_IO, 1);
    run([&] {
        EXPECT_EQ(session().m_offlinePrefHandle, nullptr);
        EXPECT_NE(session().m_prefsHandle, nullptr);
    });
    EXPECT_TRUE(ranItsLoop());
    EXPECT_FALSE(fakePrefs().faultPending("QPAppGetHandle"));
}

TEST_F(Service, StartsWithoutACredentialsFileAndLogsNothing) {
    run([&] {
        EXPECT_EQ(session().m_jid.full(), "");
        EXPECT_EQ(session().m_username, "");
        EXPECT_EQ(session().m_domain, "");
        EXPECT_EQ(session().m_port, 0);
        EXPECT_EQ(gport, 5222);
    });
    EXPECT_EQ(mainLog(), (Texts{"main: Calling mainloop", kExiting, kExits}));
}

TEST_F(Service, TakesTheSessionDetailsFromTheCredentialsFile) {
    writeFile(stateFolder() / "pubsub.conf",
              "u1@example.org\nsecret\nxmpp.example.org\n5223\npubsub.example.org\ndev42\n");
    run([&] {
        EXPECT_EQ(session().m_jid.full(), "u1@example.org");
        EXPECT_EQ(session().m_username, "u1");
        EXPECT_EQ(session().m_domain, "example.org");
        EXPECT_EQ(session().m_password, "secret");
        EXPECT_EQ(session().m_server, "xmpp.example.org");
        EXPECT_EQ(session().m_port, 5223);
        EXPECT_EQ(session().m_pubsubService, "pubsub.example.org");
        EXPECT_EQ(session().m_resource, "dev42");
        EXPECT_EQ(gjid, "u1@example.org");
        EXPECT_EQ(gport, 5223);
    });
    EXPECT_EQ(fakeServer().connects(), 0) << "the start itself never dials";
}

TEST(Globals, HoldTheDefaultPortFromTheStart) {
    EXPECT_EQ(kPortAtStart, 5222);
}

TEST_F(Service, KeepsTheDefaultPortForAShortCredentialsFile) {
    writeFile(stateFolder() / "pubsub.conf", "u1@example.org\nsecret\nxmpp.example.org\n");
    run([&] { EXPECT_EQ(session().m_port, 5222); });
    EXPECT_TRUE(ranItsLoop());
}

TEST_F(Service, TakesAJidWithoutAtSignForUserAndDomainAlike) {
    writeFile(stateFolder() / "pubsub.conf", "example.org\n");
    run([&] {
        EXPECT_EQ(session().m_username, "example.org");
        EXPECT_EQ(session().m_domain, "example.org");
    });
    EXPECT_TRUE(ranItsLoop());
}

TEST_F(Service, TakesEverythingAfterTheFirstAtSignForTheDomain) {
    writeFile(stateFolder() / "pubsub.conf", "u1@one@two\n");
    run([&] {
        EXPECT_EQ(session().m_username, "u1");
        EXPECT_EQ(session().m_domain, "one@two");
    });
    EXPECT_TRUE(ranItsLoop());
}

struct FailedStep {
    const char* name;
    const char* operation;
    const char* log;
    bool unregisters;  // the step comes after the private connection is there
};

class ServiceStart : public Service, public testing::WithParamInterface<FailedStep> {};

TEST_P(ServiceStart, EndsAtAFailedBusStepWithStatus0) {
    fakeBus().failNext(GetParam().operation, -5, "no bus");
    EXPECT_EQ(run(), 0);
    EXPECT_FALSE(ranItsLoop());
    EXPECT_EQ(mainLog(), (Texts{GetParam().log, kExiting, kExits}));
    EXPECT_EQ(unregistered(), GetParam().unregisters);
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(gpMainLoop, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    EveryBusStep, ServiceStart,
    testing::Values(FailedStep{"Register", "QSRegisterZeltService",
                               "main: Register of com.zelt.pubsubservice failed no bus\n", false},
                    FailedStep{"Category", "QSZeltServiceRegisterCategory",
                               "main: Registering of category for pubsub service failed no bus\n", false},
                    FailedStep{"Attach", "QSGmainAttachZeltService",
                               "main: Attaching to mainloop failed no bus\n", false},
                    FailedStep{"CancelFunction", "QSSubscriptionSetCancelFunction",
                               "main: Failed registering cancel function no bus\n", true}),
    [](const auto& step) { return step.param.name; });

TEST_F(Service, EndsWhenThePreferencesCannotBeOpened) {
    fakePrefs().failNext("QPAppGetHandle", QP_IO, 2);
    EXPECT_EQ(run(), 0);
    EXPECT_FALSE(ranItsLoop());
    EXPECT_EQ(mainLog(), (Texts{"main: Error: QPAppGetHandle returned 3", kExiting, kExits}));
    EXPECT_EQ(takeEvents(), Texts{}) << "no watch is started";
    EXPECT_TRUE(unregistered());
}

TEST_F(Service, NamesTheReasonWhyThePreferencesCannotBeOpened) {
    fakePrefs().failNext("QPAppGetHandle", QP_NOT_FOUND, 2);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(mainLog(), (Texts{"main: Error: QPAppGetHandle returned 1", kExiting, kExits}));
}

TEST_F(Service, HasLoadedAllElseWhenThePreferencesCannotBeOpened) {
    writeFile(stateFolder() / "pubsub.conf", "u1@example.org\nsecret\nxmpp.example.org\n");
    fakePrefs().failNext("QPAppGetHandle", QP_IO, 2);
    run();
    EXPECT_EQ(session().m_username, "u1");
    EXPECT_EQ(session().m_domain, "example.org");
    EXPECT_EQ(session().m_prefsHandle, nullptr);
    EXPECT_TRUE(std::filesystem::is_directory(stateFolder() / "cache"));
}

TEST_F(Service, EndsWhenTheConnectionManagerCannotBeWatched) {
    fakeBus().failNext("QSCall", -5, "no bus");
    EXPECT_EQ(run(), 0);
    EXPECT_FALSE(ranItsLoop());
    EXPECT_EQ(takeLogLines().back(), kExits);
    EXPECT_EQ(takeEvents(), Texts{}) << "no further watch is started";
}

TEST_F(Service, LogsTheFailedConnectionManagerWatchOnceInTheWatchAndOnceInTheEntry) {
    fakeBus().failNext("QSCall", -5, "no bus");
    run();
    Texts lines = takeLogLines();
    ASSERT_GE(lines.size(), 4u);
    lines.erase(lines.begin(), lines.end() - 4);
    EXPECT_EQ(lines, (Texts{"registerConnectionManagerStatus: QSRegisterServerStatus for connection manager "
                            "failed -5: no bus\n",
                            "main: registerConnectionManagerStatus failed", kExiting, kExits}));
}

TEST_F(Service, RunsWithoutTheOtherThreeWatches) {
    fakeBus().failNext("QSCall", -5, "no bus", 3, 1);
    EXPECT_EQ(run(), 0);
    EXPECT_TRUE(ranItsLoop());
    EXPECT_FALSE(fakeBus().faultPending("QSCall"));
    EXPECT_EQ(takeEvents(), Texts{watchCall("connectionmanager")});
    EXPECT_EQ(mainLog(), (Texts{"main: Calling mainloop", kExiting, kExits}));
}

TEST_F(Service, LeavesWhenOnlyThePublicCancelFunctionIsRefused) {
    fakeBus().failNext("QSSubscriptionSetCancelFunction", -5, "no bus", 1, 1);
    EXPECT_EQ(run(), 0);
    EXPECT_FALSE(ranItsLoop());
    EXPECT_EQ(mainLog(), (Texts{"main: Failed registering cancel function no bus\n", kExiting, kExits}));
    EXPECT_EQ(privateConnection()->cancel, cancelFunction) << "the private one is installed first";
}

TEST_F(Service, PrintsTheBusErrorWhenItCannotUnregister) {
    fakeBus().failNext("QSUnregister", -5, "stuck");
    run();
    EXPECT_NE(log().raw().find("bus error -5: stuck"), std::string::npos) << log().raw();
    EXPECT_EQ(takeLogLines().back(), kExits);
}

// --- the methods

TEST_F(Service, ServesPublicMethodsOnBothConnectionsAndPrivateOnesOnThePrivateAlone) {
    run([&] {
        EXPECT_FALSE(fakeBus().call(privateHandle(), "connectStatus", "{}")->isError);
        EXPECT_FALSE(fakeBus().call(publicHandle(), "connectStatus", "{}")->isError);
        EXPECT_FALSE(fakeBus().call(privateHandle(), "getResource", "{}")->isError);
        EXPECT_TRUE(fakeBus().call(publicHandle(), "getResource", "{}")->isError);
    });
    EXPECT_TRUE(ranItsLoop());
}

TEST_F(Service, KnowsNoMethodForItsUnregisteredHandlers) {
    run([&] {
        for (const char* method :
             {"createSession", "getSubscriptions", "getAffliations", "getPublishedItems"})
            for (QSHandle* handle : {privateHandle(), publicHandle()}) {
                const FakeMessage* message = fakeBus().call(handle, method, "{}");
                EXPECT_EQ(message->errorName, "org.freedesktop.DBus.Error.UnknownMethod") << method;
            }
    });
    EXPECT_TRUE(ranItsLoop());
}

TEST_F(Service, PublishItemIsTheHandlerThatPublishesToANode) {
    run([&] {
        // Without a session the handlers refuse with the texts of the private methods.
        const FakeMessage* message = fakeBus().call(privateHandle(), "publishItem", "{}");
        EXPECT_EQ(
            message->reply(),
            R"({ "returnValue": false, "errorCode": "libErr", "errorText": "Service not initialized" })");
        EXPECT_TRUE(fakeBus().call(privateHandle(), "publishItemToNode", "{}")->isError);
    });
    EXPECT_TRUE(ranItsLoop());
}

}  // namespace
