// SPDX-License-Identifier: GPL-3.0-only
// Connection status: the replies of the two methods, and what their subscribers get at each change.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "service/methods.h"
#include "tests/fakes/servicefixture.h"
#include "util/jsonref.h"
#include "xmpp/client.h"

namespace {

constexpr char kSubscribe[] = R"({"subscribe":true})";

class Status : public ServiceTest {
  protected:
    Answer publicStatus(const std::string& payload) {
        return callPublic(connectStatus, "connectStatus", payload);
    }
    Answer details(const std::string& payload) {
        return callPrivate(subscribeConnStatus, "subscribeConnStatus", payload);
    }
    Texts posts() { return journal().eventsOf("bus.post "); }
};

TEST_F(Status, ConnectStatusReportsThatTheStreamIsUp) {
    connectSession();
    EXPECT_EQ(publicStatus("{}"), R"({ "returnValue": true, "connected": true })");
    EXPECT_EQ(takeEvents(), Texts{R"(bus.reply connectStatus { "returnValue": true, "connected": true })"});
    EXPECT_EQ(fakeServer().connects(), 1);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Status, ConnectStatusAsksForNoConnectionWhileTheStreamIsUp) {
    connectSession();
    session().m_networkAvailable = false;
    session().m_lastError = 5;
    EXPECT_EQ(publicStatus("{}"), R"({ "returnValue": true, "connected": true })");
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(session().m_lastError, 5);
}

TEST_F(Status, ConnectStatusConnectsWhenTheStreamIsDown) {
    setAccountDetails();
    EXPECT_EQ(publicStatus("{}"), R"({ "returnValue": true, "connected": false })");
    EXPECT_TRUE(session().m_connecting);
}

TEST_F(Status, ConnectStatusAnswersBeforeItTriesToConnect) {
    publicStatus("{}");
    EXPECT_EQ(takeLogLines(),
              Texts{"connectToService: There is no network available, cannot connect to service"});
    EXPECT_EQ(takeEvents(), Texts{R"(bus.reply connectStatus { "returnValue": true, "connected": false })"});
}

TEST_F(Status, ConnectStatusTakesAPayloadThatIsNoJsonForAPlainQuestion) {
    EXPECT_EQ(publicStatus("no json"), R"({ "returnValue": true, "connected": false })");
}

TEST_F(Status, ASubscriberOfConnectStatusGetsTheConnectAndTheLoss) {
    setAccountDetails();
    const Answer answer = publicStatus(kSubscribe);
    pump();
    ASSERT_TRUE(session().m_connected);
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    EXPECT_EQ(answer.all(), (Texts{R"({ "returnValue": true, "connected": false })",
                                   R"({"returnValue":true, "connected":true})",
                                   R"({"returnValue":true, "connected":false})"}));
}

TEST_F(Status, APrivateSubscriberOfConnectStatusGetsThemToo) {
    setAccountDetails();
    const Answer answer = callPrivate(connectStatus, "connectStatus", kSubscribe);
    pump();
    ASSERT_EQ(answer.all().size(), 2u);
    EXPECT_EQ(answer.all()[1], R"({"returnValue":true, "connected":true})");
}

TEST_F(Status, ASubscriptionOfConnectStatusThatFailsIsTheOnlyAnswer) {
    setAccountDetails();
    fakeBus().failNext("QSSubscriptionProcess", -105, "full");
    const Answer answer = publicStatus(kSubscribe);
    EXPECT_EQ(answer.all(), Texts{R"({ "returnValue": false, "errorCode": "libErr", )"
                                  R"("errorText": "Processing subscription failed" })"});
    EXPECT_EQ(takeLogLines().front(), "connectStatus: Processing subscription failed -105 full");
    EXPECT_FALSE(session().m_connecting) << "a refused question is no request to connect";
}

TEST_F(Status, LogsRepliesThatCannotBeSent) {
    connectSession();
    fakeBus().failNext("QSMessageReply", -107, "gone", 2);
    publicStatus("{}");
    details("{}");
    EXPECT_EQ(takeLogLines(), (Texts{"connectStatus: Sending reply to client failed -107 gone",
                                     "subscribeConnStatus: Sending reply to client failed -107 gone"}));
}

TEST_F(Status, ConnectStatusConnectsThoughItsReplyCouldNotBeSent) {
    setAccountDetails();
    fakeBus().failNext("QSMessageReply", -107, "gone");
    EXPECT_EQ(publicStatus("{}").all(), Texts{});
    EXPECT_EQ(takeLogLines().front(), "connectStatus: Sending reply to client failed -107 gone");
    EXPECT_TRUE(session().m_connecting);
    pump();
    EXPECT_TRUE(session().m_connected);
}

TEST_F(Status, SubscribeConnStatusReportsTheStateBeforeAnyLogin) {
    EXPECT_EQ(details("{}"),
              R"({ "returnValue": true, "connected": false, "session": false, "network": false })");
    EXPECT_FALSE(session().m_connecting);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(Status, SubscribeConnStatusReportsASessionWithDetailsEvenWhileItIsDown) {
    setAccountDetails();
    EXPECT_EQ(details("{}"),
              R"({ "returnValue": true, "connected": false, "session": true, "network": true })");
    EXPECT_FALSE(session().m_connecting) << "no connect attempt";
}

TEST_F(Status, SubscribeConnStatusReportsASessionByItsJidAlone) {
    session().m_jid = gloox::JID("example.org");
    EXPECT_EQ(details("{}"),
              R"({ "returnValue": true, "connected": false, "session": true, "network": false })");
    setAccountDetails();
    session().m_jid = gloox::JID();
    EXPECT_EQ(details("{}"),
              R"({ "returnValue": true, "connected": false, "session": false, "network": true })");
}

TEST_F(Status, SubscribeConnStatusReportsAConnectedSession) {
    connectSession();
    EXPECT_EQ(details("{}"),
              R"({ "returnValue": true, "connected": true, "session": true, "network": true })");
}

// The members of an answer, as it was given.
json_object* member(const JsonRef& answer, const char* key) {
    return jsonMember(answer.get(), key);
}

TEST_F(Status, SubscribeConnStatusSaysSinceWhenItIsConnectedToWhoeverAsksForDetails) {
    connectSession();
    session().m_connectedAt -= 90'000'000;
    const int64_t before = g_get_real_time() / 1'000'000 - 90;
    const JsonRef answer = parseJson(details(R"({"details":true})").text().c_str());
    EXPECT_TRUE(boolMember(answer.get(), "connected"));
    EXPECT_NEAR(static_cast<double>(json_object_get_int64(member(answer, "since"))),
                static_cast<double>(before), 1.0);
    EXPECT_EQ(member(answer, "ended"), nullptr);
    EXPECT_EQ(member(answer, "heard"), nullptr) << "no TCP connection, nothing known";
}

// Puts a TCP connection in the place of the scripted one's descriptor.
void becomeTcp(int descriptor) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int device = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* place = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(listener, place, length) | listen(listener, 1), 0);
    EXPECT_EQ(getsockname(listener, place, &length) | connect(device, place, length), 0);
    EXPECT_EQ(dup2(device, descriptor), descriptor);
    close(device);
    close(listener);
}

TEST_F(Status, SubscribeConnStatusSaysWhenTheServerWasLastHeard) {
    connectSession();
    becomeTcp(session().m_client->socket());
    const JsonRef answer = parseJson(details(R"({"details":true})").text().c_str());
    EXPECT_NEAR(static_cast<double>(json_object_get_int64(member(answer, "heard"))),
                static_cast<double>(g_get_real_time()) / 1'000'000, 2.0);
}

TEST_F(Status, SubscribeConnStatusSaysWhetherTheEndWasAskedFor) {
    constexpr char asked[] = R"({"details":true})";
    constexpr char ended[] =
        R"({ "returnValue": true, "connected": false, "session": true, "network": true, "ended": true })";
    constexpr char lost[] =
        R"({ "returnValue": true, "connected": false, "session": true, "network": true, "ended": false })";
    connectSession();
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    EXPECT_EQ(details(asked), lost);
    EXPECT_EQ(callPrivate(disconnect, "disconnect", "{}"), R"({"returnValue":true})");
    EXPECT_EQ(details(asked), ended);
    session().connectToService();
    EXPECT_EQ(details(asked), lost) << "an attempt has begun";
    pump();
    ASSERT_TRUE(session().m_connected);
    callPrivate(disconnect, "disconnect", "{}");
    callPrivate(initializeAccount, "initializeAccount", "{}");
    EXPECT_EQ(details(asked), lost) << "a login was asked for";
}

TEST_F(Status, SubscribeConnStatusGivesDetailsToNobodyElse) {
    connectSession();
    for (const char* payload : {"{}", "", "no json", R"({"details":false})", R"({"details":1})"})
        EXPECT_EQ(details(payload),
                  R"({ "returnValue": true, "connected": true, "session": true, "network": true })")
            << payload;
}

TEST_F(Status, ASubscriptionOfSubscribeConnStatusThatFailsCarriesQuotesInBothTexts) {
    fakeBus().failNext("QSSubscriptionProcess", -105, "full");
    const Answer answer = details(kSubscribe);
    EXPECT_EQ(answer.all(), Texts{R"({ "returnValue": false, "errorCode": "\"busErr\"", )"
                                  R"("errorText": "\"Processing subscription failed\"" })"});
    EXPECT_EQ(takeLogLines().front(), "subscribeConnStatus: Processing subscription failed -105 full");
}

TEST_F(Status, ASubscriberOfSubscribeConnStatusGetsTheDetails) {
    setAccountDetails();
    const Answer answer = details(kSubscribe);
    session().connectToService();
    pump();
    session().m_networkAvailable = false;
    session().disconnect();
    EXPECT_EQ(answer.all(),
              (Texts{R"({ "returnValue": true, "connected": false, "session": true, "network": true })",
                     R"({"returnValue":true, "connected":true, "session" : true, "network": true})",
                     R"({"returnValue":true, "connected":false, "session":true, "network":false})"}));
}

TEST_F(Status, PostsTheConnectInItsOrder) {
    session().postConnected();
    EXPECT_EQ(posts(), (Texts{R"(bus.post private / subscribeConnStatus )"
                              R"({"returnValue":true, "connected":true, "session" : true, "network": true})",
                              R"(bus.post public / connectStatus {"returnValue":true, "connected":true})",
                              R"(bus.post private / connectStatus {"returnValue":true, "connected":true})"}));
}

TEST_F(Status, PostsTheLossWithAndWithoutANetwork) {
    for (const char* network : {"true", "false"}) {
        session().m_networkAvailable = network == std::string("true");
        session().postDisconnected();
        EXPECT_EQ(
            posts(),
            (Texts{std::string(R"(bus.post private / subscribeConnStatus )"
                               R"({"returnValue":true, "connected":false, "session":true, "network":)") +
                       network + "}",
                   R"(bus.post public / connectStatus {"returnValue":true, "connected":false})",
                   R"(bus.post private / connectStatus {"returnValue":true, "connected":false})"}));
        journal().take();
    }
}

TEST_F(Status, LogsPostsThatCannotBeSentAndGoesOn) {
    fakeBus().failNext("QSSubscriptionPost", -107, "gone", 3);
    session().postConnected({"onConnect", 1});
    EXPECT_EQ(takeLogLines(), (Texts{"onConnect: Sending connection status failed. Error gone ",
                                     "onConnect: Sending connection status failed . Error gone ",
                                     "onConnect: Sending connection status failed . Error gone "}));
    fakeBus().failNext("QSSubscriptionPost", -107, "gone", 3);
    session().postDisconnected({"onDisconnect", 1});
    EXPECT_EQ(takeLogLines(), (Texts{"onDisconnect: Sending connection status failed. Error gone ",
                                     "onDisconnect: Sending connection status failed . Error gone ",
                                     "onDisconnect: Sending connection status failed . Error gone "}));
}

}  // namespace
