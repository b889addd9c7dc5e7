// SPDX-License-Identifier: GPL-3.0-only
// The refusals that all public endpoint methods share, in the same order and with the same texts.
#include "tests/unit/endpoints/endpointtest.h"

namespace {

struct Method {
    const char* name;
    QSFilter handler;
    bool needsConnection;
};

const Method kMethods[] = {
    {"createEndpoint", createEndpoint, true},
    {"deleteEndpoint", deleteEndpoint, true},
    {"getPublishKey", getPublishKey, true},
    {"subscribe", subscribe, false},
    {"unsubscribe", unsubscribe, false},
    {"subscribeOnClose", subscribeOnClose, false},
    {"unsubscribeOnClose", unsubscribeOnClose, false},
};

}  // namespace

class PublicRefusal : public EndpointTest, public testing::WithParamInterface<Method> {
  protected:
    Answer askThis(const std::string& payload, const std::string& appId = "com.example.app 4711") {
        return ask(GetParam().handler, GetParam().name, payload, appId);
    }
    void expectRefused(const Answer& answer, const std::string& payload, const std::string& endpoint,
                       const std::string& code, const std::string& text, const std::string& shownText = "") {
        EXPECT_EQ(answer, refusal(endpoint, code, shownText.empty() ? text : shownText)) << payload;
        EXPECT_EQ(answer.all().size(), 1u);
        EXPECT_FALSE(answer.kept());
        EXPECT_TRUE(log().contains("Error " + text + ", Incoming " + payload)) << log().raw();
        EXPECT_EQ(stanzaCount(), 0u);
        EXPECT_TRUE(session().m_endpointMap.empty());
        EXPECT_TRUE(session().subMap.empty());
        EXPECT_TRUE(session().m_offlineMap.empty());
        log().clear();
    }
};

INSTANTIATE_TEST_SUITE_P(Methods, PublicRefusal, testing::ValuesIn(kMethods),
                         [](const auto& method) { return std::string(method.param.name); });

TEST_P(PublicRefusal, NamesWhatIsWrongWithThePayload) {
    for (const char* payload : {"{", "null", ""})
        expectRefused(askThis(payload), payload, "", "parameterErr", "Malformed json");
    for (const char* payload : {"{}", "[]", "5", R"("endpoint")", R"({"endpoint":null})"})
        expectRefused(askThis(payload), payload, "", "parameterErr", "No endpoint provided");
    expectRefused(askThis(R"({"endpoint":""})"), R"({"endpoint":""})", "", "parameterErr",
                  "Empty endpoint provided");
}

TEST_P(PublicRefusal, NamesACallerWithoutAnApplicationId) {
    expectRefused(askThis(kInbox, ""), kInbox, "inbox", "libErr", "Error getting appid of calling app");
}

TEST_P(PublicRefusal, RefusesANodeNameOfAHundredBytes) {
    const std::string prefix = "/u1234/dev42/com.example.app/";
    const std::string endpoint(100 - prefix.size(), 'x');
    const std::string payload = R"({"endpoint":")" + endpoint + R"("})";
    expectRefused(askThis(payload), payload, endpoint, "libErr", "endpoint too long");
}

// A control character takes six bytes in JSON, so a short request could cause a long refusal.
TEST_P(PublicRefusal, EchoesNoMoreThanFourKiBOfAnEndpoint) {
    const std::string plain(4000, 'x');
    EXPECT_EQ(askThis(R"({"endpoint":")" + plain + R"("})"), refusal(plain, "libErr", "endpoint too long"));
    std::string escaped;
    for (int i = 0; i < 682; ++i)
        escaped += R"(\u0001)";
    EXPECT_EQ(askThis(R"({"endpoint":")" + std::string(4000, '\x01') + R"("})"),
              refusal(escaped, "libErr", "endpoint too long"));
    // Never cut inside a character.
    const std::string tail(4095 - 6 * 600, 'x');
    EXPECT_EQ(askThis(R"({"endpoint":")" + std::string(600, '\x01') + tail + "\xc3\xa9" + R"("})"),
              refusal(escaped.substr(0, 6 * 600) + tail, "libErr", "endpoint too long"));
}

TEST_P(PublicRefusal, AcceptsANodeNameOfNinetyNineBytes) {
    const std::string prefix = "/u1234/dev42/com.example.app/";
    const std::string endpoint(99 - prefix.size(), 'x');
    const Answer answer = askThis(R"({"endpoint":")" + endpoint + R"("})");
    EXPECT_EQ(answer.text().find("false"), std::string::npos) << answer.text();
}

TEST_P(PublicRefusal, NeedsAManager) {
    session().dropClient();
    delete std::exchange(session().m_pubsub, nullptr);
    session().m_connected = true;
    expectRefused(askThis("{"), "{", "", "libErr", "Service not initialized");
    session().m_connected = false;
}

TEST_P(PublicRefusal, AsksForTheConnectionFirstWhereOneIsNeeded) {
    loseConnection();
    if (GetParam().needsConnection)
        expectRefused(askThis("{"), "{", "", "connectionErr", "Not connected to xmpp server");
    else
        expectRefused(askThis("{"), "{", "", "parameterErr", "Malformed json");
}
