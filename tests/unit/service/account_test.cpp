// SPDX-License-Identifier: GPL-3.0-only
// The bus methods for the account, with their whole replies.
#include "service/methods.h"
#include "tests/fakes/servicefixture.h"

namespace {

constexpr char kLogin[] = "bus.call quor://com.zelt.accountservices/getAccountToken ";

class Account : public ServiceTest {};

TEST_F(Account, GetJabberIdAnswersWithTheLocalPartAlone) {
    setAccountDetails();
    EXPECT_EQ(callPrivate(getJabberId, "getJabberId", "ignored"),
              R"({ "returnValue": true, "username": "u1234" })");
}

TEST_F(Account, GetJabberIdAnswersBeforeAnyLogin) {
    EXPECT_EQ(callPrivate(getJabberId, "getJabberId", "{}"), R"({ "returnValue": true, "username": "" })");
}

TEST_F(Account, GetResourceAnswersWithTheResource) {
    setAccountDetails();
    EXPECT_EQ(callPrivate(getResource, "getResource", "ignored"),
              R"({ "returnValue": true, "resource": "dev42" })");
}

TEST_F(Account, AnswersEscapeWhatJsonNeedsEscaped) {
    gCurrentSession.m_resource = "a\"b/c\\\x01";
    EXPECT_EQ(callPrivate(getResource, "getResource", "{}"),
              R"({ "returnValue": true, "resource": "a\"b\/c\\\u0001" })");
}

TEST_F(Account, LogsRepliesThatCannotBeSentUnderTheMethodsName) {
    const std::pair<const char*, QSFilter> handlers[] = {
        {"getJabberId", getJabberId}, {"getResource", getResource}, {"disconnect", disconnect}};
    for (const auto& [name, handler] : handlers) {
        fakeBus().failNext("QSMessageReply", -107, "gone");
        callPrivate(handler, name, "{}");
        EXPECT_EQ(takeLogLines(), Texts{std::string(name) + ": Sending reply to client failed -107 gone"});
    }
}

TEST_F(Account, InitializeAccountAsksForALoginAndNeverReplies) {
    const Answer answer = callPrivate(initializeAccount, "initializeAccount", "no json");
    EXPECT_TRUE(answer.closedUnanswered());
    EXPECT_EQ(takeEvents(), Texts{kLogin});
    EXPECT_EQ(takeLogLines(), Texts{"initializeAccount: ==BEGIN - Initialize called"});
}

TEST_F(Account, InitializeAccountDropsTheConnectionFirst) {
    connectSession();
    const Answer answer = callPrivate(initializeAccount, "initializeAccount", "{}");
    EXPECT_TRUE(answer.closedUnanswered());
    EXPECT_FALSE(session().m_connected);
    EXPECT_EQ(session().m_client, nullptr);
    EXPECT_EQ(takeEvents().back(), kLogin);
    EXPECT_EQ(takeLogLines(), (Texts{"initializeAccount: ==BEGIN - Initialize called",
                                     "onDisconnect: Disconnected from xmpp server 17"}));
}

TEST_F(Account, InitializeAccountLeavesAnAttemptAlone) {
    setAccountDetails();
    ASSERT_TRUE(session().connectToService());
    callPrivate(initializeAccount, "initializeAccount", "{}");
    EXPECT_TRUE(session().m_connecting);
    EXPECT_NE(session().m_client, nullptr);
}

TEST_F(Account, InitializeAccountThatWantsAConnectionOnlyLeavesOneAlone) {
    constexpr char payload[] = R"({"unlessConnected":true})";
    connectSession();
    const Answer answer = callPrivate(initializeAccount, "initializeAccount", payload);
    EXPECT_TRUE(answer.closedUnanswered());
    EXPECT_TRUE(session().m_connected);
    session().disconnect();
    ASSERT_TRUE(session().connectToService());
    takeEvents();
    callPrivate(initializeAccount, "initializeAccount", payload);
    EXPECT_EQ(takeEvents(), Texts{}) << "an attempt is under way";
    session().disconnect();
    takeEvents();
    callPrivate(initializeAccount, "initializeAccount", payload);
    EXPECT_EQ(takeEvents(), Texts{kLogin});
}

TEST_F(Account, InitializeAccountArmsTheReconnectAlarmWhenNobodyCanBeAsked) {
    fakeBus().serviceMissing("com.zelt.accountservices");
    const Answer answer = callPrivate(initializeAccount, "initializeAccount", "{}");
    EXPECT_TRUE(answer.closedUnanswered());
    EXPECT_TRUE(session().m_reconnectPending);
    EXPECT_EQ(fakeBus().payloadsTo("zelt://com.zelt.power/timeout/set").size(), 1u);
}

TEST_F(Account, DisconnectEndsTheConnectionAndReplies) {
    connectSession();
    EXPECT_EQ(callPrivate(disconnect, "disconnect", "ignored"), R"({"returnValue":true})");
    const Texts events = takeEvents();
    ASSERT_EQ(events.size(), 5u) << "the ping's alarm is cleared, three are told, and the caller is answered";
    EXPECT_EQ(events.back(), R"(bus.reply disconnect {"returnValue":true})");
    EXPECT_FALSE(session().m_connected);
    EXPECT_EQ(session().m_client, nullptr);
    EXPECT_NE(session().m_pubsub, nullptr) << "the manager stays until the next session";
    EXPECT_FALSE(session().m_reconnectPending);
}

TEST_F(Account, DisconnectRepliesWithoutAConnectionToo) {
    EXPECT_EQ(callPrivate(disconnect, "disconnect", "{}"), R"({"returnValue":true})");
    EXPECT_EQ(takeLogLines(), Texts{});
}

// --- the handler that is in no table

constexpr char kBadArgument[] =
    R"({ "returnValue": false, "errorCode": "\"errBadArgument\"", "errorText": "\"Bad Argument\"" })";

class CreateSession : public ServiceTest {};

TEST_F(CreateSession, TakesTheDetailsConnectsAndReplies) {
    session().m_networkAvailable = true;
    session().m_resource = "old";
    session().m_ipAddress = kLocalAddress;
    EXPECT_EQ(
        call(createSession, R"({"jid":"u1@example.org","password":"secret","server":"xmpp.example.org",)"
                            R"("service":"pubsub.example.org","port":5223})"),
        R"({"returnValue":true})");
    EXPECT_EQ(session().m_jid.full(), "u1@example.org");
    EXPECT_EQ(session().m_password, "secret");
    EXPECT_EQ(session().m_server, "xmpp.example.org");
    EXPECT_EQ(session().m_pubsubService, "pubsub.example.org");
    EXPECT_EQ(session().m_port, 5223);
    EXPECT_EQ(session().m_resource, "");
    EXPECT_TRUE(session().m_connecting);
    EXPECT_EQ(takeLogLines(), (Texts{"connectToService: We are connecting to the vbx server.",
                                     "attachSocketToMainLoop: Attached socket " +
                                         std::to_string(session().m_socket) + " to mainloop"}));
}

TEST_F(CreateSession, RepliesWellWhateverTheConnectComesTo) {
    EXPECT_EQ(call(createSession, R"({"jid":"u","password":"p","server":"s","service":"x","port":1})"),
              R"({"returnValue":true})");
    EXPECT_FALSE(session().m_connecting);
}

TEST_F(CreateSession, RefusesAPayloadThatIsNoJson) {
    for (const char* payload : {"no json", "null", ""}) {
        const std::string malformed =
            R"({ "returnValue": false, "errorCode": "\"errBadArgument\"", "errorText": "Malformed json" })";
        EXPECT_EQ(call(createSession, payload).all(), Texts{malformed});
        EXPECT_EQ(takeLogLines(), (Texts{"createSession: Malformed json packet? \n",
                                         "HandleError: Sending return error " + malformed + " \n"}));
    }
}

TEST_F(CreateSession, RefusesEveryMissingOrEmptyMember) {
    for (const char* payload : {"{}", "[]", "5", R"({"password":"p","server":"s","service":"x","port":1})",
                                R"({"jid":"","password":"p","server":"s","service":"x","port":1})",
                                R"({"jid":"u","server":"s","service":"x","port":1})",
                                R"({"jid":"u","password":"p","service":"x","port":1})",
                                R"({"jid":"u","password":"p","server":"s","port":1})",
                                R"({"jid":"u","password":"p","server":"s","service":"x"})",
                                R"({"jid":"u","password":"p","server":"s","service":"x","port":null})"})
        EXPECT_EQ(call(createSession, payload).all(), Texts{kBadArgument}) << payload;
    EXPECT_EQ(session().m_username, "") << "nothing is taken over from a refused request";
}

TEST_F(CreateSession, LogsAReplyThatCannotBeSent) {
    fakeBus().failNext("QSMessageReply", -107, "gone");
    call(createSession, R"({"jid":"u","password":"p","server":"s","service":"x","port":1})");
    EXPECT_EQ(takeLogLines().back(), "createSession: Sending reply to client failed -107 gone");
}

}  // namespace
