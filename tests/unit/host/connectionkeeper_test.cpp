// SPDX-License-Identifier: GPL-3.0-only
// When the push service is asked to connect, and how, on a real bus with a push service, a connection manager
// and an account service of the test.
#include "platform/host/connectionkeeper.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include "tests/unit/host/caller.h"
#include "tests/unit/host/privatebus.h"
#include "tests/unit/tools/fakeservice.h"

namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;

constexpr char kKeep[] = "zelt://com.zelt.host/connection/keep";
constexpr char kKept[] = "zelt://com.zelt.host/connection/status";
constexpr char kYes[] = R"({"returnValue":true})";
constexpr char kUp[] = R"({"returnValue":true,"connected":true,"session":true,"network":true})";
constexpr char kDown[] =
    R"({"returnValue":true,"connected":false,"session":true,"network":true,"ended":false})";
constexpr char kNoSession[] =
    R"({"returnValue":true,"connected":false,"session":false,"network":true,"ended":false})";
constexpr char kEnded[] =
    R"({"returnValue":true,"connected":false,"session":true,"network":true,"ended":true})";
constexpr char kOnline[] = R"({"returnValue":true,"isInternetConnectionAvailable":true})";
constexpr char kOffline[] = R"({"returnValue":true,"isInternetConnectionAvailable":false})";
constexpr char kAccount[] = R"({"returnValue":true,"jabberId":"{}","uniqueId":"token"})";
constexpr char kNoAccount[] = R"({"returnValue":false,"errorText":"no account is set"})";

constexpr char kLogIn[] = R"(initializeAccount {"unlessConnected":true})";
constexpr char kConnect[] = "connectStatus {}";
constexpr char kEnd[] = "disconnect {}";

// A platform service with one method, which may be subscribed to.
class Provider {
  public:
    Provider(const char* name, const char* method, std::string answer)
        : m_answer(std::move(answer)), m_methods{{.name = method, .handler = onCall}, {}} {
        EXPECT_EQ(m_bus.take(name), StartResult::Started);
        EXPECT_TRUE(m_bus.serve("/", m_methods, this) && m_bus.attach(m_loop));
    }
    ~Provider() { g_main_loop_unref(m_loop); }
    Provider(const Provider&) = delete;
    Provider& operator=(const Provider&) = delete;

    int asked = 0;

    void answer(const std::string& text) {
        m_answer = text;
        m_bus.post("/", m_methods[0].name, text);
    }

  private:
    static bool onCall(QSHandle*, QSMessage* message, void* context) {
        auto* self = static_cast<Provider*>(context);
        self->asked++;
        self->m_bus.replyAndSubscribe(message, self->m_answer);
        return true;
    }

    GMainLoop* m_loop = g_main_loop_new(nullptr, FALSE);
    std::string m_answer;
    QSMethod m_methods[2];
    BusService m_bus;
};

int noticesEnd = -1;
std::function<void()> atOpening;  // what happens just before the kernel's notices are there

int openNotices() {
    if (atOpening)
        atOpening();
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    noticesEnd = ends[1];
    return ends[0];
}

class Keeper : public testing::Test {
  protected:
    Keeper() {
        config.stateDir = folder.path();
        config.reconnectDelays = {.first = 20, .longest = 50};
        service = std::make_unique<FakeService>();
        status(kDown);
    }
    ~Keeper() override {
        keeper.reset();
        g_main_loop_unref(loop);
        if (noticesEnd >= 0)
            close(noticesEnd);
        noticesEnd = -1;
        atOpening = nullptr;
    }
    void start() {
        keeper.reset();
        keeper = std::make_unique<ConnectionKeeper>(config, supply);
        ASSERT_EQ(keeper->start(loop), StartResult::Started);
    }
    // Starts it and waits until it follows the service and the network.
    void startAndFollow() {
        const int before = network.asked;
        const size_t calls = service->calls.size();
        start();
        EXPECT_TRUE(Caller::waitFor([&] { return network.asked > before && service->calls.size() > calls; }));
        EXPECT_EQ(service->calls[calls], R"(subscribeConnStatus {"subscribe":true,"details":true})");
    }
    void status(const char* payload) { service->script["subscribeConnStatus"] = payload; }
    // The status changes, and the subscribers are told.
    void become(const char* payload) {
        status(payload);
        service->post("subscribeConnStatus", payload);
    }
    // The same; returns when the keeper has taken it.
    void becomeAndSettle(const char* payload) {
        const size_t questions = service->calls.size() - asked().size();
        become(payload);
        if (payload != kUp) {
            EXPECT_TRUE(Caller::waitFor([&] { return service->calls.size() - asked().size() > questions; }));
        }
        caller.call(kKept, "{}");  // the bus keeps the order
    }
    void onBattery(bool discharging) {
        std::filesystem::create_directories(folder / "supplies/BAT0");
        std::ofstream(folder / "supplies/BAT0/type") << "Battery\n";
        std::ofstream(folder / "supplies/BAT0/status") << (discharging ? "Discharging\n" : "Charging\n");
    }
    // What it was asked for, without the questions about the status.
    std::vector<std::string> asked() const {
        std::vector<std::string> found;
        for (const std::string& call : service->calls) {
            if (!call.starts_with("subscribeConnStatus"))
                found.push_back(call);
        }
        return found;
    }
    bool isAsked(size_t times = 1) {
        return Caller::waitFor([&] { return asked().size() >= times; });
    }
    // Nothing more is asked for while several delays would have passed.
    bool isLeftAlone() {
        const size_t before = asked().size();
        return !Caller::waitFor([&] { return asked().size() > before; }, 1'500);
    }
    // The time until a timer of this process expires, in milliseconds; -1 when there is none.
    int nextTimer() {
        int milliseconds = timeUntilNext();
        // A new connection of the bus still has questions for the daemon, each with a deadline of 2 s.
        for (int trips = 0; trips < 100 && milliseconds > 1'900 && milliseconds <= 2'000; ++trips) {
            caller.call(kKept, "{}");
            milliseconds = timeUntilNext();
        }
        return milliseconds;
    }
    static int timeUntilNext() {
        GMainContext* context = g_main_context_default();
        EXPECT_TRUE(g_main_context_acquire(context));
        int priority = 0, timeout = 0;
        GPollFD polled[64];
        g_main_context_prepare(context, &priority);
        g_main_context_query(context, G_MAXINT, &timeout, polled, 64);
        g_main_context_release(context);
        return timeout;
    }
    std::string tell(bool keep) {
        return caller.call(kKeep, keep ? R"({"keep":true})" : R"({"keep":false})");
    }

    PrivateBus bus;
    TestFolder folder;
    HostConfig config;
    PowerSupply supply{folder / "supplies", openNotices};
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    std::unique_ptr<FakeService> service;
    Provider network{"com.zelt.connectionmanager", "getstatus", kOnline};
    std::unique_ptr<Provider> account =
        std::make_unique<Provider>("com.zelt.accountservices", "getAccountToken", kAccount);
    std::unique_ptr<ConnectionKeeper> keeper;
    Caller caller;
};

TEST_F(Keeper, HasAServiceWithAnAccountLogIn) {
    start();
    EXPECT_TRUE(isAsked());
    EXPECT_THAT(asked(), ElementsAre(kLogIn));
}

TEST_F(Keeper, HasAServiceThatKnowsNoAccountYetLogIn) {
    status(kNoSession);
    start();
    EXPECT_TRUE(isAsked());
    EXPECT_THAT(asked(), ElementsAre(kLogIn));
}

TEST_F(Keeper, HasAServiceConnectWithWhatItHasWhereTheAccountServiceHasNoAccount) {
    account->answer(kNoAccount);
    start();
    EXPECT_TRUE(isAsked());
    EXPECT_THAT(asked(), ElementsAre(kConnect));
}

TEST_F(Keeper, HasAServiceConnectWithWhatItHasWhereThereIsNoAccountService) {
    account.reset();
    start();
    EXPECT_TRUE(isAsked());
    EXPECT_THAT(asked(), ElementsAre(kConnect));
}

TEST_F(Keeper, AsksForNothingWithoutAnyAccountUntilThereIsOne) {
    account->answer(kNoAccount);
    status(kNoSession);
    start();
    EXPECT_TRUE(Caller::waitFor([&] { return account->asked >= 3; }));
    EXPECT_THAT(asked(), IsEmpty());
    account->answer(kAccount);
    EXPECT_TRUE(isAsked());
    EXPECT_THAT(asked(), ElementsAre(kLogIn));
}

TEST_F(Keeper, DoesNotGoOnWithAnAccountThatWasRemoved) {
    start();
    EXPECT_TRUE(isAsked());
    account->answer(kNoAccount);
    const int before = account->asked;
    become(kDown);
    EXPECT_TRUE(Caller::waitFor([&] { return account->asked >= before + 3; }));
    EXPECT_THAT(asked(), ElementsAre(kLogIn));
}

TEST_F(Keeper, DoesNotGoOnWithAnAccountWhoseFileIsGone) {
    account->answer(kNoAccount);
    status(kEnded);
    startAndFollow();
    keeper->accountChanged();
    become(kDown);
    EXPECT_TRUE(Caller::waitFor([&] { return account->asked >= 3; }));
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(Keeper, AsksAgainAfterEachAttemptThatFails) {
    start();
    for (size_t attempt = 1; attempt <= 4; ++attempt) {
        EXPECT_TRUE(isAsked(attempt));
        become(kDown);
    }
    EXPECT_THAT(asked(), Each(std::string(kLogIn)));
}

TEST_F(Keeper, TakesAnAttemptWithoutAResultForFailedAfterAMinute) {
    start();
    EXPECT_TRUE(isAsked());
    EXPECT_THAT(nextTimer(), AllOf(Ge(55'000), Le(65'000)));
}

TEST_F(Keeper, HasNoTimerWhileTheServiceIsConnected) {
    start();
    EXPECT_TRUE(isAsked());
    becomeAndSettle(kUp);
    EXPECT_EQ(nextTimer(), -1);
    keeper->resumed();
    keeper->accountChanged();
    network.answer(R"({"returnValue":true,"isInternetConnectionAvailable":true,"wifi":{}})");
    EXPECT_TRUE(isLeftAlone());
    EXPECT_EQ(nextTimer(), -1);
}

TEST_F(Keeper, AsksWhenAConnectionIsLost) {
    status(kUp);
    startAndFollow();
    EXPECT_TRUE(isLeftAlone());
    become(kDown);
    EXPECT_TRUE(isAsked());
}

TEST_F(Keeper, AsksForNothingWithoutInternet) {
    network.answer(kOffline);
    startAndFollow();
    keeper->resumed();
    EXPECT_TRUE(isLeftAlone());
    network.answer(kOnline);
    EXPECT_TRUE(isAsked());
    network.answer(kOffline);
    become(kDown);
    EXPECT_TRUE(isLeftAlone()) << "also when the Internet goes between two attempts";
}

// Longer delays than the test takes: whatever is asked for follows the event.
TEST_F(Keeper, AsksAtOnceAfterAnEventOfTheMachine) {
    config.reconnectDelays = {.first = 3'600'000, .longest = 3'600'000};
    status(kUp);
    startAndFollow();
    becomeAndSettle(kDown);
    size_t times = 0;
    for (const std::function<void()>& event : std::vector<std::function<void()>>{
             [&] { keeper->resumed(); }, [&] { keeper->accountChanged(); },
             [&] {
                 network.answer(kOffline);
                 network.answer(kOnline);
             },
             [&] {
                 network.answer(R"({"returnValue":true,"isInternetConnectionAvailable":true,"wan":{}})");
             }}) {
        EXPECT_EQ(asked().size(), times);
        event();
        EXPECT_TRUE(isAsked(++times));
        becomeAndSettle(kDown);
    }
}

TEST_F(Keeper, FollowsAServiceThatIsStartedAgain) {
    status(kUp);
    startAndFollow();
    service = nullptr;
    service = std::make_unique<FakeService>();
    status(kDown);
    EXPECT_TRUE(isAsked());
    EXPECT_THAT(asked(), ElementsAre(kLogIn));
}

// The bound of the delay is 2.56 s after seven attempts, so a draw below 20 ms would be luck.
TEST_F(Keeper, BeginsTheDelaysAgainWhenAServiceEndsWhoseConnectionLasted) {
    config.reconnectDelays = {.first = 20, .longest = 3'600'000, .lasting = 0};
    start();
    for (size_t attempt = 1; attempt <= 7; ++attempt) {
        EXPECT_TRUE(isAsked(attempt));
        become(kDown);
    }
    becomeAndSettle(kUp);
    service = nullptr;
    service = std::make_unique<FakeService>();
    status(kDown);
    EXPECT_TRUE(Caller::waitFor([&] { return !service->calls.empty(); }));
    caller.call(kKept, "{}");
    // No draw is that long: it asks already, and waits for what becomes of it.
    EXPECT_THAT(nextTimer(), AnyOf(Le(20), Ge(60'000)));
    EXPECT_TRUE(Caller::waitFor([&] { return !asked().empty(); }, 100));
}

TEST_F(Keeper, LeavesAConnectionAloneThatTheServicesOwnMethodEnded) {
    status(kUp);
    startAndFollow();
    become(kEnded);
    EXPECT_TRUE(isLeftAlone());
    EXPECT_EQ(caller.call(kKept, "{}"), R"({"returnValue":true,"keep":true,"ended":true})");
    become(kUp);
    become(kDown);
    EXPECT_TRUE(isAsked());
}

TEST_F(Keeper, LeavesAConnectionAloneThatWasEndedOnPurposeUntilItIsWantedAgain) {
    status(kUp);
    startAndFollow();
    EXPECT_EQ(tell(false), kYes);
    become(kDown);
    keeper->resumed();
    EXPECT_TRUE(isLeftAlone());
    EXPECT_EQ(caller.call(kKept, "{}"), R"({"returnValue":true,"keep":true,"ended":true})");
    EXPECT_EQ(tell(true), kYes);
    EXPECT_TRUE(isAsked());
    EXPECT_EQ(caller.call(kKept, "{}"), R"({"returnValue":true,"keep":true,"ended":false})");
}

TEST_F(Keeper, RemembersAnEndOnPurposeOverItsOwnRestartAndTheServices) {
    status(kUp);
    startAndFollow();
    EXPECT_EQ(tell(false), kYes);
    become(kDown);
    startAndFollow();
    EXPECT_TRUE(isLeftAlone());
    service = nullptr;
    service = std::make_unique<FakeService>();
    status(kDown);
    EXPECT_TRUE(Caller::waitFor([&] { return !service->calls.empty(); }));
    become(kUp);  // a service that starts connects by itself
    EXPECT_TRUE(isAsked());
    EXPECT_THAT(asked(), ElementsAre(kEnd));
    become(kEnded);
    EXPECT_TRUE(isLeftAlone());
}

TEST_F(Keeper, EndsAConnectionAgainThatTheServiceMakesWhenTheNetworkChanges) {
    status(kUp);
    startAndFollow();
    EXPECT_EQ(tell(false), kYes);
    becomeAndSettle(kDown);
    network.answer(R"({"returnValue":true,"isInternetConnectionAvailable":true,"wan":{}})");
    caller.call("zelt://com.zelt.connectionmanager/getstatus", "{}");
    becomeAndSettle(kUp);
    EXPECT_TRUE(isAsked());
    EXPECT_THAT(asked(), ElementsAre(kEnd));
    EXPECT_EQ(caller.call(kKept, "{}"), R"({"returnValue":true,"keep":true,"ended":true})");
}

TEST_F(Keeper, TakesAConnectionThatSomebodyMadeForOneThatIsWantedAgain) {
    status(kUp);
    startAndFollow();
    EXPECT_EQ(tell(false), kYes);
    become(kDown);
    become(kUp);
    EXPECT_TRUE(Caller::waitFor(
        [&] { return caller.call(kKept, "{}") == R"({"returnValue":true,"keep":true,"ended":false})"; }));
    become(kDown);
    EXPECT_TRUE(isAsked());
    EXPECT_THAT(asked(), ElementsAre(kLogIn));
}

TEST_F(Keeper, RefusesAWishThatItDoesNotUnderstand) {
    startAndFollow();
    for (const char* payload :
         {"{}", "", R"({"keep":0})", R"({"keep":"false"})", R"({"keep":null})", "[false]"})
        EXPECT_EQ(caller.call(kKeep, payload),
                  R"({"returnValue":false,"errorText":"\"keep\" must be true, or false when the connection )"
                  R"(is ended on purpose"})")
            << payload;
}

TEST_F(Keeper, LeavesTheDelaysOnBatteryToTheService) {
    onBattery(true);
    status(kUp);
    startAndFollow();
    become(kDown);
    EXPECT_TRUE(isLeftAlone());
    keeper->resumed();
    EXPECT_TRUE(isAsked()) << "an event of the machine is followed by one attempt";
    become(kDown);
    EXPECT_TRUE(isLeftAlone());
    onBattery(false);
    EXPECT_GT(send(noticesEnd, "SUBSYSTEM=power_supply", 22, MSG_NOSIGNAL), 0);
    EXPECT_TRUE(isAsked(2)) << "back on mains";
}

TEST_F(Keeper, SeesAChargerThatIsPluggedInWhileItBeginsToWatch) {
    onBattery(true);
    atOpening = [this] { onBattery(false); };
    start();
    EXPECT_TRUE(isAsked()) << "the kernel's notice came before anybody listened";
}

TEST_F(Keeper, StopsTheDelaysWhenTheMachineIsUnplugged) {
    startAndFollow();
    EXPECT_TRUE(isAsked());
    onBattery(true);
    become(kDown);
    EXPECT_TRUE(isLeftAlone());
}

TEST_F(Keeper, KeepsTheDelaysOnBatteryWhereTheSettingsSaySo) {
    onBattery(true);
    config.reconnectsOnBattery = true;
    start();
    for (size_t attempt = 1; attempt <= 3; ++attempt) {
        EXPECT_TRUE(isAsked(attempt));
        become(kDown);
    }
}

TEST_F(Keeper, DoesNothingWhereTheSettingsSaySo) {
    config.keepsConnection = false;
    start();
    keeper->resumed();
    EXPECT_FALSE(Caller::waitFor([&] { return !service->calls.empty(); }, 500));
    EXPECT_EQ(tell(false), kYes);
    EXPECT_EQ(caller.call(kKept, "{}"), R"({"returnValue":true,"keep":false,"ended":true})");
}

}  // namespace
