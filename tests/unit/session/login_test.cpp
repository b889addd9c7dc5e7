// SPDX-License-Identifier: GPL-3.0-only
// Account login: the call, the fields that are set one by one, and where each invalid answer stops.
#include "tests/fakes/servicefixture.h"
#include "util/jsonref.h"

namespace {

constexpr char kTokenUri[] = "quor://com.zelt.accountservices/getAccountToken";
constexpr char kFailed[] =
    "getLoginResponse: getLoginResponse failed. Getting login details from accounts failed ";
constexpr char kRetiredHost[] = "retired.example.com";
constexpr char kDefaultHost[] = "xmpp.example.com";

// The object inside a complete answer.
constexpr char kAccount[] = R"({"user":"u1","service":"example.org","url":"xmpp.example.org","port":"5223"})";

class Login : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        fakePrefs().setDeviceId("device7");
        session().m_networkAvailable = true;
        session().m_ipAddress = kLocalAddress;
    }
    // An answer whose "jabberId" holds `account` as a text.
    static std::string answerWith(const std::string& account,
                                  const std::string& rest = R"(,"uniqueId":"token")") {
        JsonRef text(json_object_new_string(account.c_str()));
        return R"({"jabberId":)" + std::string(json_object_to_json_string(text.get())) + rest + "}";
    }
    void answers(const std::string& payload) {
        ASSERT_TRUE(session().getLoginDetails());
        takeEvents();
        ASSERT_TRUE(fakeBus().replyTo(kTokenUri, payload));
    }
    // The answer is given up with exactly these log lines, sets no alarm and does not connect.
    void expectStop(const std::string& payload, Texts lines) {
        answers(payload);
        lines.push_back(kFailed);
        EXPECT_EQ(takeLogLines(), lines) << payload;
        EXPECT_EQ(takeEvents(), Texts{});
        EXPECT_FALSE(session().m_reconnectPending);
        EXPECT_FALSE(session().m_connecting);
        EXPECT_EQ(session().m_client, nullptr);
    }
};

TEST_F(Login, AsksTheAccountServiceWithAnEmptyText) {
    EXPECT_TRUE(session().getLoginDetails());
    EXPECT_EQ(takeEvents(), Texts{std::string("bus.call ") + kTokenUri + " "});
    EXPECT_EQ(fakeBus().calls().back().context, &session());
    EXPECT_EQ(fakeBus().calls().back().handle, privateHandle());
}

TEST_F(Login, LogsThatItCannotAsk) {
    fakeBus().failNext("QSCall", -5, "no bus");
    EXPECT_FALSE(session().getLoginDetails());
    EXPECT_EQ(takeLogLines(), Texts{"getLoginDetails: Getting login details FAILED. Error no bus "});
}

TEST_F(Login, TakesACompleteAnswerAndConnects) {
    answers(answerWith(kAccount));
    EXPECT_EQ(session().m_username, "u1");
    EXPECT_EQ(session().m_domain, "example.org");
    EXPECT_EQ(session().m_pubsubService, "pubsub.example.org");
    EXPECT_EQ(session().m_jid.full(), "u1@example.org");
    EXPECT_EQ(session().m_server, "xmpp.example.org");
    EXPECT_EQ(session().m_port, 5223);
    EXPECT_EQ(session().m_resource, "device7");
    EXPECT_EQ(session().m_password, "token");
    EXPECT_TRUE(session().m_connecting);
    pump();
    EXPECT_TRUE(session().m_connected);
    EXPECT_EQ(fakeServer().host(), "xmpp.example.org");
    EXPECT_EQ(fakeServer().port(), 5223);
}

TEST_F(Login, NeverLogsTheToken) {
    // As received, and as the login sends it.
    const std::string token = "very-secret-token", member = R"(,"uniqueId":")" + token + "\"";
    const std::string sent = std::string("\0u1\0", 4) + token;
    gchar* encoded = g_base64_encode(reinterpret_cast<const guchar*>(sent.data()), sent.size());
    const std::string inLogin = encoded;
    g_free(encoded);
    for (const std::string& reply :
         {answerWith(kAccount, member), answerWith(R"({\"user\":\"u1\"})", member), answerWith("{", member),
          std::string("{") + member.substr(1), std::string("{\"jabberId\":\"\"") + member,
          std::string("{\"jabberId\":\"\"") + member + "}", "not json " + token})
        answers(reply);
    answers(answerWith(kAccount, member));
    pump();
    ASSERT_TRUE(session().m_connected) << "the token was used";
    fakeServer().closesWith(gloox::ConnIoError);
    pump();
    EXPECT_GE(log().records().size(), 5u);
    EXPECT_EQ(log().raw().find(token), std::string::npos);
    EXPECT_EQ(log().raw().find(inLogin), std::string::npos);
    session().m_connected = true;
}

TEST_F(Login, TakesTheInnerObjectWithAndWithoutBackslashesBeforeItsQuotes) {
    // Once the outer text is parsed: {\"user\":... and {"user":...
    answers(answerWith(
        R"({\"user\":\"u1\",\"service\":\"example.org\",\"url\":\"xmpp.example.org\",\"port\":\"5223\"})"));
    EXPECT_EQ(session().m_jid.full(), "u1@example.org");
    EXPECT_EQ(session().m_password, "token");
    EXPECT_TRUE(session().m_connecting);
}

TEST_F(Login, TakesAnInnerObjectThatIsNoTextButTheObjectItself) {
    answers(std::string(R"({"jabberId":)") + kAccount + R"(,"uniqueId":"token"})");
    EXPECT_EQ(session().m_jid.full(), "u1@example.org");
    EXPECT_TRUE(session().m_connecting);
}

TEST_F(Login, ReplacesTheRetiredHostInServiceAndUrl) {
    answers(answerWith(std::string(R"({"user":"u1","service":")") + kRetiredHost + R"(","url":")" +
                       kRetiredHost + R"(","port":"5222"})"));
    EXPECT_EQ(session().m_domain, kDefaultHost);
    EXPECT_EQ(session().m_pubsubService, std::string("pubsub.") + kDefaultHost);
    EXPECT_EQ(session().m_jid.full(), std::string("u1@") + kDefaultHost);
    EXPECT_EQ(session().m_server, kDefaultHost);
}

TEST_F(Login, RemovesQuotesAndBackslashesFromEveryMember) {
    // Single quotes around the inner texts: between double ones the inner text cannot hold any.
    answers(answerWith(R"({'user':'u"1"','service':'"example".org','url':'"h"','port':'"52"24'})",
                       R"(,"uniqueId":"to\\k\"en")"));
    EXPECT_EQ(session().m_username, "u1");
    EXPECT_EQ(session().m_jid.full(), "u1@example.org");
    EXPECT_EQ(session().m_server, "h");
    EXPECT_EQ(session().m_port, 5224);
    EXPECT_EQ(session().m_password, "token");
}

TEST_F(Login, KeepsAHostThatOnlyLooksLikeTheRetiredOne) {
    for (const std::string& host :
         Texts{std::string("x") + kRetiredHost, kRetiredHost + std::string(".org")}) {
        answers(
            answerWith(R"({"user":"u1","service":")" + host + R"(","url":")" + host + R"(","port":"5222"})"));
        EXPECT_EQ(session().m_domain, host);
        EXPECT_EQ(session().m_server, host);
        session().disconnect();
    }
}

TEST_F(Login, ReplacesTheRetiredHostInTheUrlAlone) {
    answers(answerWith(std::string(R"({"user":"u1","service":"example.org","url":")") + kRetiredHost +
                       R"(","port":"5222"})"));
    EXPECT_EQ(session().m_domain, "example.org");
    EXPECT_EQ(session().m_server, kDefaultHost);
}

TEST_F(Login, TakesAPortThatIsNoneForZeroAndConnectsAllTheSame) {
    const std::pair<const char*, int> ports[] = {
        {"abc", 0}, {"70000", 0}, {"-1", 0}, {"65535", 65535}, {"5222x", 5222}};
    for (const auto& [text, port] : ports) {
        answers(answerWith(std::string(R"({"user":"u1","service":"example.org","url":"h","port":")") + text +
                           R"("})"));
        EXPECT_EQ(session().m_port, port) << text;
        EXPECT_TRUE(session().m_connecting) << text;
        pump();
        EXPECT_EQ(fakeServer().port(), port > 0 ? port : 5222) << text << ", the default port stands for 0";
        session().disconnect();
    }
}

TEST_F(Login, TakesAPortThatIsANumber) {
    answers(answerWith(R"({"user":"u1","service":"example.org","url":"h","port":5224})"));
    EXPECT_EQ(session().m_port, 5224);
}

TEST_F(Login, ConnectsWithAnEmptyResourceWhenThereIsNoDeviceId) {
    fakePrefs().failNext("QPSystemCopyStringValue", QP_IO);
    answers(answerWith(kAccount));
    EXPECT_EQ(session().m_resource, "");
    EXPECT_EQ(takeLogLines().front(),
              "getLoginResponse: Error getting device kduid. We will drop device specific packets 3");
    EXPECT_TRUE(session().m_connecting);
}

TEST_F(Login, LogsANullContext) {
    ASSERT_TRUE(session().getLoginDetails());
    FakeMessage* message = fakeBus().request(privateHandle(), "", answerWith(kAccount));
    EXPECT_TRUE(PubSubSession::getLoginResponse(privateHandle(), message, nullptr));
    QSMessageUnref(message);
    EXPECT_EQ(takeLogLines(),
              (Texts{"getLoginResponse: Getting login details FAILED. Context was NULL", kFailed}));
}

TEST_F(Login, StopsAtAnAnswerThatIsNoJson) {
    for (const char* payload : {"no json", "", "null"})
        expectStop(payload, {"getLoginResponse: Malformed json packet? \n"});
}

TEST_F(Login, StopsWithoutAJabberId) {
    const std::string line = "getLoginResponse: obj null, First is not run yet / Acct services went down?";
    for (const char* payload :
         {"{}", "[]", "5", R"({"jabberId":null,"uniqueId":"t"})", R"({"uniqueId":"t"})"})
        expectStop(payload, {line});
}

TEST_F(Login, StopsAtABusErrorOfTheAccountService) {
    ASSERT_TRUE(session().getLoginDetails());
    fakeBus().replyErrorTo(kTokenUri, "org.freedesktop.DBus.Error.NoReply", "gone");
    EXPECT_EQ(
        takeLogLines(),
        (Texts{"getLoginResponse: obj null, First is not run yet / Acct services went down?", kFailed}));
}

TEST_F(Login, StopsAtAnEmptyJabberId) {
    expectStop(R"({"jabberId":"","uniqueId":"t"})", {"getLoginResponse: jabberId empty?"});
}

TEST_F(Login, StopsAtAJabberIdThatHoldsNoJson) {
    for (const char* inner : {"u1@example.org", "\\\\", "null"})
        expectStop(answerWith(inner), {"getLoginResponse: Malformed json packet? \n"});
}

struct MissingField {
    const char* key;
    std::size_t written;  // how many of the fields before it have been set
};

class LoginField : public Login, public testing::WithParamInterface<MissingField> {
  protected:
    // A complete account in which one field is given as `value`, or left out.
    static std::string accountWith(const std::string& key, const std::string& value) {
        JsonRef account = parseJson(kAccount);
        json_object_object_del(account.get(), key.c_str());
        if (!value.empty())
            json_object_object_add(account.get(), key.c_str(), json_tokener_parse(value.c_str()));
        return json_object_to_json_string(account.get());
    }
};

TEST_P(LoginField, ThatIsMissingOrEmptyStopsTheAnswerAndKeepsWhatCameBefore) {
    const std::string key = GetParam().key;
    for (const std::string value : {"", "\"\"", "null"}) {
        session().m_username = session().m_domain = session().m_pubsubService = session().m_server = "old";
        session().m_resource = session().m_password = "old";
        session().m_port = 1;
        session().m_jid = gloox::JID();
        expectStop(answerWith(accountWith(key, value)), {"getLoginResponse: " + key + " empty?"});
        const std::size_t written = GetParam().written;
        EXPECT_EQ(session().m_username, written > 0 ? "u1" : "old");
        EXPECT_EQ(session().m_domain, written > 1 ? "example.org" : "old");
        EXPECT_EQ(session().m_pubsubService, written > 1 ? "pubsub.example.org" : "old");
        EXPECT_EQ(session().m_jid.full(), written > 1 ? "u1@example.org" : "");
        EXPECT_EQ(session().m_server, written > 2 ? "xmpp.example.org" : "old");
        EXPECT_EQ(session().m_port, 1);
        EXPECT_EQ(session().m_resource, "old");
        EXPECT_EQ(session().m_password, "old");
    }
}

INSTANTIATE_TEST_SUITE_P(EveryField, LoginField,
                         testing::Values(MissingField{"user", 0}, MissingField{"service", 1},
                                         MissingField{"url", 2}, MissingField{"port", 3}),
                         [](const auto& field) { return field.param.key; });

TEST_F(Login, WithoutATokenUpdatesEverythingElseButDoesNotConnect) {
    session().m_password = "old";
    for (const char* rest : {"", R"(,"uniqueId":"")", R"(,"uniqueId":null)"}) {
        expectStop(answerWith(kAccount, rest), {});
        EXPECT_EQ(session().m_port, 5223);
        EXPECT_EQ(session().m_resource, "device7");
        EXPECT_EQ(session().m_password, "old");
    }
}

TEST_F(Login, ArmsTheReconnectAlarmWhenItCannotConnectThoughThereIsANetwork) {
    // A user that is not valid in a JID leaves the session without one.
    answers(answerWith(R"({"user":"a b","service":"example.org","url":"h","port":"5222"})"));
    EXPECT_EQ(takeLogLines()[1], "connectToService: Create session failed");
    EXPECT_TRUE(session().m_reconnectPending);
}

TEST_F(Login, ArmsNothingWhenThereIsNoNetwork) {
    session().m_networkAvailable = false;
    answers(answerWith(kAccount));
    EXPECT_EQ(takeLogLines(),
              Texts{"connectToService: There is no network available, cannot connect to service"});
    EXPECT_FALSE(session().m_reconnectPending);
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(Login, ReplacesTheDetailsOfTheCredentialsFile) {
    setAccountDetails();
    answers(answerWith(kAccount));
    EXPECT_EQ(session().m_username, "u1");
    EXPECT_EQ(session().m_password, "token");
    EXPECT_EQ(session().m_resource, "device7");
}

}  // namespace
